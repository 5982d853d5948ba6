// Definitions probed from the generated clips with GStreamer's discoverer, in this process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "media_test_support.h"
#include "prober.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using zvr_emulator::MediaInfo;
using zvr_emulator::Prober;

class MediaProbeTest : public ::testing::Test {
 protected:
  // Probes a file and waits for the result (the first probe of the process loads GStreamer).
  MediaInfo probe(const std::string& path, int delayMs = 0) {
    struct Result {
      std::mutex mutex;
      std::condition_variable done;
      bool ready = false;
      MediaInfo info;
    };
    auto result = std::make_shared<Result>();
    prober_.probe("file://" + path, delayMs, [result](const MediaInfo& info) {
      std::lock_guard<std::mutex> lock(result->mutex);
      result->info = info;
      result->ready = true;
      result->done.notify_all();
    });
    std::unique_lock<std::mutex> lock(result->mutex);
    EXPECT_TRUE(
        result->done.wait_for(lock, std::chrono::seconds(20), [&] { return result->ready; }))
        << "no probe result for " << path;
    return result->info;
  }

  // The definitions text of a clip, parsed.
  Json::Value definitions(const std::string& clip, const std::string& container) {
    const MediaInfo info = probe(zvr_test::clipPath(clip));
    EXPECT_TRUE(info.ok) << info.error;
    const std::string text = zvr_emulator::definitionsJson(info, container);
    EXPECT_LE(text.size(), zvr_emulator::kMaxDefinitionsBytes);
    Json::Value parsed;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &parsed, &errors))
        << errors << " in " << text;
    return parsed;
  }

  Prober prober_;
};

void expectVideoClip(const Json::Value& d) {
  EXPECT_EQ(d["label"].asString(), "SD");
  EXPECT_EQ(d["width"].asInt(), 320);
  EXPECT_EQ(d["height"].asInt(), 240);
  EXPECT_DOUBLE_EQ(d["frameRate"].asDouble(), 30.0);
  EXPECT_NEAR(d["duration"].asDouble(), 3.0, 0.1);
  EXPECT_TRUE(d["seekable"].asBool());
  EXPECT_EQ(d["audioChannels"].asInt(), 1);
  EXPECT_EQ(d["sampleRate"].asInt(), 44100);
}

TEST_F(MediaProbeTest, WebmClipIsVp8AndVorbis) {
  const Json::Value d = definitions("clip.webm", "video/webm");
  expectVideoClip(d);
  EXPECT_EQ(d["container"].asString(), "video/webm");
  EXPECT_EQ(d["videoCodec"].asString(), "VP8");
  EXPECT_EQ(d["audioCodec"].asString(), "Vorbis");
}

TEST_F(MediaProbeTest, Mp4ClipIsH264AndAac) {
  const Json::Value d = definitions("clip.mp4", "video/mp4");
  expectVideoClip(d);
  EXPECT_THAT(d["videoCodec"].asString(), StartsWith("H.264"));
  EXPECT_THAT(d["audioCodec"].asString(), HasSubstr("AAC"));
}

TEST_F(MediaProbeTest, TransportStreamClipIsH264AndAac) {
  const Json::Value d = definitions("clip.ts", "video/mp2t");
  expectVideoClip(d);
  EXPECT_THAT(d["videoCodec"].asString(), StartsWith("H.264"));
  EXPECT_THAT(d["audioCodec"].asString(), HasSubstr("AAC"));
}

TEST_F(MediaProbeTest, AudioOnlyClipIsLabelledAudio) {
  const Json::Value d = definitions("audio.webm", "video/webm");
  EXPECT_EQ(d["label"].asString(), "audio");
  EXPECT_EQ(d["width"].asInt(), 0);
  EXPECT_EQ(d["videoCodec"].asString(), "");
  EXPECT_EQ(d["audioCodec"].asString(), "Vorbis");
  EXPECT_NEAR(d["duration"].asDouble(), 3.0, 0.1);
}

TEST_F(MediaProbeTest, ContentThatIsNoMediaFailsWithAReason) {
  zvr_test::TempDir dir;
  const MediaInfo info = probe(dir.file("text.webm", "not media at all\n"));
  EXPECT_FALSE(info.ok);
  EXPECT_FALSE(info.error.empty());
}

TEST_F(MediaProbeTest, ProbesRunInTheOrderTheyWereAskedFor) {
  const MediaInfo first = probe(zvr_test::clipPath("audio.webm"), 50);
  const MediaInfo second = probe(zvr_test::clipPath("clip.webm"));
  EXPECT_EQ(first.width, 0);
  EXPECT_EQ(second.width, 320);
}

TEST(DefinitionsTest, LabelFollowsTheLinesOfThePicture) {
  MediaInfo info;
  info.width = 640;
  info.height = 480;
  EXPECT_EQ(zvr_emulator::definitionLabel(info), "SD");
  info.height = 719;
  EXPECT_EQ(zvr_emulator::definitionLabel(info), "SD");
  info.height = 720;
  EXPECT_EQ(zvr_emulator::definitionLabel(info), "HD");
  info.height = 1080;
  EXPECT_EQ(zvr_emulator::definitionLabel(info), "FHD");
  info.height = 2160;
  EXPECT_EQ(zvr_emulator::definitionLabel(info), "UHD");
  info.width = info.height = 0;
  EXPECT_EQ(zvr_emulator::definitionLabel(info), "audio");
}

TEST(DefinitionsTest, TextStaysWithinItsLimitWhateverTheCodecNames) {
  MediaInfo info;
  info.ok = true;
  info.width = 3840;
  info.height = 2160;
  info.frameRate = 30000.0 / 1001;
  info.durationSeconds = 1e9;
  info.videoCodec = std::string(5000, '"');
  info.audioCodec = std::string(5000, '\x01');
  const std::string text = zvr_emulator::definitionsJson(info, std::string(5000, '\\'));
  EXPECT_LE(text.size(), zvr_emulator::kMaxDefinitionsBytes);
  Json::Value parsed;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr)) << text;
  EXPECT_EQ(parsed["label"].asString(), "UHD");
  EXPECT_DOUBLE_EQ(parsed["frameRate"].asDouble(), 29.97);
}

}  // namespace
