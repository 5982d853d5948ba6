// A media-service double on top of the recording model access and the shared-memory writer.
//
// It answers each command message the library sends, on the sending thread or after a delay on
// a thread of its own:
//   "create" -> "created" (a new id obj-1, obj-2, ...), "start" and "preload" -> "started"
//   (a local URL at position 6), "stop" -> "stopped", "seek" -> "seeked", "inspect" -> "status".
// Every answer carries the command's session id at position 2 and its object id (for "created"
// the new id) at position 3, in 11 positions. It is written into "/ZVR_PROXY", handed to the
// listener thread, or both, as the delivery mode says.

#ifndef ZVR_TESTS_SUPPORT_SERVICE_DOUBLE_H_
#define ZVR_TESTS_SUPPORT_SERVICE_DOUBLE_H_

#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "recording_model_access.h"
#include "shm_writer.h"

namespace zvr_test {

class ServiceDouble {
 public:
  enum class Delivery { kSharedMemory, kListener, kBoth };

  // `writer` may be null when the delivery never uses shared memory.
  ServiceDouble(ShmWriter* writer, Delivery delivery) : writer_(writer), delivery_(delivery) {
    ModelAccessRecorder::instance().setHook(
        [this](const std::string& key, const std::vector<std::string>& values) {
          onValue(key, values);
        });
  }
  ~ServiceDouble() {
    ModelAccessRecorder::instance().setHook(nullptr);
    std::vector<std::thread> pending;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pending.swap(threads_);
    }
    for (std::thread& t : pending) t.join();
  }
  ServiceDouble(const ServiceDouble&) = delete;
  ServiceDouble& operator=(const ServiceDouble&) = delete;

  static constexpr const char* kLocalURL = "http://127.0.0.1:8099/media/0";

  // Commands with this word get no answer.
  void setSilent(const std::string& word) {
    std::lock_guard<std::mutex> lock(mutex_);
    silent_.insert(word);
  }
  void setAllSilent(bool silent) {
    std::lock_guard<std::mutex> lock(mutex_);
    allSilent_ = silent;
  }
  // The result code of answers to this word (default "200").
  void setResultCode(const std::string& word, const std::string& code) {
    std::lock_guard<std::mutex> lock(mutex_);
    codes_[word] = code;
  }
  // The detail (position 8) of answers to this word (default "").
  void setDetail(const std::string& word, const std::string& detail) {
    std::lock_guard<std::mutex> lock(mutex_);
    details_[word] = detail;
  }
  // Answers to this word come after `delay`, from a thread of their own.
  void setDelay(const std::string& word, std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(mutex_);
    delays_[word] = delay;
  }
  void setDelivery(Delivery delivery) {
    std::lock_guard<std::mutex> lock(mutex_);
    delivery_ = delivery;
  }

  // The answer record for a command message, as this double builds it.
  std::vector<std::string> answerFor(const std::vector<std::string>& command) {
    const std::string& word = command[0];
    std::vector<std::string> answer(11);
    answer[0] = word == "create"    ? "created"
                : word == "start"   ? "started"
                : word == "preload" ? "started"
                : word == "stop"    ? "stopped"
                : word == "seek"    ? "seeked"
                : word == "inspect" ? "status"
                                    : "unknown";
    std::lock_guard<std::mutex> lock(mutex_);
    auto code = codes_.find(word);
    answer[1] = code != codes_.end() ? code->second : "200";
    answer[2] = command[2];
    answer[3] = word == "create" ? "obj-" + std::to_string(++created_) : command[3];
    if (answer[0] == "started") answer[6] = kLocalURL;
    auto detail = details_.find(word);
    if (detail != details_.end()) answer[8] = detail->second;
    return answer;
  }

  // Publishes a record now, through the current delivery mode. One record at a time, as the
  // service writes its segment.
  void publish(const std::vector<std::string>& record) {
    std::lock_guard<std::mutex> publishing(publishMutex_);
    Delivery delivery;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      delivery = delivery_;
    }
    if (delivery != Delivery::kListener && writer_ != nullptr) writer_->writeRecord(record);
    if (delivery != Delivery::kSharedMemory) ModelAccessRecorder::instance().deliver(record);
  }

  int answered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return answered_;
  }

 private:
  void onValue(const std::string& key, const std::vector<std::string>& values) {
    if (key != kCommandKey || values.size() < 4) return;
    std::chrono::milliseconds delay(0);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (allSilent_ || silent_.count(values[0]) != 0) return;
      auto d = delays_.find(values[0]);
      if (d != delays_.end()) delay = d->second;
      ++answered_;
    }
    std::vector<std::string> answer = answerFor(values);
    if (delay.count() == 0) {
      publish(answer);
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    threads_.emplace_back([this, answer, delay] {
      std::this_thread::sleep_for(delay);
      publish(answer);
    });
  }

  ShmWriter* const writer_;
  std::mutex publishMutex_;  // taken before mutex_
  mutable std::mutex mutex_;
  Delivery delivery_;
  bool allSilent_ = false;
  std::set<std::string> silent_;
  std::map<std::string, std::string> codes_;
  std::map<std::string, std::string> details_;
  std::map<std::string, std::chrono::milliseconds> delays_;
  int created_ = 0;
  int answered_ = 0;
  std::vector<std::thread> threads_;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_SUPPORT_SERVICE_DOUBLE_H_
