// Routing of the library's process-wide callback and outcomes to the plugin's sessions, and the
// plugin's creation thread.

#include "zvr_dispatch.h"

#include <map>
#include <set>
#include <thread>

#include "zvr_cancellation.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_diagnostics.h"

GST_DEBUG_CATEGORY_EXTERN(zvr_src_debug);
#define GST_CAT_DEFAULT zvr_src_debug

namespace zvr_gst {

namespace {

struct Registry {
  std::mutex mutex;
  // Live sessions by proxy id.
  std::map<std::string, std::shared_ptr<Session>> sessions;
  // Every id a creation of this process returned; never shrinks.
  std::set<std::string> seen;
};

// Never destroyed: the library may call the hooks until the process ends.
Registry& registry() {
  static Registry* const r = new Registry;
  return *r;
}

struct Hooks {
  std::mutex mutex;
  bool callbackSet = false;
  bool listenerAdded = false;
};

Hooks& hooks() {
  static Hooks* const h = new Hooks;
  return *h;
}

// The sessions waiting for a creation, served one at a time by the creation thread, which is
// started by the first request and runs until the process ends. Never destroyed.
struct CreationQueue {
  std::mutex mutex;
  std::condition_variable queued;
  std::deque<std::shared_ptr<Session>> sessions;
  bool running = false;
};

CreationQueue& creationQueue() {
  static CreationQueue* const q = new CreationQueue;
  return *q;
}

std::shared_ptr<Session> find(const std::string& id) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.sessions.find(id);
  return it != r.sessions.end() ? it->second : nullptr;
}

// The application callback. It runs on the library's listener thread, or inside start() in
// synchronous mode, with the proxy's mutex held: store and wake the worker, nothing more.
void onNotification(std::string id, std::string kind, std::string value) {
  try {
    std::shared_ptr<Session> session = find(id);
    if (!session) {
      GST_DEBUG("dropped %s for proxy '%s', which no element owns", kind.c_str(), id.c_str());
      return;
    }
    std::lock_guard<std::mutex> lock(session->mutex);
    if (kind == "url") {
      session->url = value;
    } else if (kind == "definitions") {
      session->definitions.push_back(value);
    } else {
      return;
    }
    session->changed.notify_all();
  } catch (...) {
    if (velmora::unwindingCancelledThread()) throw;
    // A failed allocation loses this notification; the worker's time limit still holds.
  }
}

// The outcome listener: a refused start ends the session's wait at once.
void onOutcome(const velmora::ZVROutcome& outcome, void* /*userData*/) {
  try {
    if (outcome.kind != velmora::ZVROutcome::kFailedAnswer) return;
    std::shared_ptr<Session> session = find(outcome.proxyId);
    if (!session) return;
    if (outcome.name != "started") {
      GST_INFO("proxy %s: %s answered %s (%s)", outcome.proxyId.c_str(), outcome.name.c_str(),
               outcome.code.c_str(), outcome.detail.c_str());
      return;
    }
    std::lock_guard<std::mutex> lock(session->mutex);
    session->startFailed = true;
    session->failureCode = outcome.code;
    session->failureDetail = outcome.detail;
    session->changed.notify_all();
  } catch (...) {
    if (velmora::unwindingCancelledThread()) throw;
  }
}

// Whether the session no longer wants its creation's result. Called with its mutex held.
bool givenUp(const Session& session) { return session.cancelled || session.creationAbandoned; }

// One creation, on the creation thread. On kCreated the id is routed to the session.
Creation create(const std::shared_ptr<Session>& session) {
  velmora::ZVRMediaProxyManagerInterface* manager = requestZVRMediaProxy();
  if (manager == nullptr) return Creation::kNoLibrary;
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy = manager->createNewZVRMediaProxy();
  if (!proxy) return Creation::kNoLibrary;
  const std::string id = proxy->id();
  if (id.empty()) return Creation::kNoService;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (!r.seen.insert(id).second) return Creation::kReusedId;
    r.sessions[id] = session;
  }
  std::lock_guard<std::mutex> lock(session->mutex);
  session->proxyId = id;
  session->proxy = std::move(proxy);
  return Creation::kCreated;
}

void runCreations() {
  CreationQueue& q = creationQueue();
  for (;;) {
    std::shared_ptr<Session> session;
    {
      std::unique_lock<std::mutex> lock(q.mutex);
      q.queued.wait(lock, [&q] { return !q.sessions.empty(); });
      session = std::move(q.sessions.front());
      q.sessions.pop_front();
    }
    bool skip;
    {
      std::lock_guard<std::mutex> lock(session->mutex);
      skip = givenUp(*session);
    }
    Creation result = Creation::kCancelled;
    if (!skip) {
      try {
        result = create(session);
      } catch (...) {
        if (velmora::unwindingCancelledThread()) throw;
        result = Creation::kNoLibrary;
      }
    }
    // A session that gave up while its creation ran never sees the proxy; its worker may have
    // ended already, so its id is taken out of dispatch here, before the creation is reported
    // done: nothing routed to that id reaches the session afterwards.
    bool discard = false;
    {
      std::lock_guard<std::mutex> lock(session->mutex);
      discard = result == Creation::kCreated && givenUp(*session);
    }
    if (discard) {
      unregisterSession(session);
      result = Creation::kCancelled;
    }
    {
      std::lock_guard<std::mutex> lock(session->mutex);
      if (discard) {
        GST_DEBUG("proxy %s created for a session that gave up: discarded",
                  session->proxyId.c_str());
        session->proxy.reset();
      }
      session->creationDone = true;
      session->creation = result;
      session->changed.notify_all();
    }
  }
}

}  // namespace

const char* serviceName() { return "velmora.zvr.MediaService"; }

bool installHooks() {
  Hooks& h = hooks();
  std::lock_guard<std::mutex> lock(h.mutex);
  if (!h.listenerAdded) h.listenerAdded = velmora::addZVROutcomeListener(&onOutcome, nullptr);
  if (!h.callbackSet) {
    velmora::ZVRMediaProxyManagerInterface* manager = requestZVRMediaProxy();
    if (manager != nullptr) {
      manager->setZVRCallback(&onNotification);
      h.callbackSet = true;
    } else {
      GST_WARNING("the media proxy library has no manager yet; asked again at the next start");
    }
  }
  return h.callbackSet;
}

bool requestCreation(const std::shared_ptr<Session>& session) {
  CreationQueue& q = creationQueue();
  std::lock_guard<std::mutex> lock(q.mutex);
  if (!q.running) {
    try {
      std::thread(runCreations).detach();
    } catch (const std::exception& e) {
      GST_WARNING("no creation thread: %s", e.what());
      return false;
    }
    q.running = true;
  }
  q.sessions.push_back(session);
  q.queued.notify_one();
  return true;
}

void unregisterSession(const std::shared_ptr<Session>& session) {
  std::string id;
  {
    std::lock_guard<std::mutex> lock(session->mutex);
    id = session->proxyId;
  }
  if (id.empty()) return;
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.sessions.find(id);
  if (it != r.sessions.end() && it->second == session) r.sessions.erase(it);
}

}  // namespace zvr_gst
