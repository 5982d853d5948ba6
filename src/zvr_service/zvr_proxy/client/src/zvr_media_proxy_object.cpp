#include "zvr_media_proxy_object.h"

#include <functional>
#include <iostream>
#include <utility>
#include <vector>

#include "zvr_diagnostics.h"
#include "zvr_event_record.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"

namespace velmora {

using logging::kError;
using logging::kHeadline;
using logging::kProgress;

namespace {

// The positions of the event record that a proxy reads.
constexpr std::size_t kPosName = 0;
constexpr std::size_t kPosCode = 1;
constexpr std::size_t kPosTarget = 3;
constexpr std::size_t kPosURL = 6;
constexpr std::size_t kPosDefinitions = 7;
constexpr std::size_t kPosDetail = 8;

// Calls that the application made on a proxy from inside that proxy's "url" notification, which
// runs while the proxy's mutex is held. They run on the same thread, in call order, right after
// the notifying handler has released the mutex.
struct DeferredCall {
  ZVRMediaProxyObject* object;
  std::function<void()> call;
};
thread_local std::vector<DeferredCall> tDeferredCalls;

// Removes and returns the calls deferred for `object`, in call order.
std::vector<std::function<void()>> takeDeferredCalls(ZVRMediaProxyObject* object) {
  std::vector<std::function<void()>> calls;
  std::vector<DeferredCall>& all = tDeferredCalls;
  for (auto it = all.begin(); it != all.end();) {
    if (it->object == object) {
      calls.push_back(std::move(it->call));
      it = all.erase(it);
    } else {
      ++it;
    }
  }
  return calls;
}

// Holds an object's mutex across a call out of the library and records so on this thread.
class CallOutLock {
 public:
  CallOutLock(const ZVRMediaProxyObject* object, std::mutex& mutex)
      : object_(object), lock_(mutex) {
    diagnostics::proxyMutexLocked(object_);
  }
  ~CallOutLock() {
    diagnostics::proxyMutexUnlocked(object_);
    lock_.unlock();
    diagnostics::lockReleased();
  }
  CallOutLock(const CallOutLock&) = delete;
  CallOutLock& operator=(const CallOutLock&) = delete;

 private:
  const ZVRMediaProxyObject* const object_;
  std::unique_lock<std::mutex> lock_;
};

}  // namespace

// The object is owned through a shared pointer whose control block, allocated apart from it,
// also carries the proxy's counters.
std::shared_ptr<ZVRMediaProxyObject> ZVRMediaProxyObject::create(std::string id) {
  return diagnostics::adopt(new ZVRMediaProxyObject(std::move(id)));
}

ZVRMediaProxyObject::ZVRMediaProxyObject(std::string id) {
  std::lock_guard<std::mutex> lock(mutex_);
  ZVR_LOG(kProgress, "new ProxyObject id:%s\n", id.c_str());
  id_ = std::move(id);
  state_.store(STATE_IDLE);
  {
    std::lock_guard<std::mutex> textLock(textMutex_);
    localURL_.clear();
    definitions_.clear();
  }
  manager_ = ZVRMediaProxyManager::getInstance();
  seekPosition_.store(0.0);
}

ZVRMediaProxyObject::~ZVRMediaProxyObject() = default;

// Inside this proxy's "url" notification the calling thread already holds the mutex: the
// getters then read without taking it again, which shows the state before the move to
// STATE_STARTED and the URL being announced. While the manager registers the proxy, id() reads
// the id (which never changes) without the mutex too, so that registering never orders the
// manager mutex before a proxy's mutex. A deliberate deviation: the protocol's getters always
// lock; here they skip the lock only where locking would deadlock or invert the lock order.
std::string ZVRMediaProxyObject::id() {
  if (diagnostics::holdsProxyMutex(this) || diagnostics::registering(this)) return id_;
  std::lock_guard<std::mutex> lock(mutex_);
  return id_;
}

std::string ZVRMediaProxyObject::localURL() {
  if (diagnostics::holdsProxyMutex(this)) return copyLocalURL();
  std::lock_guard<std::mutex> lock(mutex_);
  std::lock_guard<std::mutex> textLock(textMutex_);
  return localURL_;
}

int ZVRMediaProxyObject::getState() {
  if (diagnostics::holdsProxyMutex(this)) return state_.load();
  std::lock_guard<std::mutex> lock(mutex_);
  return state_.load();
}

std::string ZVRMediaProxyObject::copyLocalURL() {
  std::lock_guard<std::mutex> textLock(textMutex_);
  return localURL_;
}

std::string ZVRMediaProxyObject::copyDefinitions() {
  std::lock_guard<std::mutex> textLock(textMutex_);
  return definitions_;
}

void ZVRMediaProxyObject::setLocalURL_l(std::string url) {
  std::lock_guard<std::mutex> textLock(textMutex_);
  localURL_ = std::move(url);
}

// A command called from inside this proxy's "url" notification is deferred until the notifying
// handler has released the mutex (see DeferredCall); it then runs in full, trace lines included.
// A deliberate deviation: the protocol runs every command at once, which from there would wait
// for good for the mutex its own thread holds.
void ZVRMediaProxyObject::start(std::string url, int mode) {
  if (diagnostics::holdsProxyMutex(this)) {
    tDeferredCalls.push_back({this, [this, url, mode] { start(url, mode); }});
    return;
  }
  ZVR_TRACE();
  std::string id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state_.store(STATE_STARTING);
    id = id_;
  }
  if (mode != 0) {
    diagnostics::CommandScope scope(this);
    manager_->requestRemoteObjectStart(id, url, mode);
    return;
  }
  // Mode 0 takes over what an earlier preload prepared; no start request is sent.
  const std::string preloadedURL = copyLocalURL();
  if (!preloadedURL.empty()) {
    ZVR_LOG(kProgress, "notification from preload has been received\n");
    manager_->notifyURLChanged(id, preloadedURL);
    manager_->notifyDefinitionsChanged(id, copyDefinitions());
  } else {
    ZVR_LOG(kProgress, "notification from preload is not received, and will read it first\n");
    std::vector<std::string> record = manager_->readZVREvent();
    onZVREvent(record);
    if (recordField(record, kPosTarget) == id_) {
      diagnostics::recordHandled(diagnostics::statsOf(this).get(), this, record);
    }
  }
}

void ZVRMediaProxyObject::stop() {
  if (diagnostics::holdsProxyMutex(this)) {
    tDeferredCalls.push_back({this, [this] { stop(); }});
    return;
  }
  ZVR_TRACE();
  std::string id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state_.store(STATE_IDLE);
    id = id_;
    setLocalURL_l(std::string());
  }
  diagnostics::CommandScope scope(this);
  manager_->requestRemoteObjectStop(id);
}

void ZVRMediaProxyObject::pause() {
  if (diagnostics::holdsProxyMutex(this)) {
    tDeferredCalls.push_back({this, [this] { pause(); }});
    return;
  }
  ZVR_TRACE();
  std::string id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = id_;
  }
  manager_->requestRemoteObjectPause(id);
}

void ZVRMediaProxyObject::seek(double position, std::string text) {
  if (diagnostics::holdsProxyMutex(this)) {
    tDeferredCalls.push_back({this, [this, position, text] { seek(position, text); }});
    return;
  }
  ZVR_TRACE();
  seekPosition_.store(position);
  std::string id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = id_;
  }
  if (state_.load() == STATE_IDLE) return;  // nothing to seek in
  diagnostics::CommandScope scope(this);
  manager_->requestRemoteObjectSeek(id, position, text);
}

void ZVRMediaProxyObject::preload(double position, std::string text1, std::string text2,
                                  std::string text3) {
  if (diagnostics::holdsProxyMutex(this)) {
    tDeferredCalls.push_back(
        {this, [this, position, text1, text2, text3] { preload(position, text1, text2, text3); }});
    return;
  }
  ZVR_TRACE();
  // Resets the service's event value first, so that start(url, 0) can later read the preload's
  // own answer.
  manager_->initializeZVREvent();
  std::string id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = id_;
    // An empty URL is how start(url, 0) tells that the preload's "started" has not come yet.
    setLocalURL_l(std::string());
  }
  diagnostics::CommandScope scope(this);
  manager_->requestRemoteObjectPreload(id, position, text1, text2, text3);
}

// id_ never changes after construction, so it is compared without the mutex.
void ZVRMediaProxyObject::onZVREvent(std::vector<std::string>& record) {
  const std::string& name = recordField(record, kPosName);
  const std::string& target = recordField(record, kPosTarget);
  if (target != id_) return;

  if (name == kEventStarted) {
    const std::string& code = recordField(record, kPosCode);
    const std::string& url = recordField(record, kPosURL);
    const std::string& detail = recordField(record, kPosDetail);
    ZVR_LOG(kHeadline, "ZVR Media Proxy stated : %s ( %s) ,  %s\n", code.c_str(), detail.c_str(),
            url.c_str());
    if (code != kResultOk) {
      onMediaStartedFailed(code, detail);
    } else {
      onMediaStarted(url);
    }
  } else if (name == kEventStopped) {
    const std::string& code = recordField(record, kPosCode);
    if (code != kResultOk) {
      onMediaStoppedFailed(code, recordField(record, kPosDetail));
    } else {
      onMediaStopped();
    }
  } else if (name == kEventSeeked) {
    const std::string& code = recordField(record, kPosCode);
    if (code != kResultOk) {
      onMediaSeekedFailed(code, recordField(record, kPosDetail));
    } else {
      onMediaSeeked();
    }
  } else if (name == kEventDefinition) {
    onDefinitionsChanged(recordField(record, kPosDefinitions));
  }
}

// Holds the mutex across the URL notification. Calls that the application makes on this proxy
// from inside the notification are deferred to the end of this function (see DeferredCall), so
// that they neither wait for the mutex this thread holds nor see a half-made change; their effect
// lands after the move to STATE_STARTED.
void ZVRMediaProxyObject::onMediaStarted(std::string url) {
  try {
    CallOutLock lock(this, mutex_);
    setLocalURL_l(url);
    const int32_t previous = state_.load();
    ZVR_LOG(kProgress, "the current state : %d\n", previous);
    if (previous == STATE_STARTING) {
      ZVR_LOG(kProgress, "notify\n");
      manager_->notifyURLChanged(id_, url);
    }
    state_.store(STATE_STARTED);
  } catch (...) {
    // The application's callback threw: its deferred calls are dropped with the notification.
    takeDeferredCalls(this);
    throw;
  }
  for (const std::function<void()>& call : takeDeferredCalls(this)) call();
}

void ZVRMediaProxyObject::onMediaStartedFailed(std::string /*code*/, std::string /*detail*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  ZVR_LOG(kError, "Start failed when current state is :%d \n", state_.load());
}

void ZVRMediaProxyObject::onMediaStopped() {
  // stop() has already moved to idle and cleared the URL.
  std::lock_guard<std::mutex> lock(mutex_);
}

void ZVRMediaProxyObject::onMediaStoppedFailed(std::string code, std::string detail) {
  std::lock_guard<std::mutex> lock(mutex_);
  ZVR_LOG(kError, "Stopped Failed:  %s, %s ,%s\n", id_.c_str(), code.c_str(), detail.c_str());
}

void ZVRMediaProxyObject::onMediaSeeked() {
  std::lock_guard<std::mutex> lock(mutex_);
  ZVR_LOG(kHeadline, "Seek Done. %s\n", id_.c_str());
}

void ZVRMediaProxyObject::onMediaSeekedFailed(std::string /*code*/, std::string /*detail*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  ZVR_LOG(kError, "Seek failed : %s\n", id_.c_str());
}

void ZVRMediaProxyObject::onDefinitionsChanged(std::string definitions) {
  std::string id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = id_;
    std::lock_guard<std::mutex> textLock(textMutex_);
    definitions_ = definitions;
  }
  const int32_t state = state_.load();
  if (state == STATE_STARTING || state == STATE_STARTED) {
    ZVR_LOG(kProgress, "notify\n");
    manager_->notifyDefinitionsChanged(id, definitions);
  } else {
    ZVR_LOG(kError, "Invalid state:%d.\n", state);
  }
  ZVR_LOG(kProgress, "definitions : %s\n", definitions.c_str());
}

}  // namespace velmora
