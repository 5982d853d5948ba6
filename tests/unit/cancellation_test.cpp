// A host thread cancelled with pthread_cancel while it blocks in one of the library's waits, with
// a service double that never answers: the thread unwinds through the library (nothing swallows
// the unwinding, which would abort the process), the locks it held are released, and once the
// service answers again the next call works.
//
// The blocking entry points: the asynchronous creation (the facade's createNewZVRMediaProxy()),
// the synchronous creation (the facade's createNewZVRMediaProxySync()), a proxy command in sync
// mode (stop()) and the liveness probe (checkZVRServiceAlive()). Each test knows that the thread
// is blocked before cancelling it: the double has seen the thread's command and the thread sleeps
// in a system call.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "host_thread.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "shm_writer.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"

namespace {

using ::testing::StartsWith;
using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyManagerInterface;
using zvr_test::ModelAccessRecorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;

ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }

// For each attempt: ready once the double has seen one more command message than now.
std::function<bool()> afterTheNextCommand() {
  const std::size_t before = recorder().commands().size();
  return [before] { return recorder().commands().size() > before; };
}

class CancellationTest : public ::testing::Test {
 protected:
  void SetUp() override { ZVR_SKIP_WITHOUT_TRACEABLE_CANCELLATION(); }
  void TearDown() override { recorder().setHook(nullptr); }

  ZVRMediaProxyManagerInterface* facade() { return requestZVRMediaProxy(); }
  ZVRMediaProxyManager* manager() { return ZVRMediaProxyManager::getInstance(); }
};

TEST_F(CancellationTest, CancelledAsynchronousCreationUnwindsAndTheNextCreationGetsAnId) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setAllSilent(true);

  EXPECT_GT(zvr_test::cancelWhileBlocked([this] { facade()->createNewZVRMediaProxy(); },
                                         afterTheNextCommand),
            0);

  service.setAllSilent(false);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxy();
  ASSERT_NE(proxy, nullptr);
  EXPECT_THAT(proxy->id(), StartsWith("obj-"));
}

TEST_F(CancellationTest, CancelledSynchronousCreationUnwindsAndTheNextCreationGetsAnId) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  service.setAllSilent(true);

  EXPECT_GT(zvr_test::cancelWhileBlocked([this] { facade()->createNewZVRMediaProxySync(); },
                                         afterTheNextCommand),
            0);

  service.setAllSilent(false);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxySync();
  ASSERT_NE(proxy, nullptr);
  EXPECT_THAT(proxy->id(), StartsWith("obj-"));
}

TEST_F(CancellationTest, CancelledSynchronousStopUnwindsAndTheNextStopIsAnswered) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxySync();
  ASSERT_THAT(proxy->id(), StartsWith("obj-"));
  service.setAllSilent(true);

  EXPECT_GT(zvr_test::cancelWhileBlocked([&proxy] { proxy->stop(); }, afterTheNextCommand), 0);

  service.setAllSilent(false);
  EXPECT_EQ(manager()->requestRemoteObjectStopSync(proxy->id()), 0);
}

TEST_F(CancellationTest, CancelledLivenessProbeUnwindsAndTheNextProbeFindsTheServiceAlive) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setAllSilent(true);

  EXPECT_GT(zvr_test::cancelWhileBlocked([this] { manager()->checkZVRServiceAlive(); },
                                         afterTheNextCommand),
            0);

  service.setAllSilent(false);
  EXPECT_TRUE(manager()->checkZVRServiceAlive());
}

}  // namespace
