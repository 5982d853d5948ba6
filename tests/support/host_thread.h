// A host thread that a test cancels with pthread_cancel while it blocks inside the library.
//
// The thread runs one call. cancelOnceBlocked() waits, by bounded polling of
// /proc/self/task/<tid>/stat and .../syscall, until the thread sleeps in a system call after a
// condition of the test holds (typically: the service double has seen the command), cancels it
// and joins it. The library's waits are short (200 or 250 ms for some), so the call may return
// before the cancellation lands; the result says so and the test tries again.

#ifndef ZVR_TESTS_SUPPORT_HOST_THREAD_H_
#define ZVR_TESTS_SUPPORT_HOST_THREAD_H_

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace zvr_test {

// ThreadSanitizer cannot follow a thread cancelled inside one of its intercepted blocking calls
// (poll and the condition waits seen so far): its interceptor frames have no unwinding cleanups, so
// the unlocks made while the thread unwinds go unseen and it reports the next lock of those
// mutexes as a double lock. Cancellation tests skip themselves under it.
#if defined(__SANITIZE_THREAD__)
constexpr bool kCancellationTraceable = false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kCancellationTraceable = false;
#else
constexpr bool kCancellationTraceable = true;
#endif
#else
constexpr bool kCancellationTraceable = true;
#endif

#define ZVR_SKIP_WITHOUT_TRACEABLE_CANCELLATION() \
  if (!::zvr_test::kCancellationTraceable)        \
  GTEST_SKIP() << "ThreadSanitizer cannot follow a thread cancelled in a blocking call"

// Whether thread `tid` of this process sleeps inside a system call.
inline bool sleepsInSystemCall(pid_t tid) {
  const std::string task = "/proc/self/task/" + std::to_string(tid);
  std::ifstream stat(task + "/stat");
  std::string text;
  if (!std::getline(stat, text)) return false;
  const std::size_t end = text.rfind(')');  // the name in parentheses may hold anything
  if (end == std::string::npos || end + 2 >= text.size()) return false;
  const char state = text[end + 2];
  if (state != 'S' && state != 'D') return false;
  std::ifstream syscall(task + "/syscall");
  std::string number;
  syscall >> number;  // "running" when not in a system call
  return !number.empty() && std::isdigit(static_cast<unsigned char>(number[0])) != 0;
}

class HostThread {
 public:
  enum class Outcome { kCancelled, kReturned, kNeverBlocked };

  explicit HostThread(std::function<void()> call) : call_(std::move(call)) {
    started_ = pthread_create(&thread_, nullptr, &HostThread::run, this) == 0;
  }
  ~HostThread() {
    if (started_ && !joined_) join();
  }
  HostThread(const HostThread&) = delete;
  HostThread& operator=(const HostThread&) = delete;

  // Once `ready` holds, waits until the thread sleeps in a system call, then cancels and joins
  // it. kReturned when the call returned before the cancellation acted; kNeverBlocked when the
  // thread did not block within `timeout` (it is then joined once its call returns).
  Outcome cancelOnceBlocked(const std::function<bool()>& ready,
                            std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool blocked = false;
    while (!returned_.load() && std::chrono::steady_clock::now() < deadline) {
      const pid_t tid = tid_.load();
      if (tid != 0 && ready() && sleepsInSystemCall(tid)) {
        blocked = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (blocked) pthread_cancel(thread_);
    const bool cancelled = join() == PTHREAD_CANCELED;
    if (cancelled) return Outcome::kCancelled;
    return blocked ? Outcome::kReturned : Outcome::kNeverBlocked;
  }

 private:
  static void* run(void* self) {
    HostThread* host = static_cast<HostThread*>(self);
    host->tid_.store(static_cast<pid_t>(syscall(SYS_gettid)));
    host->call_();
    host->returned_.store(true);
    return nullptr;
  }
  void* join() {
    void* result = nullptr;
    pthread_join(thread_, &result);
    joined_ = true;
    return result;
  }

  std::function<void()> call_;
  pthread_t thread_{};
  bool started_ = false;
  bool joined_ = false;
  std::atomic<pid_t> tid_{0};
  std::atomic<bool> returned_{false};
};

// Runs `call` on host threads until one is cancelled while blocked, at most `attempts` times;
// `ready` is asked afresh for each attempt (make it return a fresh condition per attempt through
// `prepare`, which runs before each thread starts). Returns the number of attempts it took, or 0
// when none was cancelled.
inline int cancelWhileBlocked(const std::function<void()>& call,
                              const std::function<std::function<bool()>()>& prepare,
                              int attempts = 10) {
  for (int attempt = 1; attempt <= attempts; ++attempt) {
    std::function<bool()> ready = prepare();
    HostThread host(call);
    if (host.cancelOnceBlocked(ready) == HostThread::Outcome::kCancelled) return attempt;
  }
  return 0;
}

}  // namespace zvr_test

#endif  // ZVR_TESTS_SUPPORT_HOST_THREAD_H_
