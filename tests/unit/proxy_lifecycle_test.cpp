// Whole proxy lifetimes driven through the public handle only, against a service double that
// answers every command like the media service: through the platform listener, or only through
// the shared-memory event buffer "/ZVR_PROXY".

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capturing_log.h"
#include "manager_test.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "shm_writer.h"
#include "test_support.h"
#include "zvr_log.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using ::testing::ElementsAre;
using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManager;
using velmora::logging::kError;
using velmora::logging::kHeadline;
using velmora::logging::kProgress;
using zvr_test::CallbackRecorder;
using zvr_test::log;
using zvr_test::Notification;
using zvr_test::recorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;

using Strings = std::vector<std::string>;

constexpr std::chrono::milliseconds kTimeout(5000);
const char kId[] = "abc";

void expectCommandShape(const Strings& command) {
  static const std::regex kSessionId("ses-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{16}");
  static const std::regex kTimestamp("-?[0-9]+\\.[0-9]{6}");
  ASSERT_EQ(command.size(), 11u);
  EXPECT_TRUE(std::regex_match(command[2], kSessionId)) << "session id: " << command[2];
  EXPECT_TRUE(std::regex_match(command[4], kTimestamp)) << "timestamp: " << command[4];
}

// Records the thread of every callback before passing the call on to CallbackRecorder.
class ProxyLifecycleTest : public zvr_test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    manager_->setZVRCallback(&CallbackRecorder::callback);
  }

  std::shared_ptr<ZVRMediaProxyInterface> createProxy() {
    std::shared_ptr<ZVRMediaProxyInterface> proxy = manager_->createNewZVRMediaProxy(kId);
    log().clear();
    return proxy;
  }
};

TEST_F(ProxyLifecycleTest, StartStartedSeekStopThroughTheListener) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = createProxy();
  ASSERT_NE(proxy, nullptr);
  EXPECT_EQ(proxy->getState(), 0);

  // The answer to start is held back until the starting state has been seen.
  service.setSilent("start");
  proxy->start("file:///a.ts", 1);
  EXPECT_EQ(proxy->getState(), 1);
  EXPECT_EQ(proxy->localURL(), "");
  ASSERT_TRUE(recorder().waitCommands(1, kTimeout));
  service.publish(service.answerFor(recorder().commands()[0]));
  ASSERT_TRUE(recorder().waitDelivered(1, kTimeout));
  EXPECT_EQ(proxy->getState(), 2);
  EXPECT_EQ(proxy->localURL(), ServiceDouble::kLocalURL);

  proxy->seek(12.5, "fast");
  ASSERT_TRUE(recorder().waitDelivered(2, kTimeout));
  EXPECT_EQ(proxy->getState(), 2);
  EXPECT_EQ(log().count("Seek Done. abc\n", kHeadline), 1);

  proxy->stop();
  ASSERT_TRUE(recorder().waitDelivered(3, kTimeout));
  EXPECT_EQ(proxy->getState(), 0);
  EXPECT_EQ(proxy->localURL(), "");

  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 3u);
  for (const Strings& c : commands) expectCommandShape(c);
  EXPECT_EQ(commands[0], (Strings{"start", "", commands[0][2], kId, commands[0][4], "",
                                  "file:///a.ts", "", "", "1", ""}));
  EXPECT_EQ(commands[1], (Strings{"seek", "", commands[1][2], kId, commands[1][4], "12.500000",
                                  "fast", "", "", "", ""}));
  EXPECT_EQ(commands[2],
            (Strings{"stop", "", commands[2][2], kId, commands[2][4], "", "", "", "", "", ""}));
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{kId, "url", ServiceDouble::kLocalURL}));
  EXPECT_EQ(service.answered(), 2);  // seek and stop; start was answered by hand
}

TEST_F(ProxyLifecycleTest, StartAnsweredWithAFailureStaysStartingAndNotifiesNothing) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setResultCode("start", "500");
  std::shared_ptr<ZVRMediaProxyInterface> proxy = createProxy();

  proxy->start("file:///a.ts", 1);
  ASSERT_TRUE(recorder().waitDelivered(1, kTimeout));
  EXPECT_EQ(proxy->getState(), 1);
  EXPECT_EQ(proxy->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_EQ(log().count(std::string("ZVR Media Proxy stated : 500 ( ) ,  ") +
                            ServiceDouble::kLocalURL + "\n",
                        kHeadline),
            1);
  EXPECT_EQ(log().count("Start failed when current state is :1 \n", kError), 1);

  proxy->stop();
  ASSERT_TRUE(recorder().waitDelivered(2, kTimeout));
  EXPECT_EQ(proxy->getState(), 0);
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[0][0], "start");
  EXPECT_EQ(commands[1][0], "stop");
}

TEST_F(ProxyLifecycleTest, PreloadStartedThenStartModeZeroAnnouncesTheStoredURL) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = createProxy();

  proxy->preload(2, "one", "two", "three");
  ASSERT_TRUE(recorder().waitDelivered(1, kTimeout));
  EXPECT_EQ(proxy->getState(), 2);
  EXPECT_EQ(proxy->localURL(), ServiceDouble::kLocalURL);
  EXPECT_TRUE(CallbackRecorder::calls().empty());

  proxy->start("", 0);
  EXPECT_EQ(proxy->getState(), 1);
  EXPECT_EQ(proxy->localURL(), ServiceDouble::kLocalURL);
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{kId, "url", ServiceDouble::kLocalURL},
                          Notification{kId, "definitions", ""}));
  EXPECT_EQ(log().count("notification from preload has been received\n", kProgress), 1);

  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);  // no start command
  const Strings& c = commands[0];
  expectCommandShape(c);
  EXPECT_EQ(c,
            (Strings{"preload", "", c[2], kId, c[4], "2.000000", "one", "two", "three", "", ""}));
}

TEST_F(ProxyLifecycleTest, StartModeZeroReadsAPreloadAnswerLeftOnlyInSharedMemory) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  manager_->setZVRCallback(&CallbackRecorder::callback);
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  createProxy();
  std::shared_ptr<ZVRMediaProxyInterface> proxy = ZVRMediaProxyInterface::getObjectById(kId);
  ASSERT_NE(proxy, nullptr);

  proxy->preload(0, "one", "two", "three");
  EXPECT_EQ(service.answered(), 1);
  EXPECT_EQ(proxy->getState(), 0);
  EXPECT_EQ(proxy->localURL(), "");
  log().clear();

  proxy->start("", 0);

  EXPECT_EQ(proxy->getState(), 2);
  EXPECT_EQ(proxy->localURL(), ServiceDouble::kLocalURL);
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{kId, "url", ServiceDouble::kLocalURL}));
  EXPECT_THAT(CallbackRecorder::threads(), ElementsAre(std::this_thread::get_id()));
  EXPECT_EQ(
      log().count("notification from preload is not received, and will read it first\n", kProgress),
      1);
  EXPECT_EQ(log().count("read memory success.\n", kProgress), 1);
  EXPECT_EQ(recorder().delivered(), 0);
  EXPECT_EQ(recorder().getCalls(), 0);  // the event value was not needed
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0][0], "preload");
}

}  // namespace
