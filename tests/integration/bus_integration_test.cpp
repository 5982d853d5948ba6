// The library over the real D-Bus model access, against the media-service emulator on a private
// bus. Each test runs in a process of its own with a bus of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "private_bus.h"
#include "recording_client.h"
#include "test_support.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"
#include "zvr_model_access.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using velmora::ZVRMediaProxyManager;
using zvr_test::CallbackRecorder;
using zvr_test::Notification;
using zvr_test::PrivateBus;
using zvr_test::RecordingClient;
using Clock = std::chrono::steady_clock;

const char kSessionIdPattern[] = "ses-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{16}";
const char kTimestampPattern[] = "[0-9]+\\.[0-9]{6}";

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

int occurrences(const std::string& text, const std::string& part) {
  int n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++n;
  }
  return n;
}

// Checks a recorded command against its expected layout: positions 2 and 4 by pattern (session
// id; timestamp or empty), every other position exactly.
void expectCommand(const std::vector<std::string>& actual, std::vector<std::string> expected,
                   bool stamped) {
  ASSERT_EQ(actual.size(), 11u);
  EXPECT_THAT(actual[2], MatchesRegex(kSessionIdPattern));
  if (stamped) {
    EXPECT_THAT(actual[4], MatchesRegex(kTimestampPattern));
  } else {
    EXPECT_EQ(actual[4], "");
  }
  expected[2] = actual[2];
  expected[4] = actual[4];
  EXPECT_EQ(actual, expected);
}

class BusIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("ZVR_LOG_LEVEL", "4000", 1); }

  void startBus(const std::vector<std::string>& options = {}, bool activatable = true) {
    bus_ = std::make_unique<PrivateBus>(options, activatable);
  }
  ZVRMediaProxyManager* manager() { return ZVRMediaProxyManager::getInstance(); }
  void expectSyncCreationSurvivesSegment(const std::string& segmentMode);

  std::unique_ptr<PrivateBus> bus_;
};

TEST_F(BusIntegrationTest, AsynchronousCommandsReachTheEmulatorAsExactMessages) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy = manager()->createNewZVRMediaProxy();
  ASSERT_EQ(proxy->id(), "zvr-1");

  proxy->start("file:///media/a.ts", 1);
  ASSERT_TRUE(CallbackRecorder::waitCalls(1, std::chrono::seconds(5)));
  ASSERT_TRUE(zvr_test::eventually([&] { return proxy->getState() == 2; }));
  proxy->seek(3.5, "chapter");
  proxy->pause();
  proxy->preload(1.25, "file:///media/b.ts", "two", "three");
  proxy->stop();
  manager()->requestRemoteObjectInspect();

  ASSERT_TRUE(bus_->waitRecorded(6, 5000));
  const std::vector<std::vector<std::string>> recorded = bus_->recordedCommands();
  ASSERT_EQ(recorded.size(), 6u);
  expectCommand(recorded[0], {"create", "", "", "", "", "", "", "", "", "", ""}, false);
  expectCommand(recorded[1],
                {"start", "", "", "zvr-1", "", "", "file:///media/a.ts", "", "", "1", ""}, true);
  expectCommand(recorded[2], {"seek", "", "", "zvr-1", "", "3.500000", "chapter", "", "", "", ""},
                true);
  expectCommand(
      recorded[3],
      {"preload", "", "", "zvr-1", "", "1.250000", "file:///media/b.ts", "two", "three", "", ""},
      true);
  expectCommand(recorded[4], {"stop", "", "", "zvr-1", "", "", "", "", "", "", ""}, true);
  expectCommand(recorded[5], {"inspect", "", "", "", "", "", "", "", "", "", ""}, false);
  EXPECT_EQ(CallbackRecorder::calls()[0].id, "zvr-1");
  EXPECT_EQ(CallbackRecorder::calls()[0].kind, "url");
  EXPECT_THAT(CallbackRecorder::calls()[0].value,
              MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/media/zvr-1"));
}

TEST_F(BusIntegrationTest, SynchronousCommandsReturnOnceTheirAnswersArrived) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxySync();
  const std::string id = proxy->id();
  EXPECT_THAT(id, MatchesRegex("zvr-[12]"));

  EXPECT_EQ(manager()->requestRemoteObjectStartSync(id, "file:///media/a.ts", 2), 0);
  EXPECT_EQ(proxy->getState(), 2);  // the answer was dispatched before the request returned
  EXPECT_EQ(manager()->requestRemoteObjectSeekSync(id, 0.5, "t"), 0);
  EXPECT_EQ(manager()->requestRemoteObjectPreloadSync(id, 2.0, "file:///media/b.ts", "x", "y"), 0);
  EXPECT_EQ(manager()->requestRemoteObjectStopSync(id), 0);
  EXPECT_EQ(manager()->requestRemoteObjectInspectSync(), 0);
  EXPECT_EQ(manager()->requestRemoteObjectPauseSync(id), 0);

  const std::vector<std::vector<std::string>> recorded = bus_->recordedCommands();
  ASSERT_EQ(recorded.size(), 7u);
  expectCommand(recorded[0], {"create", "", "", "", "", "", "", "", "", "", ""}, false);
  expectCommand(recorded[1], {"create", "", "", "", "", "", "", "", "", "", ""}, false);
  EXPECT_EQ(recorded[0][2], recorded[1][2]);  // the second create repeats the session id
  expectCommand(recorded[2], {"start", "", "", id, "", "", "file:///media/a.ts", "", "", "2", ""},
                true);
  expectCommand(recorded[3], {"seek", "", "", id, "", "0.500000", "t", "", "", "", ""}, true);
  expectCommand(recorded[4],
                {"preload", "", "", id, "", "2.000000", "file:///media/b.ts", "x", "y", "", ""},
                true);
  expectCommand(recorded[5], {"stop", "", "", id, "", "", "", "", "", "", ""}, true);
  expectCommand(recorded[6], {"inspect", "", "", "", "", "", "", "", "", "", ""}, false);
}

TEST_F(BusIntegrationTest, SynchronousStartThroughTheProxyMovesItToStartedBeforeReturning) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy = manager()->createNewZVRMediaProxySync();
  proxy->start("file:///media/a.ts", 1);
  EXPECT_EQ(proxy->getState(), 2);
  EXPECT_THAT(proxy->localURL(), HasSubstr("/media/" + proxy->id()));
}

TEST_F(BusIntegrationTest, SilentServiceMakesAsynchronousCreationRestartOnceAndReturnEmptyId) {
  startBus({"silent=all"});
  ASSERT_TRUE(bus_->startEmulator());
  ::testing::internal::CaptureStderr();
  const Clock::time_point begin = Clock::now();
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy();
  const double elapsed = secondsSince(begin);
  const std::string log = ::testing::internal::GetCapturedStderr();

  EXPECT_EQ(proxy->id(), "");
  EXPECT_EQ(manager()->findObjectById(""), proxy);
  EXPECT_GT(elapsed, 2.2);
  EXPECT_LT(elapsed, 8.0);
  EXPECT_EQ(occurrences(log, "Wait response timeout for id:"), 1);
  EXPECT_EQ(occurrences(log, "Wait response total timeout for id:"), 1);
  EXPECT_EQ(occurrences(log, "[model-access] service start: already running"), 1);
  // Every attempt sent one "create" with a session id of its own.
  const std::vector<std::vector<std::string>> recorded = bus_->recordedCommands();
  EXPECT_EQ(static_cast<int>(recorded.size()),
            occurrences(log, "createNewZVRMediaProxy(): enter\n"));
  for (std::size_t i = 1; i < recorded.size(); ++i) EXPECT_NE(recorded[i][2], recorded[0][2]);
}

TEST_F(BusIntegrationTest, NextCreationRestartsAnEmulatorThatExitedMidSession) {
  startBus({"exit-after=2"});
  ASSERT_TRUE(bus_->startEmulator());
  std::shared_ptr<velmora::ZVRMediaProxyObject> first = manager()->createNewZVRMediaProxy();
  EXPECT_EQ(first->id(), "zvr-1");
  first->stop();
  ASSERT_TRUE(bus_->waitEmulatorGone(5000));

  ::testing::internal::CaptureStderr();
  std::shared_ptr<velmora::ZVRMediaProxyObject> second = manager()->createNewZVRMediaProxy();
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(second->id(), "zvr-1");  // numbered by the new emulator
  EXPECT_EQ(occurrences(log, "[model-access] service start: started"), 1);
  EXPECT_EQ(occurrences(log, "Wait response total timeout"), 0);
}

// With an unreadable segment the synchronous waits cannot read any answer; the listener's
// "created" events still fill the response ids, so the proxy gets the id of the last one.
void BusIntegrationTest::expectSyncCreationSurvivesSegment(const std::string& segmentMode) {
  startBus({"segment=" + segmentMode});
  ASSERT_TRUE(bus_->startEmulator());
  ::testing::internal::CaptureStderr();
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxySync();
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(proxy->id(), MatchesRegex("zvr-[0-9]+"));
  EXPECT_GE(occurrences(log, "Fail to parse json string:"), 1);
  EXPECT_GE(occurrences(log, "Task timeout: 250/250"), 2);
  EXPECT_EQ(occurrences(log, "Wait response timeout for id:"), 1);
}

TEST_F(BusIntegrationTest, MalformedJsonInTheSegmentTimesOutTheWaitsWithoutACrash) {
  expectSyncCreationSurvivesSegment("malformed");
}

TEST_F(BusIntegrationTest, SegmentWithoutTerminatorTimesOutTheWaitsWithoutACrash) {
  expectSyncCreationSurvivesSegment("no-terminator");
}

TEST_F(BusIntegrationTest, AnswerSlowerThanTheWaitReturnsMinusOneAndStillReachesTheProxy) {
  startBus({"delay=start:400", "delay=stop:400"});
  ASSERT_TRUE(bus_->startEmulator());
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxySync();
  const std::string id = proxy->id();

  const Clock::time_point begin = Clock::now();
  proxy->start("file:///media/a.ts", 1);  // sync mode: waits 250 ms in vain
  EXPECT_GT(secondsSince(begin), 0.2);
  EXPECT_EQ(proxy->getState(), 1);
  ASSERT_TRUE(CallbackRecorder::waitCalls(1, std::chrono::seconds(5)));
  EXPECT_EQ(CallbackRecorder::calls()[0].kind, "url");
  EXPECT_TRUE(zvr_test::eventually([&] { return proxy->getState() == 2; }));

  EXPECT_EQ(manager()->requestRemoteObjectStopSync(id), -1);
}

TEST_F(BusIntegrationTest, EventEmittedByAStockToolReachesTheApplicationCallback) {
  startBus({}, false);
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy("abc");
  proxy->start("file:///media/a.ts", 1);  // no service: the command fails fast
  ASSERT_EQ(proxy->getState(), 1);

  ASSERT_EQ(bus_->run("dbus-send --bus=\"$ZVR_DBUS_ADDRESS\" --type=signal "
                      "/velmora/zvr/MediaService velmora.zvr.ModelAccess.Event "
                      "array:string:started,200,ses-tool,abc,-,-,http://127.0.0.1:1/tool"),
            0);
  ASSERT_TRUE(CallbackRecorder::waitCalls(1, std::chrono::seconds(5)));
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{"abc", "url", "http://127.0.0.1:1/tool"}));
  EXPECT_EQ(proxy->getState(), 2);
}

TEST_F(BusIntegrationTest, WithoutServiceEveryCallFailsFast) {
  startBus({}, false);
  ::testing::internal::CaptureStderr();
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy("abc");
  const Clock::time_point begin = Clock::now();
  proxy->start("file:///media/a.ts", 1);
  proxy->stop();
  EXPECT_EQ(manager()->requestStartZVRService(), -1);
  const double elapsed = secondsSince(begin);
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_LT(elapsed, 1.5);
  EXPECT_EQ(occurrences(log, "[model-access] no media service on the bus"), 2);
  EXPECT_EQ(occurrences(log, "[model-access] cannot start the media service"), 1);
}

TEST_F(BusIntegrationTest, ModelAccessReportsTheServiceAppearing) {
  startBus();
  RecordingClient client;
  velmora::ZVRModelAccess access(&client);
  ASSERT_EQ(access.start(), 0);
  ASSERT_EQ(access.startEventListener(), 0);
  EXPECT_EQ(client.connected.load(), 0);
  ASSERT_TRUE(bus_->startEmulator());
  EXPECT_TRUE(zvr_test::eventually([&] { return client.connected.load() == 1; }));
}

TEST_F(BusIntegrationTest, ModelAccessDeliversRecordsWithTheLengthTheSenderGave) {
  startBus({}, false);
  RecordingClient client;
  velmora::ZVRModelAccess access(&client);
  ASSERT_EQ(access.start(), 0);
  ASSERT_EQ(access.startEventListener(), 0);
  ASSERT_EQ(bus_->run("dbus-send --bus=\"$ZVR_DBUS_ADDRESS\" --type=signal "
                      "/velmora/zvr/MediaService velmora.zvr.ModelAccess.Event "
                      "array:string:seeked,200,ses-1"),
            0);
  ASSERT_TRUE(zvr_test::eventually([&] { return client.received().size() == 1; }));
  EXPECT_EQ(client.received()[0], (std::vector<std::string>{"seeked", "200", "ses-1"}));
}

TEST_F(BusIntegrationTest, ModelAccessDropsAnEventThatIsNotAListOfStrings) {
  startBus({}, false);
  RecordingClient client;
  velmora::ZVRModelAccess access(&client);
  ASSERT_EQ(access.start(), 0);
  ASSERT_EQ(access.startEventListener(), 0);
  ASSERT_EQ(bus_->run("dbus-send --bus=\"$ZVR_DBUS_ADDRESS\" --type=signal "
                      "/velmora/zvr/MediaService velmora.zvr.ModelAccess.Event int32:7"),
            0);
  ASSERT_EQ(bus_->run("dbus-send --bus=\"$ZVR_DBUS_ADDRESS\" --type=signal "
                      "/velmora/zvr/MediaService velmora.zvr.ModelAccess.Event "
                      "array:string:status"),
            0);
  ASSERT_TRUE(zvr_test::eventually([&] { return client.received().size() == 1; }));
  EXPECT_EQ(client.received()[0], (std::vector<std::string>{"status"}));
}

TEST_F(BusIntegrationTest, ModelAccessWritesAndReadsTheServiceValues) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  RecordingClient client;
  velmora::ZVRModelAccess access(&client);
  ASSERT_EQ(access.start(), 0);
  const std::vector<std::string> reset = {"unknown", "", "", "", "", "", "", "", ""};
  EXPECT_EQ(access.setAccessValue("varek.sl2.vstr.videoplayer.zvr.event", reset), 0);
  std::vector<std::string> read;
  EXPECT_EQ(access.getAccessValue("varek.sl2.vstr.videoplayer.zvr.event", read), 0);
  EXPECT_EQ(read, reset);
  EXPECT_EQ(access.getAccessValue("no.such.key", read), -1);
}

// The emulator's fault modes, as tests and tools drive them from outside.

TEST_F(BusIntegrationTest, EmulatorAnswersWithTheResultCodeItWasGiven) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  ASSERT_TRUE(bus_->setOption("result=stop:503"));
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxySync();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(manager()->requestRemoteObjectStopSync(proxy->id()), 0);  // answered, not succeeded
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("Stopped Failed:  " + proxy->id() + ", 503 ,"));
}

TEST_F(BusIntegrationTest, EmulatorAnsweringTwiceDeliversEveryAnswerTwice) {
  startBus({"twice=1", "definition-delay=50"});
  ASSERT_TRUE(bus_->startEmulator());
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy("abc");
  proxy->start("file:///media/a.ts", 1);
  // Two "started": the first notifies the URL, the second finds the proxy started and stores it
  // silently. Two "definition": each is notified.
  ASSERT_TRUE(CallbackRecorder::waitCalls(3, std::chrono::seconds(5)));
  const std::vector<Notification> calls = CallbackRecorder::calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].kind, "url");
  EXPECT_EQ(calls[1], (Notification{"abc", "definitions", "SD,HD,FHD"}));
  EXPECT_EQ(calls[2], (Notification{"abc", "definitions", "SD,HD,FHD"}));
}

TEST_F(BusIntegrationTest, EmulatorWithAStaleSessionIdLeavesSynchronousWaitsUnanswered) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxySync();
  ASSERT_TRUE(bus_->setOption("stale-session=1"));
  EXPECT_EQ(manager()->requestRemoteObjectSeekSync(proxy->id(), 1.0, ""), -1);
  EXPECT_EQ(manager()->requestRemoteObjectInspectSync(), -1);
}

TEST_F(BusIntegrationTest, EmulatorThatRefusesToStartLeavesTheServiceAbsent) {
  startBus({"refuse-start=1"});
  EXPECT_FALSE(bus_->startEmulator());
  EXPECT_EQ(manager()->requestStartZVRService(), -1);
  EXPECT_FALSE(bus_->emulatorRunning());
}

TEST_F(BusIntegrationTest, EmulatorRemovingTheSegmentMakesTheNextMappingFail) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  ASSERT_EQ(manager()->checkZVREventMemory(), 0);
  ASSERT_TRUE(bus_->setOption("remove-segment"));
  EXPECT_EQ(manager()->checkZVREventMemory(), -1);
}

TEST_F(BusIntegrationTest, EmulatorRejectsAnUnknownOption) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  EXPECT_FALSE(bus_->setOption("no-such-option=1"));
  EXPECT_FALSE(bus_->setOption("delay=start:soon"));
}

}  // namespace
