// What a long-running host meets on a real bus: a host thread cancelled while the media service
// is stopped (SIGSTOP), and a bus daemon that is restarted under the host. Each test runs in a
// process of its own with a private bus of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host_thread.h"
#include "private_bus.h"
#include "recording_client.h"
#include "test_support.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_model_access.h"

namespace {

using ::testing::HasSubstr;
using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyManagerInterface;
using zvr_test::CallbackRecorder;
using zvr_test::PrivateBus;
using zvr_test::RecordingClient;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const char kEventKey[] = "varek.sl2.vstr.videoplayer.zvr.event";
const std::vector<std::string> kResetRecord = {"unknown", "", "", "", "", "", "", "", ""};
const char kMediaURL[] = "file://" ZVR_TEST_MEDIA_DIR "/clip.webm";
// Logged when the cancellation acted while a call waited for its reply (SetValue to the stopped
// service, or the daemon's GetNameOwner just before it).
const char kCancelledCall[] = " cancelled; the next call connects anew\n";

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Continues the emulator on the way out of a test that stopped it.
class ContinueEmulator {
 public:
  explicit ContinueEmulator(PrivateBus& bus) : bus_(bus) {}
  ~ContinueEmulator() { bus_.continueEmulator(); }
  ContinueEmulator(const ContinueEmulator&) = delete;
  ContinueEmulator& operator=(const ContinueEmulator&) = delete;

 private:
  PrivateBus& bus_;
};

// With the service stopped, the thread sleeps in the call as soon as it has sent it.
std::function<bool()> atOnce() {
  return [] { return true; };
}

class BusRecoveryTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("ZVR_LOG_LEVEL", "4000", 1); }

  // A private bus with the emulator running, and the library built on it.
  void startHost() {
    bus_ = std::make_unique<PrivateBus>();
    ASSERT_TRUE(bus_->startEmulator());
    manager()->setZVRCallback(&CallbackRecorder::callback);
  }
  ZVRMediaProxyManagerInterface* facade() { return requestZVRMediaProxy(); }
  ZVRMediaProxyManager* manager() { return ZVRMediaProxyManager::getInstance(); }

  // Cancels `call` on a host thread while the emulator is stopped, then lets the emulator go on;
  // returns what the library logged meanwhile.
  std::string cancelWhileServiceStopped(const std::function<void()>& call) {
    ContinueEmulator continued(*bus_);
    EXPECT_TRUE(bus_->stopEmulator());
    ::testing::internal::CaptureStderr();
    EXPECT_GT(zvr_test::cancelWhileBlocked(call, atOnce), 0);
    return ::testing::internal::GetCapturedStderr();
  }

  std::unique_ptr<PrivateBus> bus_;
};

// --- A host thread cancelled while the service is stopped ----------------------------------------

TEST_F(BusRecoveryTest, CancelledCreationWhileTheServiceIsStoppedLeavesCreationWorking) {
  ZVR_SKIP_WITHOUT_TRACEABLE_CANCELLATION();
  startHost();
  const std::string log = cancelWhileServiceStopped([this] { facade()->createNewZVRMediaProxy(); });
  EXPECT_THAT(log, HasSubstr(kCancelledCall));

  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxy();
  ASSERT_NE(proxy, nullptr);
  EXPECT_NE(proxy->id(), "");
}

TEST_F(BusRecoveryTest, CancelledSynchronousCreationWhileTheServiceIsStoppedLeavesCreationWorking) {
  ZVR_SKIP_WITHOUT_TRACEABLE_CANCELLATION();
  startHost();
  const std::string log =
      cancelWhileServiceStopped([this] { facade()->createNewZVRMediaProxySync(); });
  EXPECT_THAT(log, HasSubstr(kCancelledCall));

  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxySync();
  ASSERT_NE(proxy, nullptr);
  EXPECT_NE(proxy->id(), "");
}

TEST_F(BusRecoveryTest, CancelledSynchronousStopWhileTheServiceIsStoppedLeavesCommandsWorking) {
  ZVR_SKIP_WITHOUT_TRACEABLE_CANCELLATION();
  startHost();
  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxySync();
  ASSERT_NE(proxy->id(), "");
  const std::string log = cancelWhileServiceStopped([&proxy] { proxy->stop(); });
  EXPECT_THAT(log, HasSubstr(kCancelledCall));

  EXPECT_EQ(manager()->requestRemoteObjectStopSync(proxy->id()), 0);
}

TEST_F(BusRecoveryTest, CancelledLivenessProbeWhileTheServiceIsStoppedLeavesTheProbeWorking) {
  ZVR_SKIP_WITHOUT_TRACEABLE_CANCELLATION();
  startHost();
  const std::string log = cancelWhileServiceStopped([this] { manager()->checkZVRServiceAlive(); });
  EXPECT_THAT(log, HasSubstr(kCancelledCall));

  EXPECT_TRUE(manager()->checkZVRServiceAlive());
}

// --- A restarted bus daemon ----------------------------------------------------------------------

TEST_F(BusRecoveryTest, AfterTheBusDaemonRestartsANewProxyIsCreatedAndStartedWithinFiveSeconds) {
  startHost();
  // The host at work: a proxy started, its URL delivered. Its id is the host's own, so that it
  // cannot meet an id the restarted service hands out.
  std::shared_ptr<ZVRMediaProxyInterface> before =
      facade()->createNewZVRMediaProxy("before-restart");
  before->start(kMediaURL, 1);
  ASSERT_TRUE(CallbackRecorder::waitCalls(1, std::chrono::seconds(5)));

  bus_->stopDaemon();
  ASSERT_TRUE(bus_->startDaemon());
  const Clock::time_point restarted = Clock::now();
  const Clock::time_point deadline = restarted + std::chrono::seconds(5);

  std::shared_ptr<ZVRMediaProxyInterface> proxy;
  while (Clock::now() < deadline) {
    proxy = facade()->createNewZVRMediaProxy();
    if (proxy != nullptr && !proxy->id().empty()) break;
  }
  ASSERT_NE(proxy, nullptr);
  ASSERT_NE(proxy->id(), "");
  const std::string id = proxy->id();
  proxy->start(kMediaURL, 1);
  const bool delivered = zvr_test::eventually(
      [&id] {
        for (const zvr_test::Notification& n : CallbackRecorder::calls()) {
          if (n.id == id && n.kind == "url" && !n.value.empty()) return true;
        }
        return false;
      },
      std::chrono::duration_cast<milliseconds>(deadline - Clock::now()));
  EXPECT_TRUE(delivered);
  EXPECT_LT(secondsSince(restarted), 5.0);
}

TEST_F(BusRecoveryTest, ModelAccessFailsFastWithoutABusAndRecoversWhenANewDaemonComes) {
  bus_ = std::make_unique<PrivateBus>();
  ASSERT_TRUE(bus_->startEmulator());
  RecordingClient client;
  auto access = std::make_unique<velmora::ZVRModelAccess>(&client);
  ASSERT_EQ(access->start(), 0);
  ASSERT_EQ(access->startEventListener(), 0);
  ASSERT_EQ(access->setAccessValue(kEventKey, kResetRecord), 0);
  EXPECT_EQ(client.connected.load(), 0);  // the service was there before the listener

  bus_->stopDaemon();
  // No call waits for a time-out while the bus is gone.
  for (int i = 0; i < 10; ++i) {
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(access->setAccessValue(kEventKey, kResetRecord), -1);
    std::vector<std::string> values;
    EXPECT_EQ(access->getAccessValue(kEventKey, values), -1);
    EXPECT_EQ(access->requestStartZVRService(), -1);
    EXPECT_LT(secondsSince(begin), 0.15);
  }

  ASSERT_TRUE(bus_->startDaemon());
  ASSERT_TRUE(bus_->startEmulator());
  // Subscribed again: the service is reported, whether it came before or after the listener.
  EXPECT_TRUE(zvr_test::eventually([&] { return client.connected.load() == 1; }));
  EXPECT_TRUE(
      zvr_test::eventually([&] { return access->setAccessValue(kEventKey, kResetRecord) == 0; }));
  ASSERT_EQ(bus_->run("dbus-send --bus=\"$ZVR_DBUS_ADDRESS\" --type=signal "
                      "/velmora/zvr/MediaService velmora.zvr.ModelAccess.Event "
                      "array:string:status"),
            0);
  EXPECT_TRUE(zvr_test::eventually([&] { return client.received().size() == 1; }));
  EXPECT_EQ(client.connected.load(), 1);

  // Destroyed while its listener pauses between attempts to reach the bus: it does not sit the
  // pause out (up to 1 s).
  bus_->stopDaemon();
  EXPECT_EQ(access->setAccessValue(kEventKey, kResetRecord), -1);
  const Clock::time_point begin = Clock::now();
  access.reset();
  EXPECT_LT(secondsSince(begin), 0.3);
}

}  // namespace
