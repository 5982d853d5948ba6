// The library over the real D-Bus model access, against the media-service emulator on a private
// bus. Each test runs in a process of its own with a bus of its own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <regex>
#include <set>
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
// Object ids carry a token of the emulator run that handed them out.
const char kFirstObjectIdPattern[] = "zvr-[0-9a-f]{8}-1";
// The emulator plays real media only; these are generated at build time.
const std::string kClipA = "file://" ZVR_TEST_MEDIA_DIR "/clip.ts";
const std::string kClipB = "file://" ZVR_TEST_MEDIA_DIR "/clip.webm";

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
  const std::string id = proxy->id();
  ASSERT_THAT(id, MatchesRegex(kFirstObjectIdPattern));

  proxy->start(kClipA, 1);
  ASSERT_TRUE(CallbackRecorder::waitCalls(1, std::chrono::seconds(5)));
  ASSERT_TRUE(zvr_test::eventually([&] { return proxy->getState() == 2; }));
  proxy->seek(3.5, "chapter");
  proxy->pause();
  proxy->preload(1.25, kClipB, "two", "three");
  proxy->stop();
  manager()->requestRemoteObjectInspect();

  ASSERT_TRUE(bus_->waitRecorded(6, 5000));
  const std::vector<std::vector<std::string>> recorded = bus_->recordedCommands();
  ASSERT_EQ(recorded.size(), 6u);
  expectCommand(recorded[0], {"create", "", "", "", "", "", "", "", "", "", ""}, false);
  expectCommand(recorded[1], {"start", "", "", id, "", "", kClipA, "", "", "1", ""}, true);
  expectCommand(recorded[2], {"seek", "", "", id, "", "3.500000", "chapter", "", "", "", ""}, true);
  expectCommand(recorded[3],
                {"preload", "", "", id, "", "1.250000", kClipB, "two", "three", "", ""}, true);
  expectCommand(recorded[4], {"stop", "", "", id, "", "", "", "", "", "", ""}, true);
  expectCommand(recorded[5], {"inspect", "", "", "", "", "", "", "", "", "", ""}, false);
  EXPECT_EQ(CallbackRecorder::calls()[0].id, id);
  EXPECT_EQ(CallbackRecorder::calls()[0].kind, "url");
  EXPECT_THAT(CallbackRecorder::calls()[0].value,
              MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/media/" + id + "/[0-9a-f]{16}"));
}

TEST_F(BusIntegrationTest, SynchronousCommandsReturnOnceTheirAnswersArrived) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxySync();
  const std::string id = proxy->id();
  EXPECT_THAT(id, MatchesRegex("zvr-[0-9a-f]{8}-[12]"));

  EXPECT_EQ(manager()->requestRemoteObjectStartSync(id, kClipA, 2), 0);
  EXPECT_EQ(proxy->getState(), 2);  // the answer was dispatched before the request returned
  EXPECT_EQ(manager()->requestRemoteObjectSeekSync(id, 0.5, "t"), 0);
  EXPECT_EQ(manager()->requestRemoteObjectPreloadSync(id, 2.0, kClipB, "x", "y"), 0);
  EXPECT_EQ(manager()->requestRemoteObjectStopSync(id), 0);
  EXPECT_EQ(manager()->requestRemoteObjectInspectSync(), 0);
  EXPECT_EQ(manager()->requestRemoteObjectPauseSync(id), 0);

  const std::vector<std::vector<std::string>> recorded = bus_->recordedCommands();
  ASSERT_EQ(recorded.size(), 7u);
  expectCommand(recorded[0], {"create", "", "", "", "", "", "", "", "", "", ""}, false);
  expectCommand(recorded[1], {"create", "", "", "", "", "", "", "", "", "", ""}, false);
  EXPECT_EQ(recorded[0][2], recorded[1][2]);  // the second create repeats the session id
  expectCommand(recorded[2], {"start", "", "", id, "", "", kClipA, "", "", "2", ""}, true);
  expectCommand(recorded[3], {"seek", "", "", id, "", "0.500000", "t", "", "", "", ""}, true);
  expectCommand(recorded[4], {"preload", "", "", id, "", "2.000000", kClipB, "x", "y", "", ""},
                true);
  expectCommand(recorded[5], {"stop", "", "", id, "", "", "", "", "", "", ""}, true);
  expectCommand(recorded[6], {"inspect", "", "", "", "", "", "", "", "", "", ""}, false);
}

TEST_F(BusIntegrationTest, SynchronousStartThroughTheProxyMovesItToStartedBeforeReturning) {
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy = manager()->createNewZVRMediaProxySync();
  proxy->start(kClipA, 1);
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
  EXPECT_THAT(first->id(), MatchesRegex(kFirstObjectIdPattern));
  first->stop();
  ASSERT_TRUE(bus_->waitEmulatorGone(5000));

  ::testing::internal::CaptureStderr();
  std::shared_ptr<velmora::ZVRMediaProxyObject> second = manager()->createNewZVRMediaProxy();
  const std::string log = ::testing::internal::GetCapturedStderr();
  // Numbered by the new emulator, under a token of its own.
  EXPECT_THAT(second->id(), MatchesRegex(kFirstObjectIdPattern));
  EXPECT_NE(second->id(), first->id());
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
  EXPECT_THAT(proxy->id(), MatchesRegex("zvr-[0-9a-f]{8}-[0-9]+"));
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
  proxy->start(kClipA, 1);  // sync mode: waits 250 ms in vain
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
  proxy->start(kClipA, 1);  // no service: the command fails fast
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
  proxy->start(kClipA, 1);
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
  startBus({"twice=1", "definition-delay=50", "definitions=SD,HD,FHD"});
  ASSERT_TRUE(bus_->startEmulator());
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy("abc");
  proxy->start(kClipA, 1);
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

TEST_F(BusIntegrationTest, EmulatorRunsNeverHandOutTheSameId) {
  startBus({"exit-after=1"});
  std::set<std::string> ids;
  for (int run = 0; run < 3; ++run) {
    ASSERT_TRUE(bus_->startEmulator());
    const std::string id = manager()->createNewZVRMediaProxy()->id();
    EXPECT_THAT(id, MatchesRegex(kFirstObjectIdPattern));
    ids.insert(id);
    ASSERT_TRUE(bus_->waitEmulatorGone(5000));
  }
  EXPECT_EQ(ids.size(), 3u);
}

// The mode and group of "/ZVR_PROXY" as the emulator left them.
struct stat segmentStatus() {
  struct stat status {};
  const int fd = shm_open("/ZVR_PROXY", O_RDONLY, 0);
  if (fd >= 0) {
    fstat(fd, &status);
    close(fd);
  }
  return status;
}

TEST_F(BusIntegrationTest, EmulatorCreatesTheSegmentWithMode0660WhateverTheUmask) {
  const mode_t previous = umask(0);
  startBus();
  const bool started = bus_->startEmulator();
  umask(previous);
  ASSERT_TRUE(started);
  EXPECT_EQ(segmentStatus().st_mode & 07777, 0660u);
}

TEST_F(BusIntegrationTest, EmulatorFixesTheModeOfAWorldWritableSegmentItReuses) {
  const int fd = shm_open("/ZVR_PROXY", O_RDWR | O_CREAT, 0666);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(fchmod(fd, 0666), 0);
  close(fd);
  startBus();
  ASSERT_TRUE(bus_->startEmulator());
  EXPECT_EQ(segmentStatus().st_mode & 07777, 0660u);
  ASSERT_EQ(manager()->checkZVREventMemory(), 0);  // still the one segment the host maps
}

// A group the segment can be given that differs from the emulator's own when there is one:
// a supplementary group of this user, or any group for root.
std::string groupForTheSegment() {
  std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
  groups.resize(static_cast<std::size_t>(
      std::max(getgroups(static_cast<int>(groups.size()), groups.data()), 0)));
  if (geteuid() == 0) groups.insert(groups.begin(), {1, 2});  // daemon, bin on Debian
  for (gid_t gid : groups) {
    if (gid == getegid()) continue;
    if (const group* entry = getgrgid(gid)) return entry->gr_name;
  }
  const group* own = getgrgid(getegid());
  return own != nullptr ? own->gr_name : std::string();
}

TEST_F(BusIntegrationTest, EmulatorGivesTheSegmentTheGroupItIsNamed) {
  const std::string name = groupForTheSegment();
  ASSERT_FALSE(name.empty());
  startBus({"segment-group=" + name});
  ASSERT_TRUE(bus_->startEmulator());
  const struct stat status = segmentStatus();
  EXPECT_EQ(status.st_gid, getgrnam(name.c_str())->gr_gid);
  EXPECT_EQ(status.st_mode & 07777, 0660u);
}

TEST_F(BusIntegrationTest, EmulatorWithAnUnknownSegmentGroupDoesNotStart) {
  startBus({"segment-group=zvr-no-such-group"});
  EXPECT_FALSE(bus_->startEmulator());
  EXPECT_FALSE(bus_->emulatorRunning());
}

}  // namespace
