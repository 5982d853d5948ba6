// Records the outcomes that the library's diagnostics extension delivers: add it as a listener
// for the life of the object, read what arrived, wait for a count. Thread-safe.

#ifndef ZVR_TESTS_SUPPORT_OUTCOME_RECORDER_H_
#define ZVR_TESTS_SUPPORT_OUTCOME_RECORDER_H_

#include <time.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "zvr_media_proxy_diagnostics.h"

namespace velmora {

// For test messages; found by argument-dependent lookup.
inline std::ostream& operator<<(std::ostream& out, const ZVROutcome& o) {
  return out << "{" << o.kind << " " << o.name << " id=" << o.proxyId << " ses=" << o.sessionId
             << " " << o.code << " '" << o.detail << "'}";
}

}  // namespace velmora

namespace zvr_test {

inline double monotonicSeconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

struct RecordedOutcome {
  velmora::ZVROutcome outcome;
  double deliveredAt;  // monotonic seconds
  std::thread::id thread;
};

class OutcomeRecorder {
 public:
  OutcomeRecorder() { velmora::addZVROutcomeListener(&OutcomeRecorder::listen, this); }
  ~OutcomeRecorder() { velmora::removeZVROutcomeListener(&OutcomeRecorder::listen, this); }
  OutcomeRecorder(const OutcomeRecorder&) = delete;
  OutcomeRecorder& operator=(const OutcomeRecorder&) = delete;

  std::vector<RecordedOutcome> all() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return outcomes_;
  }
  std::vector<velmora::ZVROutcome> outcomes() const {
    std::vector<velmora::ZVROutcome> list;
    for (const RecordedOutcome& r : all()) list.push_back(r.outcome);
    return list;
  }
  bool waitCount(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return outcomes_.size() >= count; });
  }

 private:
  static void listen(const velmora::ZVROutcome& outcome, void* self) {
    OutcomeRecorder* recorder = static_cast<OutcomeRecorder*>(self);
    std::lock_guard<std::mutex> lock(recorder->mutex_);
    recorder->outcomes_.push_back({outcome, monotonicSeconds(), std::this_thread::get_id()});
    recorder->changed_.notify_all();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<RecordedOutcome> outcomes_;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_SUPPORT_OUTCOME_RECORDER_H_
