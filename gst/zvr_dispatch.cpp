// Routing of the library's process-wide callback and outcomes to the plugin's sessions.

#include "zvr_dispatch.h"

#include <cxxabi.h>

#include <map>
#include <set>

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

// Held across a whole creation, so that no two creations of the plugin overlap.
std::mutex& creationMutex() {
  static std::mutex* const m = new std::mutex;
  return *m;
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
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
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
    session->failureSeen = std::chrono::steady_clock::now();
    session->changed.notify_all();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
  }
}

}  // namespace

const char* serviceName() { return "velmora.zvr.MediaService"; }

void installHooks() {
  static std::once_flag once;
  std::call_once(once, [] {
    velmora::ZVRMediaProxyManagerInterface* manager = requestZVRMediaProxy();
    if (manager != nullptr) manager->setZVRCallback(&onNotification);
    velmora::addZVROutcomeListener(&onOutcome, nullptr);
  });
}

Creation createProxy(const std::shared_ptr<Session>& session) {
  std::lock_guard<std::mutex> serialised(creationMutex());
  {
    std::lock_guard<std::mutex> lock(session->mutex);
    if (session->cancelled) return Creation::kCancelled;
  }
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
  if (session->cancelled) return Creation::kCancelled;
  session->proxy = std::move(proxy);
  return Creation::kCreated;
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
