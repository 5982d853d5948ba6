// The emulator as a media service, on a private bus: answer times, failure codes, probed
// definitions, checked seeks, local URLs that end with their session, faults set at run time,
// and the memory that serving a large source takes. Commands go through the model access
// itself where a test needs the answers' codes and details, which the library keeps to itself.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "media_test_support.h"
#include "private_bus.h"
#include "test_support.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"
#include "zvr_model_access.h"

namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using velmora::ZVRMediaProxyManager;
using zvr_test::CallbackRecorder;
using zvr_test::clipPath;
using zvr_test::HttpAnswer;
using zvr_test::PrivateBus;
using zvr_test::readFile;
using zvr_test::request;
using Clock = std::chrono::steady_clock;
using Record = std::vector<std::string>;

const char kCommandKey[] = "varek.sl2.vstr.videoplayer.zvr.command";

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Sends commands through the model access and keeps every event, with the time it arrived.
class ServiceClient : public velmora::ZVRModelAccessClient {
 public:
  ServiceClient() : access_(this) {}

  bool connect() { return access_.start() == 0 && access_.startEventListener() == 0; }

  void onZVRConnected() override {}
  void onZVREvent(std::vector<std::string>& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back({record, Clock::now()});
    arrived_.notify_all();
  }

  // Sends `word` for `objectId` with a fresh session id; returns that id.
  std::string send(const std::string& word, const std::string& objectId,
                   const std::string& position = "", const std::string& text = "") {
    const std::string session = "ses-test-" + std::to_string(++sent_);
    Record command(11);
    command[0] = word;
    command[2] = session;
    command[3] = objectId;
    command[5] = position;
    command[6] = text;
    sentAt_ = Clock::now();
    EXPECT_EQ(access_.setAccessValue(kCommandKey, command), 0);
    return session;
  }
  Clock::time_point sentAt() const { return sentAt_; }

  // Waits for the event `name` of the command with `session`; empty when none came in 10 s.
  Record await(const std::string& name, const std::string& session,
               Clock::time_point* when = nullptr) {
    std::unique_lock<std::mutex> lock(mutex_);
    const Event* found = nullptr;
    arrived_.wait_for(lock, std::chrono::seconds(10), [&] {
      for (const Event& e : events_) {
        if (e.record.size() == 11 && e.record[0] == name && e.record[2] == session) {
          found = &e;
          return true;
        }
      }
      return false;
    });
    if (found == nullptr) return Record();
    if (when != nullptr) *when = found->at;
    return found->record;
  }

 private:
  struct Event {
    Record record;
    Clock::time_point at;
  };

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Event> events_;
  int sent_ = 0;
  Clock::time_point sentAt_;
  // Last, so that its listener thread is gone before the events it fills.
  velmora::ZVRModelAccess access_;
};

Json::Value parseJson(const std::string& text) {
  Json::Value parsed;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr)) << text;
  return parsed;
}

class MediaServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("ZVR_LOG_LEVEL", "1000", 1); }

  void startService(const std::vector<std::string>& options = {}) {
    bus_ = std::make_unique<PrivateBus>(options);
    ASSERT_TRUE(bus_->startEmulator());
    ASSERT_TRUE(client_.connect());
  }
  // Starts `source` for `objectId` and waits for "started".
  Record start(const std::string& objectId, const std::string& source,
               std::string* session = nullptr) {
    const std::string id = client_.send("start", objectId, "", source);
    if (session != nullptr) *session = id;
    return client_.await("started", id);
  }
  ZVRMediaProxyManager* manager() { return ZVRMediaProxyManager::getInstance(); }

  std::unique_ptr<PrivateBus> bus_;
  ServiceClient client_;
};

// A loopback server of this test, serving the WebM clip as an http:// source.
class Upstream {
 public:
  Upstream() : clip_(readFile(clipPath("clip.webm"))) {
    server_.Get("/clip.webm", [this](const httplib::Request&, httplib::Response& response) {
      response.set_content_provider(
          clip_.size(), "video/webm",
          [this](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            return sink.write(clip_.data() + offset, length);
          });
    });
    port_ = zvr_test::startLoopbackServer(server_, thread_);
  }
  ~Upstream() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/clip.webm"; }

 private:
  const std::string clip_;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

// Item by item as a host sees it: the library's "url" callback after start().
TEST_F(MediaServiceTest, StartedForALocalFileComesWithin50Ms) {
  startService({"definition-delay=0"});
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy();
  const std::vector<std::string> clips = {"clip.webm", "clip.mp4", "clip.ts"};
  for (std::size_t i = 0; i < clips.size(); ++i) {
    const Clock::time_point begin = Clock::now();
    proxy->start("file://" + clipPath(clips[i]), 1);
    ASSERT_TRUE(CallbackRecorder::waitCalls(2 * i + 1, std::chrono::seconds(5)));
    const double elapsed = secondsSince(begin);
    RecordProperty("started_" + clips[i] + "_ms", std::to_string(elapsed * 1000));
    EXPECT_LT(elapsed, 3 * 0.050) << clips[i];
    ASSERT_TRUE(CallbackRecorder::waitCalls(2 * i + 2, std::chrono::seconds(5)));  // definitions
  }
}

TEST_F(MediaServiceTest, StartedForAnHttpSourceComesWithin200MsAndASynchronousStartGetsIt) {
  Upstream upstream;
  startService();
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy();
  const Clock::time_point begin = Clock::now();
  proxy->start(upstream.url(), 1);
  ASSERT_TRUE(CallbackRecorder::waitCalls(1, std::chrono::seconds(5)));
  const double elapsed = secondsSince(begin);
  RecordProperty("started_ms", std::to_string(elapsed * 1000));
  EXPECT_LT(elapsed, 3 * 0.200);

  // A synchronous start waits 250 ms for "started".
  std::shared_ptr<velmora::ZVRMediaProxyObject> sync = manager()->createNewZVRMediaProxySync();
  sync->start(upstream.url(), 1);
  EXPECT_EQ(sync->getState(), 2);
  EXPECT_TRUE(zvr_test::sameBytes(request(sync->localURL()).body, readFile(clipPath("clip.webm"))));
}

TEST_F(MediaServiceTest, FailedStartsCarryTheirCodeAndADetailAndNoURL) {
  startService();
  zvr_test::TempDir dir;
  struct Case {
    std::string source, code, detailPart;
  };
  const std::vector<Case> cases = {
      {"file://" + dir.path() + "/missing.webm", "404", "missing.webm"},
      {"ftp://127.0.0.1/clip.webm", "400", "ftp:"},
      {dir.file("notes.webm", "plain text\n"), "415", "notes.webm"},
      {"http://127.0.0.1:1/clip.webm", "502", "127.0.0.1:1"},
      {"http://192.0.2.1/clip.webm", "403", "loopback"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    std::string session;
    const Record started = start("zvr-x", c.source, &session);
    ASSERT_EQ(started.size(), 11u);
    EXPECT_EQ(started[1], c.code);
    EXPECT_THAT(started[8], HasSubstr(c.detailPart));
    EXPECT_EQ(started[6], "");
  }
}

TEST_F(MediaServiceTest, DefinitionCarriesTheDefinitionsProbedFromTheMedia) {
  startService({"definition-delay=0"});
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy();
  proxy->start("file://" + clipPath("clip.mp4"), 1);
  ASSERT_TRUE(CallbackRecorder::waitCalls(2, std::chrono::seconds(10)));
  const zvr_test::Notification definitions = CallbackRecorder::calls()[1];
  EXPECT_EQ(definitions.kind, "definitions");
  EXPECT_LE(definitions.value.size(), 1024u);
  const Json::Value d = parseJson(definitions.value);
  EXPECT_EQ(d["container"].asString(), "video/mp4");
  EXPECT_EQ(d["label"].asString(), "SD");
  EXPECT_EQ(d["width"].asInt(), 320);
  EXPECT_EQ(d["height"].asInt(), 240);
  EXPECT_DOUBLE_EQ(d["frameRate"].asDouble(), 30.0);
  EXPECT_NEAR(d["duration"].asDouble(), 3.0, 0.1);
  EXPECT_THAT(d["videoCodec"].asString(), HasSubstr("H.264"));
  EXPECT_THAT(d["audioCodec"].asString(), HasSubstr("AAC"));
}

TEST_F(MediaServiceTest, PreloadIsProbedAndGivenDefinitionsToo) {
  startService({"definition-delay=0"});
  const std::string session =
      client_.send("preload", "zvr-p", "0", "file://" + clipPath("audio.webm"));
  EXPECT_EQ(client_.await("started", session)[1], "200");
  const Record definition = client_.await("definition", session);
  ASSERT_EQ(definition.size(), 11u);
  EXPECT_EQ(parseJson(definition[7])["label"].asString(), "audio");
}

TEST_F(MediaServiceTest, GivenDefinitionsReplaceTheProbedOnesAndFollowStarted) {
  startService({"definitions=SD,HD", "definition-delay=0"});
  const std::string session = client_.send("start", "zvr-d", "", "file://" + clipPath("clip.webm"));
  Clock::time_point started, defined;
  ASSERT_EQ(client_.await("started", session, &started).size(), 11u);
  EXPECT_EQ(client_.await("definition", session, &defined)[7], "SD,HD");
  EXPECT_LE(started, defined);
}

TEST_F(MediaServiceTest, SeekIsCheckedAgainstTheProbedDuration) {
  startService({"definition-delay=0"});
  std::string session;
  start("zvr-s", "file://" + clipPath("clip.webm"), &session);
  ASSERT_EQ(client_.await("definition", session).size(), 11u);  // probed

  EXPECT_EQ(client_.await("seeked", client_.send("seek", "zvr-s", "1.500000"))[1], "200");
  EXPECT_EQ(client_.await("seeked", client_.send("seek", "zvr-s", "0.000000"))[1], "200");
  const Record beyond = client_.await("seeked", client_.send("seek", "zvr-s", "12.500000"));
  ASSERT_EQ(beyond.size(), 11u);
  EXPECT_EQ(beyond[1], "416");
  EXPECT_THAT(beyond[8], HasSubstr("12.500 s"));
  EXPECT_EQ(client_.await("seeked", client_.send("seek", "zvr-s", "-1.000000"))[1], "416");
  EXPECT_EQ(client_.await("seeked", client_.send("seek", "zvr-s", "soon"))[1], "400");
  EXPECT_EQ(client_.await("seeked", client_.send("seek", "zvr-none", "1.000000"))[1], "404");
}

TEST_F(MediaServiceTest, SeekBeforeProbingHasFinishedWaitsForTheProbe) {
  startService({"definition-delay=0"});
  std::string session;
  start("zvr-w", "file://" + clipPath("clip.webm"), &session);
  ASSERT_EQ(client_.await("definition", session).size(), 11u);  // GStreamer is loaded

  ASSERT_TRUE(bus_->setOption("probe-delay=60"));
  start("zvr-w", "file://" + clipPath("clip.webm"));
  const std::string seek = client_.send("seek", "zvr-w", "10.000000");
  const Clock::time_point sent = client_.sentAt();
  Clock::time_point answered;
  const Record seeked = client_.await("seeked", seek, &answered);
  ASSERT_EQ(seeked.size(), 11u);
  EXPECT_EQ(seeked[1], "416");  // checked, so it waited for the probe
  EXPECT_GE(std::chrono::duration<double>(answered - sent).count(), 0.04);
}

TEST_F(MediaServiceTest, SeekWaitsForASlowProbeNoLongerThan200Ms) {
  startService({"probe-delay=3000"});
  start("zvr-l", "file://" + clipPath("clip.webm"));
  const std::string seek = client_.send("seek", "zvr-l", "10.000000");
  const Clock::time_point sent = client_.sentAt();
  Clock::time_point answered;
  const Record seeked = client_.await("seeked", seek, &answered);
  ASSERT_EQ(seeked.size(), 11u);
  EXPECT_EQ(seeked[1], "200");
  EXPECT_THAT(seeked[8], HasSubstr("not checked"));
  const double waited = std::chrono::duration<double>(answered - sent).count();
  EXPECT_GE(waited, 0.19);
  EXPECT_LT(waited, 3 * 0.200);
}

TEST_F(MediaServiceTest, EveryStartGetsANewURLAndStopEndsIt) {
  startService();
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string first = start("zvr-u", "file://" + clipPath("clip.webm"))[6];
  ASSERT_TRUE(zvr_test::sameBytes(request(first).body, clip));
  const std::string second = start("zvr-u", "file://" + clipPath("clip.webm"))[6];
  EXPECT_NE(second, first);
  EXPECT_EQ(request(first).status, 404);  // the player of the old session reads nothing more
  EXPECT_EQ(request(second).status, 200);

  EXPECT_EQ(client_.await("stopped", client_.send("stop", "zvr-u"))[1], "200");
  EXPECT_EQ(request(second).status, 404);
  EXPECT_EQ(request(second, "HEAD").status, 404);
}

TEST_F(MediaServiceTest, ServingFaultsChangeWhileTheEmulatorRuns) {
  startService();
  const std::string url = start("zvr-f", "file://" + clipPath("clip.webm"))[6];
  EXPECT_EQ(zvr_test::getRange(url, "bytes=0-99").status, 206);
  ASSERT_TRUE(bus_->setOption("no-range=1"));
  EXPECT_EQ(zvr_test::getRange(url, "bytes=0-99").status, 200);
  ASSERT_TRUE(bus_->setOption("no-range=0"));
  ASSERT_TRUE(bus_->setOption("cut-after=1000"));
  const HttpAnswer cut = request(url);
  EXPECT_FALSE(cut.complete);
  EXPECT_EQ(cut.body.size(), 1000u);
  ASSERT_TRUE(bus_->setOption("cut-after=0"));
  ASSERT_TRUE(bus_->setOption("first-byte-delay=200"));
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(request(url).status, 200);
  EXPECT_GE(secondsSince(begin), 0.19);
  ASSERT_TRUE(bus_->setOption("throttle=100000"));
  EXPECT_FALSE(bus_->setOption("throttle=fast"));
  EXPECT_FALSE(bus_->setOption("segment-group=video"));  // only at start
}

long residentKiB(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmRSS:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

TEST_F(MediaServiceTest, ServingAGibibyteRaisesTheEmulatorsMemoryByAtMost16MiB) {
  zvr_test::TempDir dir;
  // The clip's bytes followed by a hole: a 1 GiB WebM that takes no disk space.
  const std::string path = dir.file("large.webm", readFile(clipPath("clip.webm")));
  constexpr std::uint64_t kSize = 1ull << 30;
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(kSize)), 0);

  startService({"definition-delay=0"});
  const int pid = bus_->emulatorPid();
  ASSERT_GT(pid, 0);
  std::string session;
  const std::string url = start("zvr-g", "file://" + path, &session)[6];
  ASSERT_FALSE(url.empty());
  ASSERT_EQ(client_.await("definition", session).size(), 11u);  // probing is over
  ASSERT_EQ(zvr_test::getRange(url, "bytes=0-65535").status, 206);
  const long before = residentKiB(pid);
  ASSERT_GT(before, 0);

  const auto parts = zvr_test::splitURL(url);
  httplib::Client client(parts.first);
  client.set_read_timeout(30);
  std::uint64_t received = 0;
  std::uint64_t nextSample = 0;
  long highest = before;
  httplib::Result result =
      client.Get(parts.second.c_str(), [&](const char* /*data*/, std::size_t length) {
        received += length;
        if (received >= nextSample) {
          highest = std::max(highest, residentKiB(pid));
          nextSample += 16 << 20;
        }
        return true;
      });
  highest = std::max(highest, residentKiB(pid));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(received, kSize);
  RecordProperty("resident_before_kib", std::to_string(before));
  RecordProperty("resident_growth_kib", std::to_string(highest - before));
  EXPECT_LE(highest - before, 16 * 1024) << "resident before " << before << " KiB";
}

}  // namespace
