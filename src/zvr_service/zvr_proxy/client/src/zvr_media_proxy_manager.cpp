#include "zvr_media_proxy_manager.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cerrno>
#include <cfloat>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <utility>

#include "zvr_cancellation.h"
#include "zvr_diagnostics.h"
#include "zvr_event_record.h"
#include "zvr_json_nesting.h"
#include "zvr_log.h"
#include "zvr_media_proxy_object.h"

namespace velmora {

using logging::kError;
using logging::kHeadline;
using logging::kProgress;
using logging::kVerbose;

namespace {

const char kCommandKey[] = "varek.sl2.vstr.videoplayer.zvr.command";
const char kEventKey[] = "varek.sl2.vstr.videoplayer.zvr.event";
const char kEventMemoryName[] = "/ZVR_PROXY";

constexpr std::size_t kCommandPositions = 11;
constexpr unsigned int kPosCommand = 0;
constexpr unsigned int kPosSessionId = 2;
constexpr unsigned int kPosObjectId = 3;
constexpr unsigned int kPosTimestamp = 4;
constexpr unsigned int kPosPosition = 5;
constexpr unsigned int kPosText1 = 6;
constexpr unsigned int kPosText2 = 7;
constexpr unsigned int kPosText3 = 8;
constexpr unsigned int kPosInteger = 9;

constexpr std::size_t kResetRecordSize = 9;

// Creation time limits.
constexpr double kFirstResponseLimitSeconds = 0.2;
constexpr double kTotalLimitSeconds = 2.0;
constexpr std::chrono::nanoseconds kWaitAfterRestart(500000000);
constexpr std::chrono::nanoseconds kWaitPerAttempt(200000000);
constexpr useconds_t kPauseAfterRestartMicros = 800000;
constexpr useconds_t kPauseBeforeThirdCheckMicros = 200000;

// Synchronous wait schedule.
constexpr useconds_t kPollIntervalMicros = 50000;
constexpr int kTimeStep = 50;
constexpr int kTimeLimit = 250;

// Liveness probe.
constexpr std::chrono::nanoseconds kAliveWait(200000000);

std::atomic<ZVRMediaProxyManager*> gInstance{nullptr};
boost::recursive_mutex gManagerLock;

std::string formatInt(int value) {
  char text[16];
  std::snprintf(text, sizeof text, "%d", value);
  return text;
}

// "%f" never uses an exponent: the largest double prints 309 digits before the point, plus a
// sign, the point, six decimals and the terminating zero.
constexpr std::size_t kDoubleTextSize = 1 + (DBL_MAX_10_EXP + 1) + 1 + 6 + 1;

std::string formatDouble(double value) {
  char text[kDoubleTextSize];
  std::snprintf(text, sizeof text, "%f", value);
  return text;
}

// The text of a JSON member as the event record holds it: strings as they are, numbers and
// booleans in JsonCpp's text form, and "" for anything that has no text form.
std::string memberText(const Json::Value& root, const char* name) {
  if (!root.isObject()) return std::string();
  const Json::Value& member = root[name];
  if (member.isObject() || member.isArray()) return std::string();
  try {
    return member.asString();
  } catch (const std::exception&) {
    return std::string();
  }
}

const char* sourceBaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

// A descriptor of the segment behind each mapping of "/ZVR_PROXY", by the mapping's address.
// The segment is read through it with pread rather than through the mapping: a segment that
// another process truncates while it is mapped makes a read of the mapping fault with SIGBUS,
// whereas pread reports the short object. The descriptor of a replaced mapping is closed (the
// mapping itself stays, as it always has). A deliberate deviation: the protocol copies the
// mapping and keeps no descriptor; this adds one descriptor per live mapping and one pread per
// read, and a short segment reads as an empty one instead of killing the host.
class SegmentDescriptors {
 public:
  // Keeps `fd` for `mapping` and closes the descriptor of `replaced`, if any.
  void keep(const char* mapping, int fd, const char* replaced) {
    std::lock_guard<std::mutex> lock(mutex_);
    drop_l(replaced);
    if (fd >= 0) descriptors_[mapping] = fd;
  }
  void drop(const char* mapping) {
    std::lock_guard<std::mutex> lock(mutex_);
    drop_l(mapping);
  }
  // Reads the whole segment into `buffer`; false when it holds fewer than `size` bytes.
  bool read(const char* mapping, char* buffer, std::size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = descriptors_.find(mapping);
    if (it == descriptors_.end()) return false;
    std::size_t done = 0;
    while (done < size) {
      const ssize_t n = pread(it->second, buffer + done, size - done, static_cast<off_t>(done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }

 private:
  void drop_l(const char* mapping) {
    if (mapping == nullptr) return;
    auto it = descriptors_.find(mapping);
    if (it == descriptors_.end()) return;
    close(it->second);
    descriptors_.erase(it);
  }

  std::mutex mutex_;
  std::map<const char*, int> descriptors_;
};

// Passes a synchronous wait's result through, reporting a wait that ran out.
int reportTimeout(int result, const char* word, const std::string& id,
                  const std::string& sessionId) {
  if (result == -1) diagnostics::waitTimedOut(word, id, sessionId);
  return result;
}

SegmentDescriptors& segmentDescriptors() {
  static SegmentDescriptors* const descriptors = new SegmentDescriptors;
  return *descriptors;
}

}  // namespace

// --- OwnedMutex, DispatchLock ---------------------------------------------------------------

void ZVRMediaProxyManager::OwnedMutex::lock() {
  mutex_.lock();
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

void ZVRMediaProxyManager::OwnedMutex::unlock() {
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  mutex_.unlock();
  // Outcomes that arose while this thread held the mutex go to the outcome thread now.
  diagnostics::lockReleased();
}

// Only the current thread ever stores its own id, so a relaxed load that sees it is exact.
bool ZVRMediaProxyManager::OwnedMutex::heldByCurrentThread() const {
  return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

// Event dispatch takes the manager mutex to append a response id or to notify the completion
// signal. In sync mode, a creation attempt and the liveness probe reach a synchronous wait while
// their thread holds that mutex, and the wait dispatches the answer it found on the same thread.
// The mutex is not recursive, so dispatch on the holding thread works under the lock its thread
// already has instead of locking again. The append and the notify happen exactly as on any other
// thread; the notify simply finds no waiter, because the holder is not waiting.
ZVRMediaProxyManager::DispatchLock::DispatchLock(OwnedMutex& mutex)
    : mutex_(mutex), locked_(!mutex.heldByCurrentThread()) {
  if (locked_) mutex_.lock();
}

ZVRMediaProxyManager::DispatchLock::~DispatchLock() {
  if (locked_) mutex_.unlock();
}

// --- Singleton, construction, teardown --------------------------------------------------------

ZVRMediaProxyManager* ZVRMediaProxyManager::getInstance() {
  ZVRMediaProxyManager* instance = gInstance.load(std::memory_order_acquire);
  if (instance != nullptr) return instance;
  boost::lock_guard<boost::recursive_mutex> lock(gManagerLock);
  instance = gInstance.load(std::memory_order_relaxed);
  if (instance == nullptr) {
    instance = new ZVRMediaProxyManager();
    gInstance.store(instance, std::memory_order_release);
  }
  return instance;
}

ZVRMediaProxyManager::ZVRMediaProxyManager() {
  // Outcomes that arise while a thread holds the singleton's mutex wait until it releases it.
  diagnostics::setManagerLockProbe([] {
    ZVRMediaProxyManager* instance = gInstance.load(std::memory_order_acquire);
    return instance != nullptr && instance->mutex_.heldByCurrentThread();
  });
  ZVR_LOG(kProgress, "enter, %p\n", static_cast<void*>(this));
  syncMode_.store(false);
  createModelAccess();
  // A refused connection leaves no model access; requests then report "No Access" and retry.
  std::shared_ptr<ZVRModelAccess> access = std::atomic_load(&modelAccess_);
  if (access) access->startEventListener();
  constructed_.store(true);
}

ZVRMediaProxyManager::~ZVRMediaProxyManager() {
  ZVR_LOG(kProgress, "enter\n");
  syncMode_.store(false);
  {
    std::lock_guard<std::mutex> lock(eventMutex_);
    if (eventMemory_ != nullptr) {
      segmentDescriptors().drop(eventMemory_);
      munmap(const_cast<char*>(eventMemory_), kEventMemorySize);
      eventMemory_ = nullptr;
      shm_unlink(kEventMemoryName);
    }
  }
  // Released before any other member goes, so that its listener thread has stopped delivering
  // events into a manager that is being torn down.
  std::atomic_store(&modelAccess_, std::shared_ptr<ZVRModelAccess>());
}

void ZVRMediaProxyManager::onZVRConnected() {}

void ZVRMediaProxyManager::createModelAccess() {
  if (std::atomic_load(&modelAccess_)) return;
  std::shared_ptr<ZVRModelAccess> access;
  try {
    access = std::make_shared<ZVRModelAccess>(this);
  } catch (...) {
    if (unwindingCancelledThread()) throw;
    // The platform refused the connection. The field stays empty: every request reports
    // "No Access" and tries again through this function.
    return;
  }
  // Two threads that both found no connection race here; the loser's connection was never
  // started and is dropped.
  std::shared_ptr<ZVRModelAccess> none;
  if (!std::atomic_compare_exchange_strong(&modelAccess_, &none, access)) return;
  try {
    access->start();
  } catch (...) {
    // Refused, or cancelled half way: the next caller builds a connection of its own.
    std::atomic_store(&modelAccess_, std::shared_ptr<ZVRModelAccess>());
    if (unwindingCancelledThread()) throw;
    return;
  }
  // The constructor starts the listener of the first connection. A connection made later, after
  // a refused one, needs its own listener, or no event would ever arrive through it.
  if (constructed_.load()) {
    try {
      access->startEventListener();
    } catch (...) {
      if (unwindingCancelledThread()) {
        // A connection without a listener would never deliver an event: drop it, so that the
        // next caller builds one whose listener runs.
        std::atomic_store(&modelAccess_, std::shared_ptr<ZVRModelAccess>());
        throw;
      }
      // Events then only reach the library through the shared-memory buffer.
    }
  }
}

std::shared_ptr<ZVRModelAccess> ZVRMediaProxyManager::connection() {
  createModelAccess();
  return std::atomic_load(&modelAccess_);
}

int ZVRMediaProxyManager::requestStartZVRService() {
  std::shared_ptr<ZVRModelAccess> access = std::atomic_load(&modelAccess_);
  if (access) return access->requestStartZVRService();
  ZVR_LOG(kError, "Cannot get access.\n");
  return -1;
}

void ZVRMediaProxyManager::setZVRCallback(ZVRCallback callback) { callback_.store(callback); }

void ZVRMediaProxyManager::notifyDefinitionsChanged(const std::string& id,
                                                    std::string definitions) {
  ZVRCallback callback = callback_.load();
  if (callback != nullptr) {
    callback(id, "definitions", definitions);
  } else {
    ZVR_LOG(kProgress, "notify error\n");
  }
}

void ZVRMediaProxyManager::notifyURLChanged(const std::string& id, std::string url) {
  ZVRCallback callback = callback_.load();
  if (callback != nullptr) {
    callback(id, "url", url);
  } else {
    ZVR_LOG(kProgress, "notify error\n");
  }
}

// --- Registry and identifiers ------------------------------------------------------------------

void ZVRMediaProxyManager::cacheProxyObject(std::shared_ptr<ZVRMediaProxyObject> object) {
  std::string key;
  {
    diagnostics::RegisteringScope registering(object.get());
    key = object->id();
  }
  std::lock_guard<std::mutex> registryLock(registryMutex_);
  // emplace keeps an existing entry: the first registration of an id wins.
  proxyRegistry_.emplace(std::move(key), std::move(object));
}

std::shared_ptr<ZVRMediaProxyObject> ZVRMediaProxyManager::findProxyObjectFromCache(
    std::string id) {
  DispatchLock lock(mutex_);
  std::lock_guard<std::mutex> registryLock(registryMutex_);
  auto it = proxyRegistry_.find(id);
  return it != proxyRegistry_.end() ? it->second : std::shared_ptr<ZVRMediaProxyObject>();
}

void ZVRMediaProxyManager::removeProxyObjectFromCache(std::string id) {
  std::lock_guard<OwnedMutex> lock(mutex_);
  std::vector<std::shared_ptr<ZVRMediaProxyObject>> removed;
  std::vector<std::string> removedKeys;
  {
    std::lock_guard<std::mutex> registryLock(registryMutex_);
    for (auto it = proxyRegistry_.begin(); it != proxyRegistry_.end();) {
      if (it->first.size() == id.size() &&
          std::memcmp(it->first.data(), id.data(), id.size()) == 0) {
        removedKeys.push_back(it->first);
        removed.push_back(std::move(it->second));
        it = proxyRegistry_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const std::string& key : removedKeys) {
    ZVR_LOG(kProgress, "find in cache and remove proxy, id:%s\n", key.c_str());
  }
  // The released objects are destroyed here, still under the manager mutex but outside the
  // registry's leaf lock.
  removed.clear();
}

std::shared_ptr<ZVRMediaProxyObject> ZVRMediaProxyManager::findObjectById(std::string id) {
  return findProxyObjectFromCache(id);
}

std::string ZVRMediaProxyManager::getRemoteObjectId(std::string id) {
  auto it = remoteIdMap_.find(id);
  return it != remoteIdMap_.end() ? it->second : std::string();
}

std::string ZVRMediaProxyManager::generateUUID() {
  uuid_t bytes;
  uuid_generate(bytes);
  // The first three groups read their bytes as little-endian numbers, so they show them reversed
  // against the usual UUID text; the last group is the remaining eight bytes in order.
  const unsigned int first =
      static_cast<unsigned int>(bytes[0]) | static_cast<unsigned int>(bytes[1]) << 8 |
      static_cast<unsigned int>(bytes[2]) << 16 | static_cast<unsigned int>(bytes[3]) << 24;
  const unsigned int second =
      static_cast<unsigned int>(bytes[4]) | static_cast<unsigned int>(bytes[5]) << 8;
  const unsigned int third =
      static_cast<unsigned int>(bytes[6]) | static_cast<unsigned int>(bytes[7]) << 8;
  std::unique_ptr<char[]> text(new char[256]);
  std::snprintf(text.get(), 256, "%08X-%04X-%04X-%02X%02X%02X%02X%02X%02X%02X%02X", first, second,
                third, bytes[8], bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14],
                bytes[15]);
  return std::string(text.get());
}

std::string ZVRMediaProxyManager::getNextSessionId() { return "ses-" + generateUUID(); }

// --- Proxy creation ----------------------------------------------------------------------------

void ZVRMediaProxyManager::clearResponseIds() {
  std::lock_guard<std::mutex> lock(responseMutex_);
  responseIds_.clear();
}

bool ZVRMediaProxyManager::lastResponseId(std::string* id) {
  std::lock_guard<std::mutex> lock(responseMutex_);
  if (responseIds_.empty()) return false;
  *id = responseIds_.back();
  return true;
}

void ZVRMediaProxyManager::sendCreateCommand(ZVRModelAccess& access, const std::string& sessionId) {
  std::vector<std::string> list;
  setCommandParameter(list, kPosCommand, "create");
  setCommandParameter(list, kPosSessionId, sessionId);
  diagnostics::commandSent("create");
  access.setAccessValue(kCommandKey, list);
}

void ZVRMediaProxyManager::requestCreateRemoteObject(std::string sessionId) {
  if (syncMode_.load()) {
    requestCreateRemoteObjectSync(sessionId);
    return;
  }
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return;
  }
  ZVR_LOG(kProgress, "Create   RemoteObject.\n");
  sendCreateCommand(*access, sessionId);
}

int ZVRMediaProxyManager::requestCreateRemoteObjectSync(std::string sessionId) {
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return -1;
  }
  initializeZVREvent();
  ZVR_LOG(kProgress, "Create  RemoteObject sync.\n");
  sendCreateCommand(*access, sessionId);
  return reportTimeout(waitRequestRemoteObjectCompleted(sessionId, "created"), "create", "",
                       sessionId);
}

// Holds the manager mutex for the whole run except inside the two condition waits. In sync mode
// the send below runs a synchronous wait on this thread with the mutex held; see DispatchLock for
// how a "created" answer found there is dispatched without locking again.
std::shared_ptr<ZVRMediaProxyObject> ZVRMediaProxyManager::createNewZVRMediaProxy() {
  ZVR_LOG(kProgress, "Enter\n");
  diagnostics::creationTried();
  std::string sessionId = getNextSessionId();  // replaced by the first attempt; never sent
  std::string resultId;
  double t0 = base::log_now();
  bool restarted = false;

  std::unique_lock<OwnedMutex> lock(mutex_);
  for (;;) {
    ZVR_LOG(kProgress, "enter\n");
    sessionId = getNextSessionId();
    requestCreateRemoteObject(sessionId);
    const double t = base::log_now();
    if (!restarted && t - t0 > kFirstResponseLimitSeconds) {
      ZVR_LOG(kError, "Wait response timeout for id:%s, restart zvr service.\n", sessionId.c_str());
      clearResponseIds();
      // Reported only when there is a connection to ask the platform through.
      if (std::atomic_load(&modelAccess_))
        diagnostics::serviceRestart("no \"created\" answer within 0.2 s");
      requestStartZVRService();
      t0 = base::log_now();
      completion_.wait_until(lock, std::chrono::system_clock::now() + kWaitAfterRestart);
      restarted = true;
    }
    if (restarted && t - t0 > kTotalLimitSeconds) {
      ZVR_LOG(kError, "Wait response total timeout for id:%s, just return.\n", sessionId.c_str());
      clearResponseIds();
      break;
    }
    const auto deadline = std::chrono::system_clock::now() + kWaitPerAttempt;
    completion_.wait_until(lock, deadline);
    if (std::chrono::system_clock::now() < deadline && lastResponseId(&resultId)) {
      ZVR_LOG(kProgress, "wait done.\n");
      break;
    }
  }
  ZVR_LOG(kProgress, "id :%s\n", resultId.c_str());
  std::shared_ptr<ZVRMediaProxyObject> object = ZVRMediaProxyObject::create(resultId);
  cacheProxyObject(object);
  diagnostics::creationEnded(resultId);
  return object;
}

std::shared_ptr<ZVRMediaProxyObject> ZVRMediaProxyManager::createNewZVRMediaProxySync() {
  ZVR_LOG(kProgress, "Enter.\n");
  diagnostics::creationTried();
  syncMode_.store(true);
  if (checkZVREventMemory() == -1) {
    ZVR_LOG(kError, "service not work,  restart zvr service.\n");
    clearResponseIds();
    if (std::atomic_load(&modelAccess_))
      diagnostics::serviceRestart("\"/ZVR_PROXY\" cannot be mapped");
    requestStartZVRService();
    usleep(kPauseAfterRestartMicros);
  }
  if (checkZVREventMemory() == -1) {
    usleep(kPauseBeforeThirdCheckMicros);
    checkZVREventMemory();
  }
  std::string sessionId = getNextSessionId();
  int result = requestCreateRemoteObjectSync(sessionId);
  if (result == -1) {
    clearResponseIds();
    ZVR_LOG(kError, "Wait response timeout for id:%s, restart zvr service.\n", sessionId.c_str());
    if (std::atomic_load(&modelAccess_))
      diagnostics::serviceRestart("no \"created\" answer within 250 ms");
    requestStartZVRService();
    usleep(kPauseAfterRestartMicros);
  }
  std::string resultId;
  // Sent again with the same session id, also after a success.
  result = requestCreateRemoteObjectSync(sessionId);
  if (result == -1) {
    sessionId = getNextSessionId();
    requestCreateRemoteObjectSync(sessionId);
  }
  lastResponseId(&resultId);  // stays empty when no "created" answer came
  ZVR_LOG(kProgress, "id :%s\n", resultId.c_str());
  std::shared_ptr<ZVRMediaProxyObject> object = ZVRMediaProxyObject::create(resultId);
  cacheProxyObject(object);
  diagnostics::creationEnded(resultId);
  return object;
}

std::shared_ptr<ZVRMediaProxyObject> ZVRMediaProxyManager::createNewZVRMediaProxy(std::string id) {
  removeProxyObjectFromCache(id);
  std::shared_ptr<ZVRMediaProxyObject> object = ZVRMediaProxyObject::create(id);
  {
    std::lock_guard<OwnedMutex> lock(mutex_);
    cacheProxyObject(object);
  }
  return object;
}

std::shared_ptr<ZVRMediaProxyObject> ZVRMediaProxyManager::createNewZVRMediaProxySync(
    std::string id) {
  ZVR_LOG(kProgress, "Enter, id:%s\n", id.c_str());
  syncMode_.store(true);
  checkZVREventMemory();
  return createNewZVRMediaProxy(id);
}

// --- Command channel ---------------------------------------------------------------------------

void ZVRMediaProxyManager::setCommandParameter(std::vector<std::string>& list,
                                               unsigned int position, const std::string& text) {
  if (list.size() < kCommandPositions) {
    list.reserve(kCommandPositions);
    list.assign(kCommandPositions, std::string());
  }
  if (position >= list.size()) {
    ZVR_LOG(kError, "position %u out of range\n", position);
    return;
  }
  list[position] = text;
}

std::string ZVRMediaProxyManager::sendCommand(
    ZVRModelAccess& access, const char* word,
    const std::vector<std::pair<unsigned int, std::string>>& fields, bool stamped) {
  std::string sessionId = getNextSessionId();
  std::vector<std::string> list;
  setCommandParameter(list, kPosCommand, word);
  for (const auto& f : fields) setCommandParameter(list, f.first, f.second);
  setCommandParameter(list, kPosSessionId, sessionId);
  if (stamped) setCommandParameter(list, kPosTimestamp, formatDouble(base::log_now()));
  // Counted before it goes, so that a copy of the counters never shows its answer without it.
  diagnostics::commandSent(word);
  access.setAccessValue(kCommandKey, std::move(list));
  return sessionId;
}

void ZVRMediaProxyManager::requestRemoteObjectStart(const std::string& id, const std::string& url,
                                                    int mode) {
  if (syncMode_.load()) {
    requestRemoteObjectStartSync(id, url, mode);
    return;
  }
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return;
  }
  sendCommand(*access, "start",
              {{kPosObjectId, id}, {kPosInteger, formatInt(mode)}, {kPosText1, url}}, true);
}

void ZVRMediaProxyManager::requestRemoteObjectStop(const std::string& id) {
  if (syncMode_.load()) {
    requestRemoteObjectStopSync(id);
    return;
  }
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return;
  }
  sendCommand(*access, "stop", {{kPosObjectId, id}}, true);
}

void ZVRMediaProxyManager::requestRemoteObjectSeek(const std::string& id, double position,
                                                   const std::string& text) {
  if (syncMode_.load()) {
    requestRemoteObjectSeekSync(id, position, text);
    return;
  }
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return;
  }
  sendCommand(*access, "seek",
              {{kPosObjectId, id}, {kPosPosition, formatDouble(position)}, {kPosText1, text}},
              true);
}

void ZVRMediaProxyManager::requestRemoteObjectPreload(const std::string& id, double position,
                                                      const std::string& text1,
                                                      const std::string& text2,
                                                      const std::string& text3) {
  if (syncMode_.load()) {
    requestRemoteObjectPreloadSync(id, position, text1, text2, text3);
    return;
  }
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return;
  }
  sendCommand(*access, "preload",
              {{kPosObjectId, id},
               {kPosPosition, formatDouble(position)},
               {kPosText1, text1},
               {kPosText2, text2},
               {kPosText3, text3}},
              true);
}

void ZVRMediaProxyManager::requestRemoteObjectPause(const std::string& /*id*/) {
  std::fprintf(stdout, " NotImplemented %s,%s,%d\n", sourceBaseName(__FILE__),
               "requestRemoteObjectPause", __LINE__);
  std::fflush(stdout);
  ZVR_LOG(kError, "NotImplemented.\n");
}

void ZVRMediaProxyManager::requestRemoteObjectInspect() {
  if (syncMode_.load()) {
    requestRemoteObjectInspectSync();
    return;
  }
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return;
  }
  sendCommand(*access, "inspect", {}, false);
}

// --- Synchronous requests ----------------------------------------------------------------------

int ZVRMediaProxyManager::requestRemoteObjectStartSync(const std::string& id,
                                                       const std::string& url, int mode) {
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return -1;
  }
  ZVR_LOG(kProgress, "request RemoteObject Start sync.\n");
  const std::string sessionId =
      sendCommand(*access, "start",
                  {{kPosObjectId, id}, {kPosInteger, formatInt(mode)}, {kPosText1, url}}, true);
  return reportTimeout(waitRequestRemoteObjectCompleted(sessionId, "started"), "start", id,
                       sessionId);
}

int ZVRMediaProxyManager::requestRemoteObjectStopSync(const std::string& id) {
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return -1;
  }
  ZVR_LOG(kProgress, "request RemoteObject Stop sync.\n");
  const std::string sessionId = sendCommand(*access, "stop", {{kPosObjectId, id}}, true);
  return reportTimeout(waitRequestRemoteObjectCompleted(sessionId, "stopped"), "stop", id,
                       sessionId);
}

int ZVRMediaProxyManager::requestRemoteObjectSeekSync(const std::string& id, double position,
                                                      const std::string& text) {
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return -1;
  }
  ZVR_LOG(kProgress, "request RemoteObject seek sync.\n");
  const std::string sessionId = sendCommand(
      *access, "seek",
      {{kPosObjectId, id}, {kPosPosition, formatDouble(position)}, {kPosText1, text}}, true);
  return reportTimeout(waitRequestRemoteObjectCompleted(sessionId, "seeked"), "seek", id,
                       sessionId);
}

int ZVRMediaProxyManager::requestRemoteObjectPreloadSync(const std::string& id, double position,
                                                         const std::string& text1,
                                                         const std::string& text2,
                                                         const std::string& text3) {
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return -1;
  }
  ZVR_LOG(kProgress, "request RemoteObject preload sync.\n");
  const std::string sessionId = sendCommand(*access, "preload",
                                            {{kPosObjectId, id},
                                             {kPosPosition, formatDouble(position)},
                                             {kPosText1, text1},
                                             {kPosText2, text2},
                                             {kPosText3, text3}},
                                            true);
  return reportTimeout(waitRequestRemoteObjectCompleted(sessionId, "started"), "preload", id,
                       sessionId);
}

int ZVRMediaProxyManager::requestRemoteObjectPauseSync(const std::string& /*id*/) { return 0; }

int ZVRMediaProxyManager::requestRemoteObjectInspectSync() {
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return -1;
  }
  initializeZVREvent();
  ZVR_LOG(kProgress, "request RemoteObject inspect sync.\n");
  const std::string sessionId = sendCommand(*access, "inspect", {}, false);
  return reportTimeout(waitRequestRemoteObjectCompleted(sessionId, "status"), "inspect", "",
                       sessionId);
}

// Holds the manager mutex until it returns. In sync mode the inspect request below waits
// synchronously on this thread; see DispatchLock for the "status" answer found there.
bool ZVRMediaProxyManager::checkZVRServiceAlive() {
  ZVR_LOG(kProgress, "Enter \n");
  std::unique_lock<OwnedMutex> lock(mutex_);
  requestRemoteObjectInspect();
  const auto deadline = std::chrono::system_clock::now() + kAliveWait;
  completion_.wait_until(lock, deadline);
  if (std::chrono::system_clock::now() < deadline) {
    ZVR_LOG(kProgress, "wait done.\n");
    return true;
  }
  ZVR_LOG(kProgress, "wait  timeout.\n");
  return false;
}

int ZVRMediaProxyManager::waitRequestRemoteObjectCompleted(std::string sessionId,
                                                           std::string name) {
  ZVR_LOG(kProgress, "enter  id:%s, name:%s\n", sessionId.c_str(), name.c_str());
  std::vector<std::string> record = readZVREventMemory();
  std::string seenId = recordField(record, kPosSessionId);
  std::string seenName = recordField(record, kPosCommand);
  int elapsed = 0;
  for (;;) {
    if (seenId == sessionId && seenName == name) {
      ZVR_LOG(kProgress, " used time: %d/%d\n", elapsed, kTimeLimit);
      onZVREvent(record);
      return 0;
    }
    usleep(kPollIntervalMicros);
    elapsed += kTimeStep;
    record = readZVREventMemory();
    seenId = recordField(record, kPosSessionId);
    seenName = recordField(record, kPosCommand);
    ZVR_LOG(kProgress, " id:%s, name:%s\n", seenId.c_str(), seenName.c_str());
    if (elapsed == kTimeLimit) break;
  }
  ZVR_LOG(kError, "Task timeout: %d/%d\n", kTimeLimit, kTimeLimit);
  return -1;
}

// --- Event channel -----------------------------------------------------------------------------

int ZVRMediaProxyManager::checkZVREventMemory() {
  const int fd = shm_open(kEventMemoryName, O_RDWR, 0666);
  if (fd < 0) {
    ZVR_LOG(kProgress, "Failed to allocate shared memory\n\n");
    return -1;
  }
  // Anyone may create "/ZVR_PROXY" before the service does. Anything but a regular file (a FIFO,
  // a device node) is closed and refused like a missing segment; resizing it would fail and, by
  // the rule below, leave its descriptor open on every call. A deliberate deviation: the protocol
  // has no such check, and this step runs only where it would leak a descriptor.
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    close(fd);
    ZVR_LOG(kProgress, "Failed to allocate shared memory\n\n");
    return -1;
  }
  if (ftruncate(fd, kEventMemorySize) != 0) {
    ZVR_LOG(kProgress, "Failed to allocate shared memory\n\n");
    return -1;  // the descriptor stays open on this path
  }
  void* address = mmap(nullptr, kEventMemorySize, PROT_READ, MAP_SHARED, fd, 0);
  // A deliberate deviation: a failed mapping is stored as no mapping rather than as the mapping
  // call's failure value, which every later read would dereference.
  const char* memory = address == MAP_FAILED ? nullptr : static_cast<const char*>(address);
  // A duplicate of the descriptor stays with the mapping for reading (see SegmentDescriptors).
  const int readFd = memory != nullptr ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
  if (memory != nullptr && readFd < 0) {
    // Every read of this mapping will find no segment; say why once, here.
    ZVR_LOG(kError, "Failed to keep a descriptor of shared memory: %s\n", std::strerror(errno));
  }
  {
    // A new mapping replaces the old one, which stays mapped.
    std::lock_guard<std::mutex> lock(eventMutex_);
    segmentDescriptors().keep(memory, readFd, eventMemory_);
    eventMemory_ = memory;
  }
  if (memory == nullptr) {
    ZVR_LOG(kProgress, "Failed to mmap buffer shared memory\n\n");
    return -1;  // the descriptor stays open on this path
  }
  close(fd);
  diagnostics::segmentMapped();
  return 0;
}

std::vector<std::string> ZVRMediaProxyManager::readZVREventMemory() {
  std::vector<std::string> record;
  std::string text;
  bool mapped = false;
  {
    std::lock_guard<std::mutex> lock(eventMutex_);
    if (eventMemory_ != nullptr) {
      mapped = true;
      // A segment shrunk below its size reads as one holding only a zero byte.
      if (!segmentDescriptors().read(eventMemory_, eventBuffer_, kEventMemorySize)) {
        eventBuffer_[0] = '\0';
      }
      // A writer that left no zero byte gets its 4096 bytes read, never more.
      text.assign(eventBuffer_, strnlen(eventBuffer_, kEventMemorySize));
    }
  }
  if (!mapped) {
    ZVR_LOG(kProgress, "memory NULL.\n");
    return record;
  }
  ZVR_LOG(kProgress, "buf: %s\n", text.c_str());

  Json::Value root;
  bool parsed = false;
  // The reader recurses once per level of nesting, so deeper text than a flat record needs is
  // refused before it can exhaust a small thread stack. A deliberate deviation: the protocol
  // hands every text to the reader; a record is one flat object, and members nested deeper were
  // read as empty texts anyway.
  if (jsonNestingWithin(text)) {
    try {
      Json::Reader reader;
      parsed = reader.parse(text, root, true);
    } catch (const std::exception&) {
      parsed = false;
    }
  }
  if (!parsed) {
    ZVR_LOG(kError, "Fail to parse json string:%s.\n", text.c_str());
    diagnostics::segmentParseFailed();
    return record;
  }
  ZVR_LOG(kProgress, "updateParameters\n");
  record.reserve(kCommandPositions);
  for (std::size_t n = 0; n < kCommandPositions; ++n) {
    record.push_back(memberText(root, std::to_string(n).c_str()));
  }
  for (std::size_t i = 0; i < record.size(); ++i) {
    ZVR_LOG(kVerbose, "parameter %d:   %s \n", static_cast<int>(i), record[i].c_str());
  }
  return record;
}

std::vector<std::string> ZVRMediaProxyManager::readZVREvent() {
  std::vector<std::string> record = readZVREventMemory();
  if (!record.empty()) {
    ZVR_LOG(kProgress, "read memory success.\n");
    return record;
  }
  std::shared_ptr<ZVRModelAccess> access = std::atomic_load(&modelAccess_);
  if (!access) return record;  // no connection: nothing to read
  access->getAccessValue(kEventKey, record);
  for (std::size_t i = 0; i < record.size(); ++i) {
    ZVR_LOG(kVerbose, "parameter %d: %s \n", static_cast<int>(i), record[i].c_str());
  }
  return record;
}

void ZVRMediaProxyManager::initializeZVREvent() {
  ZVR_LOG(kProgress, "initializeZVREvent.\n");
  std::shared_ptr<ZVRModelAccess> access = connection();
  if (!access) {
    ZVR_LOG(kError, "No Access\n");
    return;
  }
  std::vector<std::string> reset(kResetRecordSize);
  reset[0] = "unknown";
  access->setAccessValue(kEventKey, reset);
}

// --- Event dispatch ----------------------------------------------------------------------------

void ZVRMediaProxyManager::onZVREvent(std::vector<std::string>& record) {
  // The record is not changed while it is dispatched, so its positions are read in place.
  const std::string& objectId = recordField(record, 3);
  const std::string& sessionId = recordField(record, 2);
  const std::string& name = recordField(record, 0);
  const std::string& code = recordField(record, 1);

  if (name == kEventCreated) {
    if (code != kResultOk) {
      ZVR_LOG(kError, "Create Failed: %s\n", sessionId.c_str());
      diagnostics::failedAnswer(nullptr, nullptr, name, objectId, sessionId, code,
                                recordField(record, 8));
      return;
    }
    ZVR_LOG(kHeadline, "New Created Object: %s - %s\n", sessionId.c_str(), objectId.c_str());
    DispatchLock lock(mutex_);
    {
      std::lock_guard<std::mutex> responseLock(responseMutex_);
      responseIds_.push_back(objectId);
    }
    completion_.notify_all();
    return;
  }
  if (name == kEventStatus) {
    ZVR_LOG(kProgress, "zvr service alive: %s - %s\n", sessionId.c_str(), objectId.c_str());
    DispatchLock lock(mutex_);
    completion_.notify_all();
    return;
  }
  std::shared_ptr<ZVRMediaProxyObject> object = findProxyObjectFromCache(objectId);
  if (object) {
    object->onZVREvent(record);
    if (diagnostics::observed()) {
      diagnostics::recordHandled(diagnostics::statsOf(object), object.get(), record);
    }
  } else {
    ZVR_LOG(kError, "unable to find object for event: %s, %s,%s\n", name.c_str(), code.c_str(),
            objectId.c_str());
    diagnostics::unroutedRecord();
    // A failed answer for a proxy that is not registered (one created with the empty id, say)
    // is still a failure the host may want to hear of.
    if (code != kResultOk && diagnostics::isAnswerToAProxy(name)) {
      diagnostics::failedAnswer(nullptr, nullptr, name, objectId, sessionId, code,
                                recordField(record, 8));
    }
  }
}

}  // namespace velmora
