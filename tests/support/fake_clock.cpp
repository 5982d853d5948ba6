#include "fake_clock.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "recording_model_access.h"

namespace zvr_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// How long one real slice of a pending wait lasts, and how long a wait may really take before
// it gives up on a notification that never comes.
constexpr milliseconds kSlice(1);
constexpr seconds kRealLimit(10);

struct State {
  std::mutex mutex;
  // Guarded by mutex.
  nanoseconds now{0};
  nanoseconds wakeLatency{0};
  std::vector<useconds_t> sleeps;
  std::vector<ConditionWait> waits;
  std::vector<double> logNowReadings;
  std::function<bool()> pending;
  std::function<void(int)> sleepHook;
  // Notifications so far, by condition variable. A std::condition_variable holds nothing but
  // its pthread_cond_t, so both have the same address.
  std::map<const void*, std::uint64_t> notifications;
};

// Leaked, so that threads still running at exit never meet a destroyed mutex.
State& state() {
  static State* const s = new State;
  return *s;
}

void runaway(const char* what) {
  std::fprintf(stderr, "fake clock: more than %d %s: the loop never ends\n", FakeClock::kRunaway,
               what);
  std::fflush(stdout);
  std::fflush(stderr);
  std::_Exit(EXIT_FAILURE);
}

std::uint64_t notifications(const void* cond) {
  std::lock_guard<std::mutex> lock(state().mutex);
  auto it = state().notifications.find(cond);
  return it != state().notifications.end() ? it->second : 0;
}

void notified(const void* cond) {
  std::lock_guard<std::mutex> lock(state().mutex);
  ++state().notifications[cond];
}

bool pending() {
  std::function<bool()> predicate;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    predicate = state().pending;
  }
  if (predicate) return predicate();
  return ModelAccessRecorder::instance().pendingDeliveries() > 0;
}

nanoseconds fromTimespec(const timespec& t) { return seconds(t.tv_sec) + nanoseconds(t.tv_nsec); }

timespec realDeadline(nanoseconds after) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const nanoseconds at = fromTimespec(now) + after;
  timespec deadline;
  deadline.tv_sec = static_cast<time_t>(at / seconds(1));
  deadline.tv_nsec = static_cast<long>((at % seconds(1)).count());
  return deadline;
}

}  // namespace

const nanoseconds FakeClock::kEpoch = seconds(1000000000);

FakeClock& FakeClock::instance() {
  static FakeClock* const clock = new FakeClock;
  return *clock;
}

nanoseconds FakeClock::now() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().now;
}

void FakeClock::advance(nanoseconds step) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().now += step;
}

std::vector<useconds_t> FakeClock::sleeps() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().sleeps;
}

std::vector<ConditionWait> FakeClock::waits() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().waits;
}

std::vector<double> FakeClock::logNowReadings() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().logNowReadings;
}

void FakeClock::clearRecords() {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().sleeps.clear();
  state().waits.clear();
  state().logNowReadings.clear();
}

void FakeClock::setWakeLatency(nanoseconds latency) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().wakeLatency = latency;
}

void FakeClock::setPending(std::function<bool()> predicate) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().pending = std::move(predicate);
}

void FakeClock::setSleepHook(std::function<void(int n)> hook) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().sleepHook = std::move(hook);
}

}  // namespace zvr_test

// --- The wrapped functions ----------------------------------------------------------------------

using zvr_test::ConditionWait;
using zvr_test::FakeClock;
using zvr_test::nanoseconds;
using zvr_test::state;

extern "C" int __real_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                             const timespec* deadline);

extern "C" int __wrap_usleep(useconds_t micros) {
  int n;
  std::function<void(int)> hook;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().sleeps.push_back(micros);
    state().now += std::chrono::microseconds(micros);
    n = static_cast<int>(state().sleeps.size());
    hook = state().sleepHook;
  }
  if (n > FakeClock::kRunaway) zvr_test::runaway("pauses");
  if (hook) hook(n);
  return 0;
}

extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                             const timespec* deadline) {
  const nanoseconds end = zvr_test::fromTimespec(*deadline) - FakeClock::kEpoch;
  nanoseconds start;
  std::size_t n;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    start = state().now;
    n = state().waits.size();
  }
  if (n >= static_cast<std::size_t>(FakeClock::kRunaway)) zvr_test::runaway("condition waits");

  // Only a notification ends the wait woken: the real wait returning without one (a spurious
  // wake-up, an error) just ends a slice.
  const std::uint64_t before = zvr_test::notifications(cond);
  const auto giveUp = std::chrono::steady_clock::now() + zvr_test::kRealLimit;
  while (zvr_test::notifications(cond) == before && zvr_test::pending() &&
         std::chrono::steady_clock::now() < giveUp) {
    const timespec slice = zvr_test::realDeadline(zvr_test::kSlice);
    __real_pthread_cond_timedwait(cond, mutex, &slice);
  }
  // A notification between the last slice and the end of the pending work is counted here.
  const bool woken = zvr_test::notifications(cond) != before;

  std::lock_guard<std::mutex> lock(state().mutex);
  state().now = std::max(state().now, woken ? start + state().wakeLatency : end);
  state().waits.push_back(ConditionWait{end - start, woken});
  return woken ? 0 : ETIMEDOUT;
}

// The notifications of std::condition_variable (what notify_all of a condition_variable_any comes
// down to) are counted before they are passed on. These and the two clock functions are C++
// functions; the definitions below take their wrapped names.
void realNotifyAll(std::condition_variable* cond) __asm__(
    "__real__ZNSt18condition_variable10notify_allEv");
void realNotifyOne(std::condition_variable* cond) __asm__(
    "__real__ZNSt18condition_variable10notify_oneEv");

void wrappedNotifyAll(std::condition_variable* cond) __asm__(
    "__wrap__ZNSt18condition_variable10notify_allEv");
void wrappedNotifyAll(std::condition_variable* cond) {
  zvr_test::notified(cond);
  realNotifyAll(cond);
}

void wrappedNotifyOne(std::condition_variable* cond) __asm__(
    "__wrap__ZNSt18condition_variable10notify_oneEv");
void wrappedNotifyOne(std::condition_variable* cond) {
  zvr_test::notified(cond);
  realNotifyOne(cond);
}

double wrappedLogNow() __asm__("__wrap__ZN4base7log_nowEv");
double wrappedLogNow() {
  std::lock_guard<std::mutex> lock(state().mutex);
  const double seconds = static_cast<double>(state().now.count()) / 1e9;
  state().logNowReadings.push_back(seconds);
  return seconds;
}

std::chrono::system_clock::time_point wrappedSystemNow() __asm__(
    "__wrap__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point wrappedSystemNow() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(FakeClock::kEpoch +
                                                                      state().now));
}
