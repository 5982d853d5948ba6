// The fixture of the unit tests that drive the manager singleton against the test doubles, and
// the accessors of the two doubles.
//
// SetUp makes the manager (its connection to the recording model access included), then
// empties the captured log and the recorded calls, so that a test sees only what it caused.
// Each test runs in a process of its own, so nothing else carries over between tests.

#ifndef ZVR_TESTS_SUPPORT_MANAGER_TEST_H_
#define ZVR_TESTS_SUPPORT_MANAGER_TEST_H_

#include <gtest/gtest.h>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "zvr_media_proxy_manager.h"

namespace zvr_test {

inline CapturedLog& log() { return CapturedLog::instance(); }
inline ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }

class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager_ = velmora::ZVRMediaProxyManager::getInstance();
    log().clear();
    recorder().clearCalls();
  }

  velmora::ZVRMediaProxyManager* manager_ = nullptr;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_SUPPORT_MANAGER_TEST_H_
