// A virtual clock for the unit tests of the library's pauses, waits and time limits.
//
// Linking zvr_fake_clock wraps (ld --wrap) four time sources for every object of the test
// executable, the library's included, and replaces them with one clock that starts at zero and
// moves only when the library pauses or a wait runs out:
// - usleep(n) records n, moves the clock on by n microseconds and returns at once;
// - base::log_now() reads the clock in seconds; std::chrono::system_clock::now() reads it from
//   kEpoch, so the absolute deadlines of the condition waits are on this clock too;
// - pthread_cond_timedwait, what a condition wait with a system-clock deadline comes down to,
//   records how long the wait asked for (its deadline minus the clock). While the pending
//   predicate holds (by default: the recording model access has records its listener thread has
//   not yet handed over) it really waits, in short slices, for a notification (the wrapped
//   notify_all and notify_one of std::condition_variable count them, so a spurious return of
//   the real wait is no wake-up), and ends woken when one comes, with the clock moved on by the
//   wake latency (default none). Once nothing is pending it ends at its deadline, with the clock
//   moved there. A wait that nothing can end therefore returns at once.
// Durations are exact: tests compare them with ==, and the 2.5 s of a creation against a silent
// service pass in milliseconds. A loop of pauses or waits that never ends (more than kRunaway of
// either) ends the process with a message.
//
// Thread-safe. The hooks and predicates run on the library's threads, with no lock of this
// clock held.

#ifndef ZVR_TESTS_SUPPORT_FAKE_CLOCK_H_
#define ZVR_TESTS_SUPPORT_FAKE_CLOCK_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <vector>

namespace zvr_test {

using std::chrono::nanoseconds;

// One timed condition wait, as it was asked for and as it ended.
struct ConditionWait {
  nanoseconds requested;  // the deadline minus the clock at the start of the wait
  bool woken;             // false: it ran to its deadline
};

class FakeClock {
 public:
  static constexpr int kRunaway = 10000;

  // The process-wide clock; never destroyed.
  static FakeClock& instance();

  // Time since the start of the process.
  nanoseconds now() const;
  // Moves the clock on, as a step of the test (a service that answers late, a slow send).
  void advance(nanoseconds step);

  // Every usleep argument, every condition wait, every value base::log_now returned, in order.
  std::vector<useconds_t> sleeps() const;
  std::vector<ConditionWait> waits() const;
  std::vector<double> logNowReadings() const;
  // Forgets what was recorded; the clock keeps its time.
  void clearRecords();

  // How long after its start a woken wait ends (default 0). A latency of at least the time the
  // wait asked for ends it at or after its deadline: a notification that came too late.
  void setWakeLatency(nanoseconds latency);
  // While `pending` returns true a condition wait may still be woken; null restores the default.
  void setPending(std::function<bool()> pending);
  // Runs on the sleeping thread after each usleep moved the clock; `n` counts the sleeps from 1.
  void setSleepHook(std::function<void(int n)> hook);

  // The time system_clock::now() reads at zero on this clock.
  static const nanoseconds kEpoch;

 private:
  FakeClock() = default;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_SUPPORT_FAKE_CLOCK_H_
