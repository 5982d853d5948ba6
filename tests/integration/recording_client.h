// A client of the model access alone, recording what the listener hands it: the number of
// onZVRConnected calls and every event record.

#ifndef ZVR_TESTS_INTEGRATION_RECORDING_CLIENT_H_
#define ZVR_TESTS_INTEGRATION_RECORDING_CLIENT_H_

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "zvr_model_access.h"

namespace zvr_test {

class RecordingClient : public velmora::ZVRModelAccessClient {
 public:
  void onZVRConnected() override { ++connected; }
  void onZVREvent(std::vector<std::string>& record) override {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(record);
  }
  std::vector<std::vector<std::string>> received() {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }

  std::atomic<int> connected{0};
  std::mutex mutex;
  std::vector<std::vector<std::string>> events;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_INTEGRATION_RECORDING_CLIENT_H_
