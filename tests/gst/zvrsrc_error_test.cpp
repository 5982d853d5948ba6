// zvrsrc's errors: each is a RESOURCE error with a readable message, posted within its bound,
// and the pipeline goes to NULL within 500 ms afterwards; teardowns while the service has not
// answered yet return at once and discard the late answer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "gst_test_support.h"
#include "test_support.h"
#include "zvr_media_proxy_diagnostics.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Lt;
using zvr_test::clipUri;
using zvr_test::Clock;
using zvr_test::Playback;
using zvr_test::PostedError;
using namespace std::chrono_literals;

using ZvrSrcErrorTest = zvr_test::ZvrGstTest;

constexpr auto kNullBound = 500ms;

double monotonicSeconds(Clock::time_point t) {
  return std::chrono::duration<double>(t.time_since_epoch()).count();
}

// The library's failed "started" answers, with the time each arose.
struct StartFailures {
  static void listener(const velmora::ZVROutcome& outcome, void* self) {
    if (outcome.kind != velmora::ZVROutcome::kFailedAnswer || outcome.name != "started") return;
    auto* s = static_cast<StartFailures*>(self);
    std::lock_guard<std::mutex> lock(s->mutex);
    s->seen = true;
    s->time = outcome.time;
    s->code = outcome.code;
    s->detail = outcome.detail;
  }
  std::mutex mutex;
  bool seen = false;
  double time = 0;
  std::string code, detail;
};

TEST_F(ZvrSrcErrorTest, NoServiceIsAnErrorNamingTheService) {
  startService({}, /*activatable=*/false);
  Playback playback(clipUri("clip.webm"));
  const auto begin = Clock::now();
  EXPECT_EQ(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  PostedError error;
  // The library gives up on a silent service after a little more than 2.2 s.
  ASSERT_TRUE(playback.waitError(7500ms, &error));
  EXPECT_THAT(Clock::now() - begin, Lt(7500ms));
  EXPECT_TRUE(error.resourceDomain);
  EXPECT_THAT(error.message, HasSubstr("velmora.zvr.MediaService"));
  EXPECT_THAT(error.message, HasSubstr("No media service"));
  EXPECT_THAT(playback.timedSetState(GST_STATE_NULL), Lt(kNullBound));
}

TEST_F(ZvrSrcErrorTest, RefusedStartCarriesTheServicesCodeAndDetailWithinAHundredMs) {
  startService();
  StartFailures failures;
  ASSERT_TRUE(velmora::addZVROutcomeListener(&StartFailures::listener, &failures));
  Playback playback("zvr+file:///nonexistent/folder/missing.webm");
  EXPECT_EQ(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  PostedError error;
  ASSERT_TRUE(playback.waitError(5s, &error));
  ASSERT_TRUE(zvr_test::eventually([&failures] {
    std::lock_guard<std::mutex> lock(failures.mutex);
    return failures.seen;
  }));
  velmora::removeZVROutcomeListener(&StartFailures::listener, &failures);
  EXPECT_TRUE(error.resourceDomain);
  EXPECT_EQ(error.domainCode, GST_RESOURCE_ERROR_NOT_FOUND);
  EXPECT_EQ(failures.code, "404");
  EXPECT_THAT(error.message, HasSubstr("code 404"));
  EXPECT_FALSE(failures.detail.empty());
  EXPECT_THAT(error.message, HasSubstr(failures.detail));
  EXPECT_LT(monotonicSeconds(error.at) - failures.time, 0.1);
  EXPECT_THAT(playback.timedSetState(GST_STATE_NULL), Lt(kNullBound));
}

TEST_F(ZvrSrcErrorTest, NoUrlWithinTheTimeoutIsAnError) {
  startService({"silent=start"});
  Playback playback(clipUri("clip.webm"), false, /*timeoutMs=*/400);
  const auto begin = Clock::now();
  EXPECT_EQ(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  PostedError error;
  ASSERT_TRUE(playback.waitError(5s, &error));
  const auto took = error.at - begin;
  EXPECT_GE(took, 400ms);
  EXPECT_LT(took, 1200ms);
  EXPECT_TRUE(error.resourceDomain);
  EXPECT_THAT(error.message, HasSubstr("no local URL"));
  EXPECT_THAT(error.message, HasSubstr("400 ms"));
  EXPECT_THAT(playback.timedSetState(GST_STATE_NULL), Lt(kNullBound));
}

TEST_F(ZvrSrcErrorTest, ServiceDyingMidPlayIsAnError) {
  // Throttled, so that the clip is still being read when the service dies.
  startService({"throttle=40000"});
  Playback playback(clipUri("clip.webm"));
  ASSERT_NE(playback.setState(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(playback.waitFrames(1, 10s));
  ASSERT_LT(playback.videoFrames(), 90);
  const int pid = bus_->emulatorPid();
  ASSERT_GT(pid, 0);
  const auto killed = Clock::now();
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  PostedError error;
  ASSERT_TRUE(playback.waitError(5s, &error));
  EXPECT_LT(error.at - killed, 3s);
  EXPECT_TRUE(error.resourceDomain);
  EXPECT_THAT(error.message, HasSubstr("stream for proxy zvr-"));
  EXPECT_THAT(error.message, HasSubstr("broke"));
  EXPECT_THAT(playback.timedSetState(GST_STATE_NULL), Lt(kNullBound));
  EXPECT_LT(playback.videoFrames(), 90);
}

TEST_F(ZvrSrcErrorTest, StreamBreakingMidPlayIsAnError) {
  // The connection closes after 30 kB, and a resumption with a range gets the whole body again.
  startService({"cut-after=30000", "no-range=1"});
  Playback playback(clipUri("clip.webm"));
  const auto begin = Clock::now();
  ASSERT_NE(playback.setState(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  PostedError error;
  ASSERT_TRUE(playback.waitError(10s, &error));
  EXPECT_LT(error.at - begin, 3s);
  EXPECT_TRUE(error.resourceDomain);
  EXPECT_THAT(error.message, HasSubstr("broke"));
  EXPECT_THAT(playback.timedSetState(GST_STATE_NULL), Lt(kNullBound));
  EXPECT_LT(playback.videoFrames(), 90);
}

TEST_F(ZvrSrcErrorTest, TeardownWhileTheUrlIsAwaitedReturnsAtOnceAndStopsTheProxy) {
  startService({"silent=start"});
  Playback playback(clipUri("clip.webm"));
  EXPECT_EQ(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  ASSERT_TRUE(bus_->waitRecorded(2, 5000));  // create, start
  EXPECT_THAT(playback.timedSetState(GST_STATE_NULL), Lt(kNullBound));
  ASSERT_TRUE(bus_->waitRecorded(3, 5000));
  EXPECT_EQ(bus_->recordedCommands()[2][0], "stop");
  EXPECT_FALSE(playback.waitError(0ms, nullptr));
}

std::uint64_t creationsSucceeded() { return velmora::getZVRProcessCounters()->creationsSucceeded; }

std::uint64_t creationsTried() { return velmora::getZVRProcessCounters()->creationsTried; }

TEST_F(ZvrSrcErrorTest, TeardownWhileTheCreationIsInFlightReturnsAtOnceAndDiscardsItsResult) {
  // Answered after 1.5 s, three times the bound of the teardown: a teardown that waited for the
  // creation would take that long.
  startService({"delay=create:1500"});
  const std::uint64_t before = creationsSucceeded();
  Playback playback(clipUri("clip.webm"));
  const auto begin = Clock::now();
  EXPECT_EQ(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  EXPECT_LT(Clock::now() - begin, 100ms);
  ASSERT_TRUE(bus_->waitRecorded(1, 5000));  // create
  EXPECT_THAT(playback.timedSetState(GST_STATE_NULL), Lt(kNullBound));
  // The creation ends with an id after the teardown; no start follows it.
  ASSERT_TRUE(zvr_test::eventually([before] { return creationsSucceeded() > before; }, 5000ms));
  EXPECT_FALSE(zvr_test::eventually(
      [this] {
        for (const auto& command : bus_->recordedCommands()) {
          if (!command.empty() && command[0] == "start") return true;
        }
        return false;
      },
      500ms));
  EXPECT_FALSE(playback.waitError(0ms, nullptr));
  EXPECT_EQ(playback.sourceProperty("proxy-id"), "");
}

TEST_F(ZvrSrcErrorTest, TimeoutAlsoBoundsTheCreation) {
  // Without a service the creation takes a little more than 2.2 s.
  startService({}, /*activatable=*/false);
  Playback playback(clipUri("clip.webm"), false, /*timeoutMs=*/400);
  const auto begin = Clock::now();
  EXPECT_EQ(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  PostedError error;
  ASSERT_TRUE(playback.waitError(5s, &error));
  const auto took = error.at - begin;
  EXPECT_GE(took, 400ms);
  EXPECT_LT(took, 1200ms);
  EXPECT_TRUE(error.resourceDomain);
  EXPECT_EQ(error.domainCode, GST_RESOURCE_ERROR_OPEN_READ);
  EXPECT_THAT(error.message, HasSubstr("created no player within 400 ms"));
  EXPECT_THAT(playback.timedSetState(GST_STATE_NULL), Lt(kNullBound));
}

TEST_F(ZvrSrcErrorTest, AHungCreationDelaysNoOtherElementBeyondItsOwnTimeout) {
  startService({}, /*activatable=*/false);
  const std::uint64_t triedBefore = creationsTried();
  Playback hung(clipUri("clip.webm"));
  EXPECT_EQ(hung.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  ASSERT_TRUE(zvr_test::eventually([triedBefore] { return creationsTried() > triedBefore; }));
  // Its creation waits behind the first one's, which runs for about 2.2 s.
  Playback waiting(clipUri("clip.mp4"), false, /*timeoutMs=*/600);
  const auto begin = Clock::now();
  EXPECT_EQ(waiting.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  PostedError error;
  ASSERT_TRUE(waiting.waitError(5s, &error));
  EXPECT_GE(error.at - begin, 600ms);
  EXPECT_LT(error.at - begin, 1800ms);
  EXPECT_THAT(error.message, HasSubstr("created no player within 600 ms"));
  EXPECT_THAT(waiting.timedSetState(GST_STATE_NULL), Lt(kNullBound));
  // The first creation ends as it would alone; the one that gave up is never run.
  ASSERT_TRUE(hung.waitError(5s, &error));
  EXPECT_THAT(error.message, HasSubstr("No media service"));
  EXPECT_FALSE(
      zvr_test::eventually([triedBefore] { return creationsTried() > triedBefore + 1; }, 300ms));
  EXPECT_THAT(hung.timedSetState(GST_STATE_NULL), Lt(kNullBound));
}

TEST_F(ZvrSrcErrorTest, AnIdSeenBeforeIsAFailedCreation) {
  startService();
  Playback first(clipUri("clip.webm"));
  ASSERT_NE(first.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(first.waitState(GST_STATE_PAUSED, 10s));
  const std::string id = first.sourceProperty("proxy-id");
  ASSERT_THAT(id, ::testing::StartsWith("zvr-"));
  // The service answers the next creation with that id again.
  ASSERT_TRUE(bus_->setOption("repeat-id=1"));
  Playback second(clipUri("clip.webm"));
  EXPECT_EQ(second.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
  PostedError error;
  ASSERT_TRUE(second.waitError(5s, &error));
  EXPECT_TRUE(error.resourceDomain);
  EXPECT_EQ(error.domainCode, GST_RESOURCE_ERROR_FAILED);
  EXPECT_THAT(error.message, HasSubstr("already used"));
  EXPECT_EQ(second.sourceProperty("proxy-id"), "");
  EXPECT_THAT(second.timedSetState(GST_STATE_NULL), Lt(kNullBound));
  // The repeated id was not started again; the first element still owns it.
  int starts = 0;
  for (const auto& command : bus_->recordedCommands()) {
    if (!command.empty() && command[0] == "start") ++starts;
  }
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(first.sourceProperty("proxy-id"), id);
}

TEST_F(ZvrSrcErrorTest, ErrorsArisingDownstreamPassThroughUnchanged) {
  startService();
  // zvrsrc alone: nothing links its pad, so its internal source's first push is not-linked.
  GstElement* pipeline = GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)));
  GError* made = nullptr;
  GstElement* source =
      gst_element_make_from_uri(GST_URI_SRC, clipUri("clip.webm").c_str(), nullptr, &made);
  g_clear_error(&made);
  ASSERT_NE(source, nullptr);
  zvr_test::watchFinalization(source);
  gst_bin_add(GST_BIN(pipeline), source);
  ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* message = gst_bus_timed_pop_filtered(bus, 10 * GST_SECOND, GST_MESSAGE_ERROR);
  ASSERT_NE(message, nullptr);
  GError* error = nullptr;
  gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  EXPECT_EQ(error->domain, GST_STREAM_ERROR);
  EXPECT_THAT(error->message, ::testing::Not(HasSubstr("broke")));
  EXPECT_THAT(debug, HasSubstr("not-linked"));
  EXPECT_THAT(GST_OBJECT_NAME(GST_MESSAGE_SRC(message)), HasSubstr("souphttpsrc"));
  g_clear_error(&error);
  g_free(debug);
  gst_message_unref(message);
  gst_object_unref(bus);
  const auto begin = Clock::now();
  gst_element_set_state(pipeline, GST_STATE_NULL);
  EXPECT_THAT(Clock::now() - begin, Lt(kNullBound));
  gst_object_unref(pipeline);
}

TEST_F(ZvrSrcErrorTest, LateUrlForAnElementThatIsGoneIsDropped) {
  // The start is answered 600 ms late, after its element was torn down and freed.
  startService({"delay=start:600"});
  std::string id;
  {
    Playback gone(clipUri("clip.webm"));
    EXPECT_EQ(gone.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
    ASSERT_TRUE(bus_->waitRecorded(2, 5000));  // create, start
    id = gone.sourceProperty("proxy-id");
    EXPECT_THAT(gone.timedSetState(GST_STATE_NULL), Lt(kNullBound));
  }
  ASSERT_FALSE(id.empty());
  ASSERT_TRUE(bus_->setOption("delay=start:0"));
  // The late "started" reaches the library, and through it the plugin's dispatch, which owns
  // no element for that id any more.
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy =
      velmora::ZVRMediaProxyInterface::getObjectById(id);
  ASSERT_TRUE(proxy);
  EXPECT_TRUE(zvr_test::eventually(
      [&proxy] {
        auto counters = velmora::getZVRProxyCounters(proxy);
        auto it = counters->eventsReceived.find("started");
        return it != counters->eventsReceived.end() && it->second >= 1;
      },
      3000ms));
  Playback next(clipUri("clip.webm"));
  std::string error;
  ASSERT_TRUE(next.playToEos(20s, &error)) << error;
  EXPECT_EQ(next.videoFrames(), 90);
}

}  // namespace
