#include "zvr_diagnostics.h"

#include <time.h>

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "zvr_cancellation.h"
#include "zvr_event_record.h"
#include "zvr_log.h"
#include "zvr_media_proxy_object.h"

namespace velmora {
namespace diagnostics {

using logging::kError;

namespace {

bool countingSwitch() {
  const char* value = std::getenv("ZVR_COUNTERS");
  return value == nullptr || std::string(value) != "0";
}

double monotonicNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

template <std::size_t N>
std::size_t indexOf(const std::string_view (&names)[N], std::string_view name) {
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i] == name) return i;
  }
  return N;
}

// How many failed answers are remembered to report an answer that arrives twice only once.
constexpr std::size_t kRememberedAnswers = 256;

}  // namespace

std::atomic<bool> gCounting{countingSwitch()};
std::atomic<bool> gHasListeners{false};
std::atomic<int> gThreadsWithPending{0};

void setCounting(bool on) { gCounting.store(on, std::memory_order_relaxed); }

// --- Statistics
// -----------------------------------------------------------------------------------

namespace {

struct ProcessStats {
  std::mutex mutex;
  ZVRProcessCounters counters;
};

ProcessStats& processStats() {
  static ProcessStats* const stats = new ProcessStats;
  return *stats;
}

template <typename Update>
void updateProcess(Update update) {
  if (!counting()) return;
  ProcessStats& stats = processStats();
  std::lock_guard<std::mutex> lock(stats.mutex);
  update(stats.counters);
}

// The objects made by adopt(), by address; an entry goes when its object is deleted.
struct ProxyTable {
  std::mutex mutex;
  std::unordered_map<const ZVRMediaProxyObject*, std::shared_ptr<ProxyStats>> entries;
};

ProxyTable& proxyTable() {
  static ProxyTable* const table = new ProxyTable;
  return *table;
}

}  // namespace

void StatsDeleter::operator()(ZVRMediaProxyObject* object) const {
  {
    ProxyTable& table = proxyTable();
    std::lock_guard<std::mutex> lock(table.mutex);
    table.entries.erase(object);
  }
  delete object;
}

namespace {

// --- Per-thread state
// -----------------------------------------------------------------------------

struct ThreadState {
  // Proxies whose mutex this thread holds across a call out.
  std::vector<const ZVRMediaProxyObject*> heldProxies;
  // Outcomes waiting for this thread's locks to be released.
  std::vector<ZVROutcome> pending;
  // The proxy whose command this thread is sending.
  const ZVRMediaProxyObject* commandObject = nullptr;
  // The proxy this thread is entering into the registry.
  const ZVRMediaProxyObject* registering = nullptr;
  std::shared_ptr<ProxyStats> commandStats;
};

thread_local ThreadState tThread;

std::atomic<bool (*)()> gManagerLockProbe{nullptr};

bool holdsLibraryLock() {
  if (!tThread.heldProxies.empty()) return true;
  bool (*probe)() = gManagerLockProbe.load(std::memory_order_acquire);
  return probe != nullptr && probe();
}

// --- Outcome delivery
// -----------------------------------------------------------------------------

struct Listener {
  ZVROutcomeListener function;
  void* userData;
  bool operator==(const Listener& o) const {
    return function == o.function && userData == o.userData;
  }
};

// Never destroyed: the outcome thread may run until the process ends.
struct Outcomes {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Listener> listeners;
  std::deque<ZVROutcome> queue;
  bool threadStarted = false;
  std::thread::id threadId;
  // The listener being called, so that removal can wait for it.
  bool running = false;
  Listener runningListener{nullptr, nullptr};

  // Failed answers already reported, by name, session id and proxy id.
  std::mutex recentMutex;
  std::deque<std::string> recentOrder;
  std::unordered_set<std::string> recent;
};

Outcomes& outcomes() {
  static Outcomes* const o = new Outcomes;
  return *o;
}

void deliverForever() {
  Outcomes& o = outcomes();
  std::unique_lock<std::mutex> lock(o.mutex);
  for (;;) {
    o.changed.wait(lock, [&o] { return !o.queue.empty(); });
    const ZVROutcome outcome = std::move(o.queue.front());
    o.queue.pop_front();
    const std::vector<Listener> listeners = o.listeners;
    for (const Listener& listener : listeners) {
      // Removed while an earlier listener ran.
      bool registered = false;
      for (const Listener& l : o.listeners) registered = registered || l == listener;
      if (!registered) continue;
      o.running = true;
      o.runningListener = listener;
      lock.unlock();
      try {
        listener.function(outcome, listener.userData);
      } catch (const std::exception& e) {
        ZVR_LOG(kError, "outcome listener threw: %s\n", e.what());
      } catch (...) {
        if (unwindingCancelledThread()) throw;
        ZVR_LOG(kError, "outcome listener threw\n");
      }
      updateProcess([](ZVRProcessCounters& c) { ++c.listenerDeliveries; });
      lock.lock();
      o.running = false;
      o.changed.notify_all();
    }
  }
}

void enqueue(std::vector<ZVROutcome>& batch) {
  Outcomes& o = outcomes();
  {
    std::lock_guard<std::mutex> lock(o.mutex);
    if (o.listeners.empty()) return;
    for (ZVROutcome& outcome : batch) o.queue.push_back(std::move(outcome));
  }
  o.changed.notify_all();
}

void emit(ZVROutcome outcome) {
  if (!gHasListeners.load(std::memory_order_acquire)) return;
  if (holdsLibraryLock()) {
    if (tThread.pending.empty()) gThreadsWithPending.fetch_add(1, std::memory_order_relaxed);
    tThread.pending.push_back(std::move(outcome));
    return;
  }
  std::vector<ZVROutcome> batch;
  batch.push_back(std::move(outcome));
  enqueue(batch);
}

ZVROutcome makeOutcome(ZVROutcome::Kind kind, std::string_view name, const std::string& proxyId,
                       const std::string& sessionId, const std::string& code,
                       const std::string& detail, const ZVRMediaProxyInterface* proxy) {
  return ZVROutcome{kind,   std::string(name), proxyId, sessionId, code,
                    detail, monotonicNow(),    proxy};
}

// True the first time a failed answer is seen; answers without a session id are never merged.
bool firstReport(const std::string& name, const std::string& proxyId,
                 const std::string& sessionId) {
  if (sessionId.empty()) return true;
  Outcomes& o = outcomes();
  std::string key = name + '\x1f' + sessionId + '\x1f' + proxyId;
  std::lock_guard<std::mutex> lock(o.recentMutex);
  if (!o.recent.insert(key).second) return false;
  o.recentOrder.push_back(std::move(key));
  if (o.recentOrder.size() > kRememberedAnswers) {
    o.recent.erase(o.recentOrder.front());
    o.recentOrder.pop_front();
  }
  return true;
}

}  // namespace

void flushPending() {
  if (tThread.pending.empty() || holdsLibraryLock()) return;
  std::vector<ZVROutcome> batch;
  batch.swap(tThread.pending);
  gThreadsWithPending.fetch_sub(1, std::memory_order_relaxed);
  try {
    enqueue(batch);
  } catch (const std::exception&) {
    // Out of memory: these outcomes are lost, nothing else is.
  }
}

// --- Proxies
// --------------------------------------------------------------------------------------

std::shared_ptr<ZVRMediaProxyObject> adopt(ZVRMediaProxyObject* object) {
  std::unique_ptr<ZVRMediaProxyObject> owned(object);
  auto stats = std::make_shared<ProxyStats>();
  {
    ProxyTable& table = proxyTable();
    std::lock_guard<std::mutex> lock(table.mutex);
    table.entries[object] = stats;
  }
  // Should the control block's allocation fail, the constructor deletes the object through the
  // deleter, which also removes the table entry.
  return std::shared_ptr<ZVRMediaProxyObject>(owned.release(), StatsDeleter{stats});
}

std::shared_ptr<ProxyStats> statsOf(const ZVRMediaProxyObject* object) {
  ProxyTable& table = proxyTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.entries.find(object);
  return it != table.entries.end() ? it->second : std::shared_ptr<ProxyStats>();
}

CommandScope::CommandScope(const ZVRMediaProxyObject* object)
    : object_(object),
      previousStats_(std::move(tThread.commandStats)),
      previousObject_(tThread.commandObject) {
  if (counting()) stats_ = statsOf(object);
  tThread.commandObject = object_;
  tThread.commandStats = stats_;
}

CommandScope::~CommandScope() {
  tThread.commandObject = previousObject_;
  tThread.commandStats = std::move(previousStats_);
}

// --- What the library reports
// ---------------------------------------------------------------------

void otherEventReceived(ProxyStats* stats, std::string_view name) {
  std::lock_guard<std::mutex> lock(stats->mutex);
  ++stats->otherEvents[std::string(name)];
}

void failedRecordHandled(ProxyStats* stats, const ZVRMediaProxyObject* proxy,
                         const std::vector<std::string>& record) {
  const std::string& name = recordField(record, 0);
  if (isAnswerToAProxy(name)) {
    failedAnswer(stats, proxy, name, recordField(record, 3), recordField(record, 2),
                 recordField(record, 1), recordField(record, 8));
  }
}

bool isAnswerToAProxy(std::string_view name) {
  return name == kEventStarted || name == kEventStopped || name == kEventSeeked;
}

void commandSent(std::string_view word) {
  if (!counting()) return;
  if (word == "create") {
    updateProcess([](ZVRProcessCounters& c) { ++c.creationAttempts; });
    return;
  }
  ProxyStats* stats = tThread.commandStats.get();
  if (stats == nullptr) return;
  const std::size_t i = indexOf(kProxyCommands, word);
  if (i < kProxyCommandCount) stats->commands[i].fetch_add(1, std::memory_order_relaxed);
}

void failedAnswer(ProxyStats* stats, const ZVRMediaProxyObject* proxy, const std::string& name,
                  const std::string& proxyId, const std::string& sessionId, const std::string& code,
                  const std::string& detail) {
  const bool count = counting() && stats != nullptr;
  if (!count && !gHasListeners.load(std::memory_order_acquire)) return;
  if (!firstReport(name, proxyId, sessionId)) return;
  ZVROutcome outcome =
      makeOutcome(ZVROutcome::kFailedAnswer, name, proxyId, sessionId, code, detail, proxy);
  if (count) {
    std::lock_guard<std::mutex> lock(stats->mutex);
    ++stats->failures[name];
    stats->lastFailureName = name;
    stats->lastFailureCode = code;
    stats->lastFailureDetail = detail;
    stats->lastFailureTime = outcome.time;
  }
  emit(std::move(outcome));
}

void waitTimedOut(std::string_view word, const std::string& proxyId, const std::string& sessionId) {
  const bool forProxy = word != "create" && word != "inspect";
  const ZVRMediaProxyObject* proxy = forProxy ? tThread.commandObject : nullptr;
  ProxyStats* stats = forProxy ? tThread.commandStats.get() : nullptr;
  if (stats != nullptr && counting()) {
    std::lock_guard<std::mutex> lock(stats->mutex);
    ++stats->waitsTimedOut;
  }
  emit(makeOutcome(ZVROutcome::kWaitTimedOut, word, proxyId, sessionId, "",
                   "no answer within 250 ms", proxy));
}

void creationTried() {
  updateProcess([](ZVRProcessCounters& c) { ++c.creationsTried; });
}

void creationEnded(const std::string& id) {
  const bool empty = id.empty();
  updateProcess([empty](ZVRProcessCounters& c) {
    if (empty) {
      ++c.creationsEmpty;
    } else {
      ++c.creationsSucceeded;
    }
  });
  if (empty) {
    emit(makeOutcome(ZVROutcome::kCreationEmpty, "create", "", "", "",
                     "no \"created\" answer: the proxy has the empty id", nullptr));
  }
}

void serviceRestart(const std::string& reason) {
  updateProcess([](ZVRProcessCounters& c) { ++c.serviceRestarts; });
  emit(makeOutcome(ZVROutcome::kServiceRestart, "restart", "", "", "", reason, nullptr));
}

void segmentMapped() {
  updateProcess([](ZVRProcessCounters& c) { ++c.segmentMappings; });
}

void segmentParseFailed() {
  updateProcess([](ZVRProcessCounters& c) { ++c.segmentParseFailures; });
}

void unroutedRecord() {
  updateProcess([](ZVRProcessCounters& c) { ++c.unroutedRecords; });
}

// --- Library locks held by this thread
// ------------------------------------------------------------

void setManagerLockProbe(bool (*probe)()) {
  gManagerLockProbe.store(probe, std::memory_order_release);
}

void proxyMutexLocked(const ZVRMediaProxyObject* object) { tThread.heldProxies.push_back(object); }

void proxyMutexUnlocked(const ZVRMediaProxyObject* object) {
  std::vector<const ZVRMediaProxyObject*>& held = tThread.heldProxies;
  for (auto it = held.rbegin(); it != held.rend(); ++it) {
    if (*it == object) {
      held.erase(std::next(it).base());
      break;
    }
  }
}

bool holdsProxyMutex(const ZVRMediaProxyObject* object) {
  for (const ZVRMediaProxyObject* held : tThread.heldProxies) {
    if (held == object) return true;
  }
  return false;
}

RegisteringScope::RegisteringScope(const ZVRMediaProxyObject* object)
    : previous_(tThread.registering) {
  tThread.registering = object;
}

RegisteringScope::~RegisteringScope() { tThread.registering = previous_; }

bool registering(const ZVRMediaProxyObject* object) {
  return object != nullptr && tThread.registering == object;
}

}  // namespace diagnostics

// --- The extension's surface
// ----------------------------------------------------------------------

using diagnostics::gHasListeners;
using diagnostics::Listener;
using diagnostics::outcomes;
using diagnostics::Outcomes;

bool addZVROutcomeListener(ZVROutcomeListener listener, void* userData) {
  if (listener == nullptr) return false;
  Outcomes& o = outcomes();
  std::lock_guard<std::mutex> lock(o.mutex);
  const Listener added{listener, userData};
  for (const Listener& l : o.listeners) {
    if (l == added) return false;
  }
  if (!o.threadStarted) {
    std::thread thread(diagnostics::deliverForever);
    o.threadId = thread.get_id();
    thread.detach();
    o.threadStarted = true;
  }
  o.listeners.push_back(added);
  gHasListeners.store(true, std::memory_order_release);
  return true;
}

bool removeZVROutcomeListener(ZVROutcomeListener listener, void* userData) {
  Outcomes& o = outcomes();
  std::unique_lock<std::mutex> lock(o.mutex);
  const Listener removed{listener, userData};
  bool found = false;
  for (auto it = o.listeners.begin(); it != o.listeners.end(); ++it) {
    if (*it == removed) {
      o.listeners.erase(it);
      found = true;
      break;
    }
  }
  if (!found) return false;
  gHasListeners.store(!o.listeners.empty(), std::memory_order_release);
  if (o.listeners.empty()) o.queue.clear();
  // The outcome thread cannot wait for itself; a thread that holds a library lock must not wait
  // for a listener that may be calling into the library (it could wait for that very lock).
  if (std::this_thread::get_id() != o.threadId && !diagnostics::holdsLibraryLock()) {
    o.changed.wait(lock, [&o, &removed] { return !(o.running && o.runningListener == removed); });
  }
  return true;
}

std::shared_ptr<const ZVRProxyCounters> getZVRProxyCounters(
    const std::shared_ptr<ZVRMediaProxyInterface>& proxy) {
  const diagnostics::StatsDeleter* deleter = std::get_deleter<diagnostics::StatsDeleter>(proxy);
  if (deleter == nullptr) return nullptr;
  diagnostics::ProxyStats& stats = *deleter->stats;
  auto copy = std::make_shared<ZVRProxyCounters>();
  // The failure group first, then the events, then the commands: a failure is counted after its
  // event and a command before it is sent, so the copy never shows a failure without its event
  // nor an answer without its command.
  {
    std::lock_guard<std::mutex> lock(stats.mutex);
    copy->failures = stats.failures;
    copy->eventsReceived = stats.otherEvents;
    copy->lastFailureName = stats.lastFailureName;
    copy->lastFailureCode = stats.lastFailureCode;
    copy->lastFailureDetail = stats.lastFailureDetail;
    copy->lastFailureTime = stats.lastFailureTime;
    copy->waitsTimedOut = stats.waitsTimedOut;
  }
  // Events before commands (see eventReceived).
  for (std::size_t i = 0; i < diagnostics::kCountedEventCount; ++i) {
    const uint64_t n = stats.events[i].load(std::memory_order_acquire);
    if (n != 0) copy->eventsReceived[std::string(diagnostics::kCountedEvents[i])] = n;
  }
  for (std::size_t i = 0; i < diagnostics::kProxyCommandCount; ++i) {
    const uint64_t n = stats.commands[i].load(std::memory_order_relaxed);
    if (n != 0) copy->commandsSent[std::string(diagnostics::kProxyCommands[i])] = n;
  }
  return copy;
}

std::shared_ptr<const ZVRProcessCounters> getZVRProcessCounters() {
  diagnostics::ProcessStats& stats = diagnostics::processStats();
  auto copy = std::make_shared<ZVRProcessCounters>();
  {
    std::lock_guard<std::mutex> lock(stats.mutex);
    *copy = stats.counters;
  }
  copy->counting = diagnostics::counting();
  return copy;
}

}  // namespace velmora
