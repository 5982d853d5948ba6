// Real web engines play what the library delivers, headless: WPE WebKit plays zvr+file: URIs
// through the GStreamer element and the local URL; Chromium plays the local URL, and finds it
// not seekable when the service does not answer ranges.

#include <gtest/gtest.h>

#include <string>

#include "web_test_support.h"

namespace {

using zvr_test::Engine;
using zvr_test::PageRun;
using zvr_test::WebDriver;

// The clip of each parameter: "webm" or "mp4".
std::string clipOf(const std::string& kind) { return "clip." + kind; }

std::string paramName(const ::testing::TestParamInfo<std::string>& info) { return info.param; }

class LocalUrlPlayback : public zvr_test::WebPlaybackTest,
                         public ::testing::WithParamInterface<std::string> {
 protected:
  // Starts the clip through the library, plays its local URL in `engine` to 2.0 s, seeks to
  // 1.5 s; stops the proxy and checks the emulator's record.
  void playLocalUrl(Engine engine) {
    ASSERT_NO_FATAL_FAILURE(startBus());
    const std::string clip = clipOf(GetParam());
    const std::string url = startLocalUrl(clip);
    ASSERT_FALSE(url.empty()) << "the library delivered no local URL";
    const std::string page = pages_.add(zvr_test::videoPage(url));

    const PageRun run = runPage(engine, page, &WebPlaybackTest::playAndSeek);
    recordRun(run);
    ASSERT_EQ(run.failure, "");
    EXPECT_GE(run.play["currentTime"].asDouble(), 2.0);
    EXPECT_EQ(run.play["width"].asInt(), 320);
    EXPECT_EQ(run.play["height"].asInt(), 240);
    EXPECT_TRUE(run.seek["seeked"].asBool());
    EXPECT_NEAR(run.seek["currentTime"].asDouble(), 1.5, 0.3);
    EXPECT_LE(run.seek["seekMs"].asDouble(), zvr_test::kSeekedWithinMs) << "seeked came late";
    EXPECT_TRUE(run.reapedAll) << "browser processes left unreaped";

    proxy_->stop();
    EXPECT_TRUE(waitCreateStartStop(clip, 5000));
  }
};

TEST_P(LocalUrlPlayback, ChromiumPlaysTheLocalUrlToTwoSecondsAtItsSizeAndSeeks) {
  playLocalUrl(Engine::kChromium);
}

TEST_P(LocalUrlPlayback, WpeWebKitPlaysTheLocalUrlToTwoSecondsAtItsSizeAndSeeks) {
  playLocalUrl(Engine::kWpe);
}

// Without range support the same page still plays, but its video is not seekable: the seek
// check above measures the service's ranges.
TEST_P(LocalUrlPlayback, ChromiumFindsTheLocalUrlNotSeekableWhenTheServiceIgnoresRanges) {
  ASSERT_NO_FATAL_FAILURE(startBus());
  ASSERT_TRUE(bus_->setOption("no-range=1"));
  const std::string url = startLocalUrl(clipOf(GetParam()));
  ASSERT_FALSE(url.empty());
  const std::string page = pages_.add(zvr_test::videoPage(url));

  const PageRun run =
      runPage(Engine::kChromium, page, [](WebDriver& driver, PageRun& r) -> std::string {
        Json::Value args(Json::arrayValue);
        args.append(2.0);
        args.append(15000);
        r.play = driver.executeAsync(zvr_test::playProbe(), args, 20);
        return zvr_test::checkPlayback(r.play, nullptr);
      });
  recordRun(run);
  ASSERT_EQ(run.failure, "");
  EXPECT_GE(run.play["currentTime"].asDouble(), 2.0);
  EXPECT_EQ(run.play["seekableEnd"].asDouble(), 0.0)
      << run.play["seekableRanges"].asInt() << " seekable ranges";
  EXPECT_TRUE(run.reapedAll);
}

INSTANTIATE_TEST_SUITE_P(Clips, LocalUrlPlayback, ::testing::Values("webm", "mp4"), paramName);

#ifdef ZVR_GST_PLUGIN_DIR

class ZvrFilePlayback : public zvr_test::WebPlaybackTest,
                        public ::testing::WithParamInterface<std::string> {};

// <video src="zvr+file:///…/clip.KIND">: the element creates a proxy, starts the file through
// the service and plays its local URL; the page's release of the video stops the proxy.
TEST_P(ZvrFilePlayback, WpeWebKitPlaysAZvrFileUriToTwoSecondsAtItsSizeAndSeeks) {
  ASSERT_NO_FATAL_FAILURE(startBus());
  const std::string clip = clipOf(GetParam());
  const std::string page =
      pages_.add(zvr_test::videoPage("zvr+file://" + zvr_test::clipPath(clip)));

  const PageRun run = runPage(Engine::kWpe, page, [&](WebDriver& driver, PageRun& r) {
    std::string failure = WebPlaybackTest::playAndSeek(driver, r);
    driver.executeSync(zvr_test::releaseVideoScript());
    // The player ends its proxy when the page lets the video go.
    if (failure.empty() && !waitCreateStartStop(clip, 5000)) {
      failure = "no stop recorded after the video was released";
    }
    return failure;
  });
  recordRun(run);
  ASSERT_EQ(run.failure, "");
  EXPECT_GE(run.play["currentTime"].asDouble(), 2.0);
  EXPECT_EQ(run.play["width"].asInt(), 320);
  EXPECT_EQ(run.play["height"].asInt(), 240);
  EXPECT_TRUE(run.seek["seeked"].asBool());
  EXPECT_NEAR(run.seek["currentTime"].asDouble(), 1.5, 0.3);
  EXPECT_LE(run.seek["seekMs"].asDouble(), zvr_test::kSeekedWithinMs) << "seeked came late";
  EXPECT_TRUE(run.reapedAll) << "browser processes left unreaped";
  std::string id;
  EXPECT_TRUE(createStartStopRecorded(clip, &id));
  RecordProperty("proxy", id);
}

INSTANTIATE_TEST_SUITE_P(Clips, ZvrFilePlayback, ::testing::Values("webm", "mp4"), paramName);

using ZvrFileFailure = zvr_test::WebPlaybackTest;

// A source the service cannot open reaches the page as the video's "error" event, within 5 s
// of navigation: never a stall.
TEST_F(ZvrFileFailure, WpeWebKitEndsAMissingZvrFileInTheVideosErrorEventWithinFiveSeconds) {
  ASSERT_NO_FATAL_FAILURE(startBus());
  const std::string page = pages_.add(zvr_test::videoPage("zvr+file:///missing.webm"));

  const PageRun run = runPage(Engine::kWpe, page, [](WebDriver& driver, PageRun& r) {
    Json::Value args(Json::arrayValue);
    args.append(3 * 5000);  // looked for well past the limit, so that a late event shows
    r.error = driver.executeAsync(zvr_test::errorProbe(), args, 25);
    const double at = r.error["errorAtMs"].asDouble();
    if (at < 0) return "no error event (events " + r.error["events"].asString() + ")";
    if (at > 5000) return "the error event came " + std::to_string(at) + " ms after navigation";
    return std::string();
  });
  recordRun(run);
  ASSERT_EQ(run.failure, "");
  EXPECT_GE(run.error["errorAtMs"].asDouble(), 0.0);
  EXPECT_LE(run.error["errorAtMs"].asDouble(), 5000.0);
  EXPECT_NE(run.error["error"].asInt(), 0) << "the video's error attribute";
  EXPECT_TRUE(run.reapedAll);
  // The failure is the service's: the element asked it to start the missing file.
  bool asked = false;
  for (const std::vector<std::string>& r : bus_->recordedCommands()) {
    asked = asked || (r.size() > 6 && r[0] == "start" && r[6] == "file:///missing.webm");
  }
  EXPECT_TRUE(asked) << "no start of file:///missing.webm reached the service";
}

#endif  // ZVR_GST_PLUGIN_DIR

}  // namespace
