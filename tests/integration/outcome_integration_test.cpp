// The outcome listeners and counters against the media service: a refused start reaches the
// host with the service's own code and detail, promptly, and zvrctl shows it and stops waiting.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

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
