#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "test_support.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"

namespace {

using ::testing::ElementsAre;
using velmora::ZVRMediaProxyManager;
using velmora::logging::kError;
using velmora::logging::kProgress;
using zvr_test::CallbackRecorder;
using zvr_test::CapturedLog;
using zvr_test::ModelAccessRecorder;
using zvr_test::Notification;

ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }
CapturedLog& log() { return CapturedLog::instance(); }

TEST(ManagerLifecycleTest, ConcurrentFirstCallsOfGetInstanceBuildExactlyOneManager) {
  constexpr int kThreads = 8;
  zvr_test::Latch latch(kThreads);
  std::vector<ZVRMediaProxyManager*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      latch.arriveAndWait();
      seen[i] = ZVRMediaProxyManager::getInstance();
    });
  }
  for (std::thread& t : threads) t.join();
  for (ZVRMediaProxyManager* manager : seen) EXPECT_EQ(manager, seen[0]);
  EXPECT_NE(seen[0], nullptr);
  EXPECT_EQ(recorder().constructed(), 1);
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<void*>(seen[0]));
  EXPECT_EQ(log().count(std::string("enter, ") + address + "\n", kProgress), 1);
}

TEST(ManagerLifecycleTest, ConstructionStartsTheConnectionThenItsListener) {
  ZVRMediaProxyManager::getInstance();
  EXPECT_THAT(recorder().lifecycle(), ElementsAre("construct", "start", "listen"));
}

TEST(ManagerLifecycleTest, CreateModelAccessTwiceBuildsOneConnectionAndStartsItOnce) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  manager->createModelAccess();
  manager->createModelAccess();
  EXPECT_EQ(recorder().constructed(), 1);
  EXPECT_EQ(recorder().starts(), 1);
}

TEST(ManagerLifecycleTest, NotifyURLChangedCallsTheCallbackOnceWithIdUrlAndValue) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  manager->setZVRCallback(&CallbackRecorder::callback);
  manager->notifyURLChanged("abc", "http://127.0.0.1:8080/u");
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{"abc", "url", "http://127.0.0.1:8080/u"}));
  EXPECT_EQ(log().count("notify error\n"), 0);
}

TEST(ManagerLifecycleTest, NotifyURLChangedWithoutCallbackLogsNotifyErrorAndReturns) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  log().clear();
  manager->notifyURLChanged("abc", "u");
  EXPECT_EQ(log().count("notify error\n", kProgress), 1);
  EXPECT_EQ(log().lines().back().function, "notifyURLChanged");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
}

TEST(ManagerLifecycleTest, NotifyDefinitionsChangedCallsTheCallbackWithDefinitions) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  manager->setZVRCallback(&CallbackRecorder::callback);
  manager->notifyDefinitionsChanged("abc", "SD,HD");
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{"abc", "definitions", "SD,HD"}));
}

TEST(ManagerLifecycleTest, NotifyDefinitionsChangedWithoutCallbackLogsNotifyError) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  log().clear();
  manager->notifyDefinitionsChanged("abc", "SD");
  EXPECT_EQ(log().count("notify error\n", kProgress), 1);
  EXPECT_EQ(log().lines().back().function, "notifyDefinitionsChanged");
}

TEST(ManagerLifecycleTest, SettingANullCallbackSwitchesNotificationsOffAgain) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  manager->setZVRCallback(&CallbackRecorder::callback);
  log().clear();
  manager->setZVRCallback(nullptr);
  EXPECT_TRUE(log().lines().empty());
  manager->notifyURLChanged("abc", "u");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_EQ(log().count("notify error\n", kProgress), 1);
}

TEST(ManagerLifecycleTest, FirstClientOperationDoesNothing) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  log().clear();
  recorder().clearCalls();
  manager->onZVRConnected();
  EXPECT_TRUE(log().lines().empty());
  EXPECT_TRUE(recorder().calls().empty());
}

TEST(ManagerLifecycleTest, RequestStartZVRServiceAsksThePlatform) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  EXPECT_EQ(manager->requestStartZVRService(), 0);
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
}

TEST(ManagerLifecycleTest, RefusedConnectionLeavesNoAccessAndSkipsTheListener) {
  recorder().setThrowFromConstructor(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(recorder().listenerStarts(), 0);
  EXPECT_EQ(recorder().constructorAttempts(), 1);

  log().clear();
  EXPECT_EQ(manager->requestStartZVRService(), -1);
  EXPECT_EQ(log().count("Cannot get access.\n", kError), 1);
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
}

TEST(ManagerLifecycleTest, EveryRequestAfterARefusalTriesToConnectAgain) {
  recorder().setThrowFromConstructor(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  manager->createModelAccess();
  EXPECT_EQ(recorder().constructorAttempts(), 2);
  recorder().setThrowFromConstructor(false);
  manager->createModelAccess();
  EXPECT_EQ(recorder().constructed(), 1);
  EXPECT_EQ(recorder().starts(), 1);
  EXPECT_EQ(manager->requestStartZVRService(), 0);
}

TEST(ManagerLifecycleTest, StartThatThrowsLeavesNoAccess) {
  recorder().setThrowFromStart(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  EXPECT_EQ(recorder().listenerStarts(), 0);
  EXPECT_EQ(manager->requestStartZVRService(), -1);
  EXPECT_EQ(log().count("Cannot get access.\n", kError), 1);
}

TEST(ManagerLifecycleTest, ListenerFailurePropagatesAndLeavesTheInstanceUnset) {
  recorder().setThrowFromStartEventListener(true);
  EXPECT_THROW(ZVRMediaProxyManager::getInstance(), std::runtime_error);
  EXPECT_EQ(recorder().destroyed(), 1);  // the half-built manager released its connection
  recorder().setThrowFromStartEventListener(false);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  EXPECT_NE(manager, nullptr);
  EXPECT_EQ(ZVRMediaProxyManager::getInstance(), manager);
  EXPECT_EQ(recorder().constructed(), 2);
}

TEST(ManagerLifecycleTest, DestructorLogsEnterAndReleasesTheConnection) {
  ZVRMediaProxyManager* manager = new ZVRMediaProxyManager();
  log().clear();
  delete manager;
  EXPECT_EQ(log().count("enter\n", kProgress), 1);
  EXPECT_EQ(log().lines().back().function, "~ZVRMediaProxyManager");
  EXPECT_EQ(recorder().destroyed(), 1);
}

TEST(ManagerLifecycleTest, ConstructorLogsUnderTheClassName) {
  ZVRMediaProxyManager::getInstance();
  ASSERT_FALSE(log().lines().empty());
  EXPECT_EQ(log().lines().front().function, "ZVRMediaProxyManager");
}

}  // namespace
