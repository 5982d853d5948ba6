// Small helpers shared by the unit tests: a latch, a recorder for the application callback,
// bounded polling, and a watchdog.

#ifndef ZVR_TESTS_SUPPORT_TEST_SUPPORT_H_
#define ZVR_TESTS_SUPPORT_TEST_SUPPORT_H_

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace zvr_test {

// Releases every waiter once `count` arrivals were made.
class Latch {
 public:
  explicit Latch(int count) : count_(count) {}
  void arriveAndWait() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--count_ <= 0) {
      released_.notify_all();
      return;
    }
    released_.wait(lock, [this] { return count_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable released_;
  int count_;
};

struct Notification {
  std::string id;
  std::string kind;
  std::string value;
  bool operator==(const Notification& o) const {
    return id == o.id && kind == o.kind && value == o.value;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Notification& n) {
  return out << "(" << n.id << ", " << n.kind << ", " << n.value << ")";
}

// The application callback is a plain function pointer, so its calls go to one process-wide
// list. Pass CallbackRecorder::callback to setZVRCallback.
class CallbackRecorder {
 public:
  static void callback(std::string id, std::string kind, std::string value) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.calls.push_back({std::move(id), std::move(kind), std::move(value)});
    s.threads.push_back(std::this_thread::get_id());
    s.changed.notify_all();
  }
  static std::vector<Notification> calls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().calls;
  }
  // The thread each call ran on, in the order of calls().
  static std::vector<std::thread::id> threads() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().threads;
  }
  static bool waitCalls(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(state().mutex);
    return state().changed.wait_for(lock, timeout,
                                    [count] { return state().calls.size() >= count; });
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Notification> calls;
    std::vector<std::thread::id> threads;
  };
  static State& state() {
    static State* const s = new State;
    return *s;
  }
};

// Polls `condition` every `every` until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::milliseconds(5000),
                       std::chrono::milliseconds every = std::chrono::milliseconds(2)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(every);
  }
  return true;
}

// Runs `call` on a thread of its own and waits at most `limit` for it. A call that does not
// return by then is a deadlock: `what` is reported and the process ends at once, since the
// blocked thread can never be joined.
template <typename Call>
auto withWatchdog(const char* what, std::chrono::seconds limit, Call call) -> decltype(call()) {
  auto future = std::async(std::launch::async, call);
  if (future.wait_for(limit) != std::future_status::ready) {
    std::fprintf(stderr, "watchdog: %s did not return within %lld s: deadlock\n", what,
                 static_cast<long long>(limit.count()));
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(EXIT_FAILURE);
  }
  return future.get();
}

}  // namespace zvr_test

#endif  // ZVR_TESTS_SUPPORT_TEST_SUPPORT_H_
