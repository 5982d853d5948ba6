// The outcome listeners and counters against the media service: a refused start reaches the
// host with the service's own code and detail, promptly, and zvrctl shows it and stops waiting.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "outcome_recorder.h"
#include "private_bus.h"
#include "test_support.h"
#include "zvr_media_proxy_diagnostics.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using ::testing::HasSubstr;
using velmora::ZVROutcome;
using zvr_test::OutcomeRecorder;
using zvr_test::PrivateBus;
using Clock = std::chrono::steady_clock;

const std::string kMissing = "file://" ZVR_TEST_MEDIA_DIR "/missing.webm";
const std::string kClip = "file://" ZVR_TEST_MEDIA_DIR "/clip.webm";

std::string readFile(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

class OutcomeIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ZVR_LOG_LEVEL", "0", 1);
    bus_ = std::make_unique<PrivateBus>();
    ASSERT_TRUE(bus_->startEmulator());
  }
  std::unique_ptr<PrivateBus> bus_;
};

TEST_F(OutcomeIntegrationTest, AStartOfAMissingFileReachesTheListenerWithinATenthOfASecond) {
  OutcomeRecorder outcomes;
  velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy = manager->createNewZVRMediaProxy();
  ASSERT_NE(proxy->id(), "");

  const double startedAt = zvr_test::monotonicSeconds();
  proxy->start(kMissing, 1);
  ASSERT_TRUE(outcomes.waitCount(1, std::chrono::milliseconds(5000)));
  const zvr_test::RecordedOutcome r = outcomes.all()[0];
  EXPECT_EQ(r.outcome.kind, ZVROutcome::kFailedAnswer);
  EXPECT_EQ(r.outcome.name, "started");
  EXPECT_EQ(r.outcome.proxyId, proxy->id());
  EXPECT_EQ(r.outcome.proxy, proxy.get());
  EXPECT_EQ(r.outcome.code, "404");
  EXPECT_THAT(r.outcome.detail, HasSubstr("missing.webm"));
  // The answer arrived when the outcome arose; the listener had it within 100 ms of that.
  EXPECT_LT(r.deliveredAt - r.outcome.time, 0.1);
  EXPECT_LT(r.deliveredAt - startedAt, 0.3);  // the service answers a local file at once

  const auto counters = velmora::getZVRProxyCounters(proxy);
  EXPECT_EQ(counters->commandsSent.at("start"), 1u);
  EXPECT_EQ(counters->failures.at("started"), 1u);
  EXPECT_EQ(counters->lastFailureCode, "404");
  EXPECT_EQ(velmora::getZVRProcessCounters()->creationsSucceeded, 1u);
}

// Waits for `count` outcomes and returns them.
std::vector<ZVROutcome> waitOutcomes(const OutcomeRecorder& outcomes, std::size_t count) {
  EXPECT_TRUE(outcomes.waitCount(count, std::chrono::milliseconds(10000)))
      << ::testing::PrintToString(outcomes.outcomes());
  return outcomes.outcomes();
}

uint64_t countOf(const std::map<std::string, uint64_t>& counts, const std::string& name) {
  auto it = counts.find(name);
  return it != counts.end() ? it->second : 0;
}

TEST_F(OutcomeIntegrationTest, EveryKindOfFailedAnswerCarriesTheServicesCodeAndDetail) {
  velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy = manager->createNewZVRMediaProxy();
  ASSERT_NE(proxy->id(), "");
  proxy->start(kClip, 1);
  ASSERT_TRUE(zvr_test::eventually([&] { return !proxy->localURL().empty(); }));
  // The seek is checked against the probed duration once the definitions came.
  ASSERT_TRUE(zvr_test::eventually([&] {
    return countOf(velmora::getZVRProxyCounters(proxy)->eventsReceived, "definition") == 1;
  }));
  OutcomeRecorder outcomes;

  proxy->seek(99, "");
  std::vector<ZVROutcome> seen = waitOutcomes(outcomes, 1);
  EXPECT_EQ(seen[0].name, "seeked");
  EXPECT_EQ(seen[0].code, "416");
  EXPECT_THAT(seen[0].detail, HasSubstr("99"));
  EXPECT_EQ(seen[0].proxy, proxy.get());

  ASSERT_TRUE(bus_->setOption("result=stop:500"));
  proxy->stop();
  seen = waitOutcomes(outcomes, 2);
  EXPECT_EQ(seen[1].name, "stopped");
  EXPECT_EQ(seen[1].code, "500");
  EXPECT_EQ(seen[1].proxyId, proxy->id());

  // A refused creation: the failed answer, the restart after 0.2 s, and the empty creation.
  ASSERT_TRUE(bus_->setOption("result=create:503"));
  std::shared_ptr<velmora::ZVRMediaProxyInterface> refused = manager->createNewZVRMediaProxy();
  EXPECT_EQ(refused->id(), "");
  // Each attempt's "create" is refused; the answer to the last may come after the creation gave
  // up. The restart follows the first refusal and comes before the empty creation.
  auto position = [&outcomes](ZVROutcome::Kind kind) {
    const std::vector<ZVROutcome> all = outcomes.outcomes();
    for (std::size_t i = 2; i < all.size(); ++i) {
      if (all[i].kind == kind) return static_cast<int>(i);
    }
    return -1;
  };
  ASSERT_TRUE(zvr_test::eventually([&] { return position(ZVROutcome::kCreationEmpty) > 0; }))
      << ::testing::PrintToString(outcomes.outcomes());
  seen = outcomes.outcomes();
  const int refusal = position(ZVROutcome::kFailedAnswer);
  const int restart = position(ZVROutcome::kServiceRestart);
  const int empty = position(ZVROutcome::kCreationEmpty);
  EXPECT_EQ(refusal, 2) << ::testing::PrintToString(seen);
  EXPECT_LT(refusal, restart);
  EXPECT_LT(restart, empty);
  int restarts = 0;
  for (std::size_t i = 2; i < seen.size(); ++i) {
    restarts += seen[i].kind == ZVROutcome::kServiceRestart;
    if (seen[i].kind == ZVROutcome::kFailedAnswer) {
      EXPECT_EQ(seen[i].name, "created");
      EXPECT_EQ(seen[i].code, "503");
      EXPECT_THAT(seen[i].sessionId, ::testing::StartsWith("ses-"));
    }
  }
  EXPECT_EQ(restarts, 1);
  EXPECT_EQ(seen[empty].name, "create");

  const auto counters = velmora::getZVRProxyCounters(proxy);
  EXPECT_EQ(counters->commandsSent,
            (std::map<std::string, uint64_t>{{"seek", 1}, {"start", 1}, {"stop", 1}}));
  EXPECT_EQ(counters->failures, (std::map<std::string, uint64_t>{{"seeked", 1}, {"stopped", 1}}));
  EXPECT_EQ(counters->lastFailureName, "stopped");
  EXPECT_EQ(counters->lastFailureCode, "500");
  const auto process = velmora::getZVRProcessCounters();
  EXPECT_EQ(process->creationsTried, 2u);
  EXPECT_EQ(process->creationsSucceeded, 1u);
  EXPECT_EQ(process->creationsEmpty, 1u);
  EXPECT_EQ(process->serviceRestarts, 1u);
  EXPECT_GE(process->creationAttempts, 3u);
  EXPECT_EQ(process->creationAttempts,
            bus_->recordedCommands().size() - 3);  // less start, seek, stop
  EXPECT_GE(process->listenerDeliveries, seen.size());
}

// In sync mode each answer is dispatched twice (by the wait and by the listener) and reported
// once; a wait that runs out names its command and proxy; a segment that cannot be parsed is
// counted.
TEST_F(OutcomeIntegrationTest, SynchronousModeReportsEachFailureOnceAndEveryWaitThatRanOut) {
  velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy = manager->createNewZVRMediaProxySync();
  ASSERT_NE(proxy->id(), "");
  EXPECT_GE(velmora::getZVRProcessCounters()->segmentMappings, 1u);
  OutcomeRecorder outcomes;

  proxy->start(kMissing, 1);
  std::vector<ZVROutcome> seen = waitOutcomes(outcomes, 1);
  EXPECT_EQ(seen[0].name, "started");
  EXPECT_EQ(seen[0].code, "404");
  ASSERT_TRUE(zvr_test::eventually([&] {
    return countOf(velmora::getZVRProxyCounters(proxy)->eventsReceived, "started") == 2;
  }));
  EXPECT_FALSE(outcomes.waitCount(2, std::chrono::milliseconds(300)));
  EXPECT_EQ(countOf(velmora::getZVRProxyCounters(proxy)->failures, "started"), 1u);

  ASSERT_TRUE(bus_->setOption("silent=stop"));
  proxy->stop();
  seen = waitOutcomes(outcomes, 2);
  EXPECT_EQ(seen[1].kind, ZVROutcome::kWaitTimedOut);
  EXPECT_EQ(seen[1].name, "stop");
  EXPECT_EQ(seen[1].proxyId, proxy->id());
  EXPECT_EQ(seen[1].proxy, proxy.get());
  EXPECT_EQ(velmora::getZVRProxyCounters(proxy)->waitsTimedOut, 1u);

  // The answer is written into the segment as text that is no JSON: the wait cannot read it.
  ASSERT_TRUE(bus_->setOption("segment=malformed"));
  ASSERT_TRUE(bus_->setOption("answer=stop"));
  const uint64_t failuresBefore = velmora::getZVRProcessCounters()->segmentParseFailures;
  proxy->start(kClip, 1);  // the proxy is idle after its stop, so a seek would not be sent
  EXPECT_GT(velmora::getZVRProcessCounters()->segmentParseFailures, failuresBefore);
}

// Another host's players on the same service: their records reach this process too, which
// counts them as reaching no proxy and still reports their failures, without a handle.
TEST_F(OutcomeIntegrationTest, RecordsForAnotherHostsPlayersAreUnroutedAndTheirFailuresReported) {
  velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
  ASSERT_NE(manager->createNewZVRMediaProxy()->id(), "");  // this process listens
  OutcomeRecorder outcomes;
  const std::string script = bus_->folder() + "/script.txt";
  std::ofstream(script) << "create\nstart $last " << kMissing << "\n";
  bus_->run("ZVR_LOG_LEVEL=0 " ZVR_ZVRCTL_PATH " - < " + script + " > /dev/null 2>&1");

  std::vector<ZVROutcome> seen = waitOutcomes(outcomes, 1);
  EXPECT_EQ(seen[0].kind, ZVROutcome::kFailedAnswer);
  EXPECT_EQ(seen[0].name, "started");
  EXPECT_EQ(seen[0].code, "404");
  EXPECT_THAT(seen[0].proxyId, ::testing::StartsWith("zvr-"));
  EXPECT_EQ(seen[0].proxy, nullptr);
  EXPECT_TRUE(
      zvr_test::eventually([] { return velmora::getZVRProcessCounters()->unroutedRecords >= 1; }));
}

TEST_F(OutcomeIntegrationTest, ZvrctlPrintsTheOutcomeAndEndsWaitUrlAtOnce) {
  const std::string script = bus_->folder() + "/script.txt";
  const std::string output = bus_->folder() + "/output.txt";
  std::ofstream(script) << "create\nstart $last " << kMissing << "\nwait-url $last 10000\n";
  const Clock::time_point begin = Clock::now();
  const int status =
      bus_->run("ZVR_LOG_LEVEL=0 " ZVR_ZVRCTL_PATH " - < " + script + " > " + output + " 2>&1");
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  const std::string printed = readFile(output);
  EXPECT_EQ(status, 1) << printed;
  EXPECT_LT(seconds, 5.0) << printed;  // far from the wait's 10 s
  EXPECT_THAT(printed, ::testing::ContainsRegex("outcome zvr-[0-9a-f]+-1 started 404 .*missing"));
  EXPECT_THAT(printed, HasSubstr("start failed: outcome"));
}

TEST_F(OutcomeIntegrationTest, ZvrctlStatsShowsTheCountersOfAProxy) {
  const std::string script = bus_->folder() + "/script.txt";
  const std::string output = bus_->folder() + "/output.txt";
  std::ofstream(script) << "create\nstart $last " << kClip << "\nwait-url $last\nstop $last\n"
                        << "sleep 200\nstats $last\n";
  const int status =
      bus_->run("ZVR_LOG_LEVEL=0 " ZVR_ZVRCTL_PATH " - < " + script + " > " + output + " 2>&1");
  const std::string printed = readFile(output);
  EXPECT_EQ(status, 0) << printed;
  EXPECT_THAT(printed, HasSubstr("process: creations tried=1 succeeded=1 empty=0 attempts=1"));
  EXPECT_THAT(printed, HasSubstr("commands sent: start=1 stop=1"));
  EXPECT_THAT(printed, ::testing::ContainsRegex("events received: .*started=1.*stopped=1"));
}

}  // namespace
