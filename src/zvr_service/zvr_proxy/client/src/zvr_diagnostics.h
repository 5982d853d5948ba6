// The library's side of the diagnostics extension (zvr_media_proxy_diagnostics.h): counting,
// outcome hand-over, and the per-thread record of the library locks a thread holds. Internal to
// the library.
//
// Counting uses relaxed atomics on the hot paths and a per-proxy mutex for the failure group.
// Outcomes arise on any thread; one that arises while its thread holds a library lock waits in
// that thread's queue until the thread holds none, and then joins the process queue that the
// outcome thread delivers in order.

#ifndef ZVR_DIAGNOSTICS_H_
#define ZVR_DIAGNOSTICS_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "zvr_event_record.h"
#include "zvr_media_proxy_diagnostics.h"

namespace velmora {

class ZVRMediaProxyObject;

namespace diagnostics {

// The names a proxy counts without a lock; any other name goes to ProxyStats::otherEvents.
constexpr std::string_view kCountedEvents[] = {kEventStarted, kEventStopped, kEventSeeked,
                                               kEventDefinition};
static_assert(kEventStarted.size() == kEventStopped.size(), "started and stopped share a case");
constexpr std::size_t kCountedEventCount = sizeof kCountedEvents / sizeof kCountedEvents[0];
constexpr std::string_view kProxyCommands[] = {"start", "stop", "seek", "preload"};
constexpr std::size_t kProxyCommandCount = sizeof kProxyCommands / sizeof kProxyCommands[0];

// The position of `name` in kCountedEvents, or kCountedEventCount: on the dispatch path, so each
// comparison is against a name of known length, which the compiler inlines.
inline std::size_t countedEventIndex(std::string_view name) {
  switch (name.size()) {
    case kEventSeeked.size():
      return name == kEventSeeked ? 2 : kCountedEventCount;
    case kEventStarted.size():
      return name == kEventStarted ? 0 : name == kEventStopped ? 1 : kCountedEventCount;
    case kEventDefinition.size():
      return name == kEventDefinition ? 3 : kCountedEventCount;
    default:
      return kCountedEventCount;
  }
}

// One proxy's counters. Events and commands of the usual names are counted without a lock.
struct ProxyStats {
  std::atomic<uint64_t> events[kCountedEventCount] = {};
  std::atomic<uint64_t> commands[kProxyCommandCount] = {};

  // The failure group, and the events of other names.
  std::mutex mutex;
  std::map<std::string, uint64_t> otherEvents;
  std::map<std::string, uint64_t> failures;
  std::string lastFailureName;
  std::string lastFailureCode;
  std::string lastFailureDetail;
  double lastFailureTime = 0;
  uint64_t waitsTimedOut = 0;
};

// The deleter of the objects made by adopt(), kept in their shared pointer's control block with
// the proxy's counters.
struct StatsDeleter {
  std::shared_ptr<ProxyStats> stats;
  void operator()(ZVRMediaProxyObject* object) const;
};

// Whether counting is on: ZVR_COUNTERS=0 in the environment switches it off, read once when the
// library is loaded. The benchmarks switch it in place to compare both in one run.
extern std::atomic<bool> gCounting;
inline bool counting() { return gCounting.load(std::memory_order_relaxed); }
void setCounting(bool on);

// True while some outcome listener is added.
extern std::atomic<bool> gHasListeners;
// Whether anything would take note of what the library reports: counting, or a listener.
inline bool observed() { return counting() || gHasListeners.load(std::memory_order_relaxed); }

// --- Proxies ------------------------------------------------------------------------------------

// Owns `object` in a shared pointer whose deleter carries the proxy's statistics, and enters it in
// the table that statsOf(const ZVRMediaProxyObject*) reads.
std::shared_ptr<ZVRMediaProxyObject> adopt(ZVRMediaProxyObject* object);
// The statistics of an object made by adopt(), read from its shared pointer without a lock; null
// for objects owned otherwise.
inline ProxyStats* statsOf(const std::shared_ptr<ZVRMediaProxyObject>& object) {
  const StatsDeleter* deleter = std::get_deleter<StatsDeleter>(object);
  return deleter != nullptr ? deleter->stats.get() : nullptr;
}
// The same through the object's address, under the table's leaf lock.
std::shared_ptr<ProxyStats> statsOf(const ZVRMediaProxyObject* object);

// While it lives, command messages sent and synchronous waits that run out on this thread are
// counted for `object` (a proxy sending one of its commands).
class CommandScope {
 public:
  explicit CommandScope(const ZVRMediaProxyObject* object);
  ~CommandScope();
  CommandScope(const CommandScope&) = delete;
  CommandScope& operator=(const CommandScope&) = delete;

 private:
  std::shared_ptr<ProxyStats> stats_;
  const ZVRMediaProxyObject* object_;
  std::shared_ptr<ProxyStats> previousStats_;
  const ZVRMediaProxyObject* previousObject_;
};

// --- What the library reports --------------------------------------------------------------------

// An event record of a name not in kCountedEvents handed to a proxy.
void otherEventReceived(ProxyStats* stats, std::string_view name);
// A record whose code is not "200" that `proxy` has handled: reported when it is a failed
// "started", "stopped" or "seeked" answer.
void failedRecordHandled(ProxyStats* stats, const ZVRMediaProxyObject* proxy,
                         const std::vector<std::string>& record);

// An event record handed to a proxy. On the dispatch path: inline, one relaxed load and one
// atomic increment for the usual names.
inline void eventReceived(ProxyStats* stats, std::string_view name) {
  if (stats == nullptr || !counting()) return;
  const std::size_t i = countedEventIndex(name);
  if (i < kCountedEventCount) {
    // Release, paired with the copy's acquire: a copy that sees this event also sees the command
    // it answers, which was counted before it was sent.
    stats->events[i].fetch_add(1, std::memory_order_release);
    return;
  }
  otherEventReceived(stats, name);
}

// A record addressed to `proxy` that it has handled: counted, and reported when it is a failed
// "started", "stopped" or "seeked" answer.
inline void recordHandled(ProxyStats* stats, const ZVRMediaProxyObject* proxy,
                          const std::vector<std::string>& record) {
  if (record.size() < 2) {
    eventReceived(stats, recordField(record, 0));
    failedRecordHandled(stats, proxy, record);  // no code is no "200"
    return;
  }
  eventReceived(stats, record[0]);
  if (record[1] != kResultOk) failedRecordHandled(stats, proxy, record);
}
// Whether `name` is one of the answers a proxy handles: "started", "stopped", "seeked".
bool isAnswerToAProxy(std::string_view name);
// A command message about to be sent: for a proxy's command (see CommandScope), or a "create".
void commandSent(std::string_view word);
// A failed answer: "created" (stats and proxy null) or an answer to a proxy.
void failedAnswer(ProxyStats* stats, const ZVRMediaProxyObject* proxy, const std::string& name,
                  const std::string& proxyId, const std::string& sessionId, const std::string& code,
                  const std::string& detail);
// A synchronous wait that ran out; the proxy is the one of the thread's CommandScope, if any.
void waitTimedOut(std::string_view word, const std::string& proxyId, const std::string& sessionId);
void creationTried();
// A creation without id returned; `id` is the id it returned.
void creationEnded(const std::string& id);
void serviceRestart(const std::string& reason);
void segmentMapped();
void segmentParseFailed();
void unroutedRecord();

// --- Library locks held by this thread ---------------------------------------------------------

// Tells whether the calling thread holds the manager mutex; set once by the manager.
void setManagerLockProbe(bool (*probe)());

// A proxy's mutex is held by this thread across a call out of the library (the "url"
// notification). Calls nest in the order of locking.
void proxyMutexLocked(const ZVRMediaProxyObject* object);
void proxyMutexUnlocked(const ZVRMediaProxyObject* object);
// True when this thread holds that proxy's mutex across a call out.
bool holdsProxyMutex(const ZVRMediaProxyObject* object);

// While it lives, this thread enters `object` into the registry under the manager mutex, and
// the object's id() reads its id (which never changes) without taking the object's mutex. The
// registry would otherwise order "manager mutex, then proxy mutex", against the "proxy mutex,
// then manager mutex" of a url notification that looks proxies up.
class RegisteringScope {
 public:
  explicit RegisteringScope(const ZVRMediaProxyObject* object);
  ~RegisteringScope();
  RegisteringScope(const RegisteringScope&) = delete;
  RegisteringScope& operator=(const RegisteringScope&) = delete;

 private:
  const ZVRMediaProxyObject* const previous_;
};
bool registering(const ZVRMediaProxyObject* object);

// The number of threads with outcomes waiting for their locks to be released. A thread that
// releases a library lock calls lockReleased(), which costs one relaxed load when none waits.
extern std::atomic<int> gThreadsWithPending;
void flushPending();
inline void lockReleased() {
  if (gThreadsWithPending.load(std::memory_order_relaxed) != 0) flushPending();
}

}  // namespace diagnostics
}  // namespace velmora

#endif  // ZVR_DIAGNOSTICS_H_
