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
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
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
  // Starts `source` for `objectId`, waits for "started" and records how long it took to come, in
  // seconds from the command's sending, as the test's property started_ms.
  Record timedStart(const std::string& objectId, const std::string& source, double* seconds) {
    const std::string session = client_.send("start", objectId, "", source);
    const Clock::time_point sent = client_.sentAt();
    Clock::time_point arrived;
    const Record started = client_.await("started", session, &arrived);
    *seconds = std::chrono::duration<double>(arrived - sent).count();
    RecordProperty("started_ms", std::to_string(*seconds * 1000));
    return started;
  }
  // Starts `source`, waits until probing is over and serves a first piece, then reads the whole
  // media with `headers` while it samples the emulator's resident memory every 16 MiB; expects
  // `status`, `size` bytes, and the memory to grow by at most 16 MiB over what it was before.
  void expectServedWithin16MiB(const std::string& source, const httplib::Headers& headers,
                               int status, std::uint64_t size);
  ZVRMediaProxyManager* manager() { return ZVRMediaProxyManager::getInstance(); }

  std::unique_ptr<PrivateBus> bus_;
  ServiceClient client_;
};

// A loopback server of this test for http:// sources: the WebM clip at "/clip.webm", and at
// "/large.webm" the clip followed by zeros up to 1 GiB, made up piece by piece as it is sent.
// `answerDelay` holds every answer back that long; without `ranges` it serves no ranges, as
// some servers do.
class Upstream {
 public:
  static constexpr std::uint64_t kLargeSize = 1ull << 30;

  explicit Upstream(std::chrono::milliseconds answerDelay = std::chrono::milliseconds(0),
                    bool ranges = true)
      : clip_(readFile(clipPath("clip.webm"))), zeros_(64 * 1024, '\0') {
    const auto serve = [this, answerDelay, ranges](const std::string& name, std::uint64_t size) {
      server_.Get(name, [this, answerDelay, ranges, size](const httplib::Request& request,
                                                          httplib::Response& response) {
        holdBack(answerDelay);
        if (!ranges) const_cast<httplib::Request&>(request).ranges.clear();
        response.set_content_provider(
            size, "video/webm",
            [this](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
              if (offset < clip_.size()) {
                return sink.write(clip_.data() + offset, std::min(length, clip_.size() - offset));
              }
              return sink.write(zeros_.data(), std::min(length, zeros_.size()));
            });
      });
    };
    serve("/clip.webm", clip_.size());
    serve("/large.webm", kLargeSize);
    port_ = zvr_test::startLoopbackServer(server_, thread_);
  }
  ~Upstream() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    released_.notify_all();
    server_.stop();
    thread_.join();
  }
  std::string url(const std::string& name = "clip.webm") const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/" + name;
  }

 private:
  void holdBack(std::chrono::milliseconds delay) {
    std::unique_lock<std::mutex> lock(mutex_);
    released_.wait_for(lock, delay, [this] { return stopping_; });
  }

  const std::string clip_;
  const std::string zeros_;
  std::mutex mutex_;
  std::condition_variable released_;
  bool stopping_ = false;
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

TEST_F(MediaServiceTest, StopEndsAResponseInProgressAndTheURLThenAnswers404) {
  startService({"throttle=100000"});  // the 736 kB clip would take over 7 s
  manager()->setZVRCallback(&CallbackRecorder::callback);
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy = manager()->createNewZVRMediaProxy();
  proxy->start("file://" + clipPath("clip.mp4"), 1);
  ASSERT_TRUE(CallbackRecorder::waitCalls(1, std::chrono::seconds(5)));
  const std::string url = proxy->localURL();
  ASSERT_FALSE(url.empty());
  bool stopped = false;
  Clock::time_point stoppedAt;
  const HttpAnswer answer = request(url, "GET", {}, [&](std::size_t received) {
    if (received >= 10000 && !stopped) {
      stopped = true;
      stoppedAt = Clock::now();
      proxy->stop();  // by the host, while the response is in progress
    }
    return true;
  });
  ASSERT_TRUE(stopped);
  const double ended = secondsSince(stoppedAt);
  EXPECT_FALSE(answer.complete);
  EXPECT_LT(answer.body.size(), 200000u);
  EXPECT_LT(ended, 1.0);
  EXPECT_TRUE(zvr_test::eventually([&] { return proxy->getState() == 0; }));  // "stopped" came
  EXPECT_EQ(request(url).status, 404);
  EXPECT_EQ(request(url, "HEAD").status, 404);
}

TEST_F(MediaServiceTest, DefinitionOfMediaThatCannotBeProbedIs415WithTheReason) {
  startService({"definition-delay=0"});
  zvr_test::TempDir dir;
  // A WebM's EBML header, so that the container is recognised, followed by bytes that no
  // demuxer can read.
  std::string bytes(
      "\x1a\x45\xdf\xa3\x01\x00\x00\x00\x00\x00\x00\x10\x42\x82\x85webm\x00"
      "\x42\x87\x81\x02\x42\x85\x81\x02",
      28);
  std::mt19937 random(12);
  while (bytes.size() < 100000) bytes += static_cast<char>(random());
  std::string session;
  const Record started = start("zvr-b", dir.file("broken.webm", bytes), &session);
  ASSERT_EQ(started.size(), 11u);
  EXPECT_EQ(started[1], "200");
  EXPECT_EQ(started[8], "video/webm");
  const Record definition = client_.await("definition", session);
  ASSERT_EQ(definition.size(), 11u);
  EXPECT_EQ(definition[1], "415");
  EXPECT_EQ(definition[3], "zvr-b");
  EXPECT_EQ(definition[7], "");
  EXPECT_FALSE(definition[8].empty());
  RecordProperty("reason", definition[8]);
}

// The service gives an http source 150 ms to send its first bytes; one that takes a third of
// that leaves room for a loaded machine and the sanitizers.
TEST_F(MediaServiceTest, StartedForAnHttpSourceThatAnswersIn50MsComesWithin200Ms) {
  Upstream upstream(std::chrono::milliseconds(50));
  startService();
  double elapsed = 0;
  const Record started = timedStart("zvr-h", upstream.url(), &elapsed);
  ASSERT_EQ(started.size(), 11u);
  EXPECT_EQ(started[1], "200") << started[8];
  EXPECT_FALSE(started[6].empty());
  EXPECT_GE(elapsed, 0.045);
  EXPECT_LT(elapsed, 3 * 0.200);
}

TEST_F(MediaServiceTest, HttpSourceThatAnswersTooLateIs504WithinTheAnswerTime) {
  Upstream upstream(std::chrono::milliseconds(2000));  // far beyond the 150 ms it is given
  startService();
  double elapsed = 0;
  const Record started = timedStart("zvr-h", upstream.url(), &elapsed);
  ASSERT_EQ(started.size(), 11u);
  EXPECT_EQ(started[1], "504");
  EXPECT_EQ(started[6], "");
  EXPECT_THAT(started[8], HasSubstr(upstream.url()));
  EXPECT_GE(elapsed, 0.14);
  EXPECT_LT(elapsed, 3 * 0.200);
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
  ASSERT_TRUE(bus_->setOption("first-byte-delay=0"));
  ASSERT_TRUE(bus_->setOption("throttle=100000"));
  const Clock::time_point throttled = Clock::now();
  EXPECT_EQ(zvr_test::getRange(url, "bytes=0-99999").body.size(), 100000u);
  // 100 kB at 100 kB/s: all but the first piece, a twentieth of a second's worth, wait their turn.
  const double took = secondsSince(throttled);
  EXPECT_GE(took, 0.9 * (100000 - 5000) / 100000.0);
  EXPECT_LT(took, 3 * 1.0);
  EXPECT_FALSE(bus_->setOption("throttle=fast"));
  ASSERT_TRUE(bus_->setOption("throttle=0"));
  const Clock::time_point free = Clock::now();
  EXPECT_EQ(zvr_test::getRange(url, "bytes=0-99999").body.size(), 100000u);
  EXPECT_LT(secondsSince(free), 1.0 / 3);
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

int openDescriptors(int pid) {
  std::error_code error;
  int count = 0;
  for (std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", error), end;
       !error && it != end; it.increment(error)) {
    ++count;
  }
  return error ? -1 : count;
}

TEST_F(MediaServiceTest, RepeatedStartsAndPreloadsOfAnObjectKeepItsDescriptorsLevel) {
  startService({"definition-delay=0"});
  const int pid = bus_->emulatorPid();
  ASSERT_GT(pid, 0);
  const auto startServeAndProbe = [&](const std::string& word) {
    const std::string session = client_.send(word, "zvr-n", "0", "file://" + clipPath("clip.webm"));
    const Record started = client_.await("started", session);
    ASSERT_EQ(started.size(), 11u);
    ASSERT_EQ(started[1], "200");
    EXPECT_EQ(zvr_test::getRange(started[6], "bytes=0-99").status, 206);
    EXPECT_EQ(client_.await("definition", session).size(), 11u);
  };
  for (int i = 0; i < 3; ++i) startServeAndProbe("start");  // GStreamer and the server settle
  const int before = openDescriptors(pid);
  ASSERT_GT(before, 0);
  for (int i = 0; i < 20; ++i) startServeAndProbe(i % 2 == 0 ? "preload" : "start");
  // A served connection is closed a moment after its client closed it.
  int after = -1;
  EXPECT_TRUE(zvr_test::eventually([&] { return (after = openDescriptors(pid)) <= before; },
                                   std::chrono::seconds(3)))
      << after << " descriptors open, " << before << " before";
}

// A host that never stops its objects cannot make the emulator hold a file for each of them.
TEST_F(MediaServiceTest, ObjectsThatAreNeverStoppedKeepAtMost64LocalURLs) {
  startService({"definition-delay=0"});
  const int pid = bus_->emulatorPid();
  ASSERT_GT(pid, 0);
  std::string session;
  start("zvr-m-probed", "file://" + clipPath("clip.webm"), &session);
  ASSERT_EQ(client_.await("definition", session).size(), 11u);  // the prober is ready
  ASSERT_TRUE(bus_->setOption("definitions=SD"));               // nothing more is probed
  ASSERT_EQ(client_.await("stopped", client_.send("stop", "zvr-m-probed"))[1], "200");
  std::vector<std::string> urls;
  const auto startObject = [&] {
    const std::string id = "zvr-m-" + std::to_string(urls.size());
    urls.push_back(start(id, "file://" + clipPath("clip.webm"))[6]);
    ASSERT_FALSE(urls.back().empty()) << id;
  };
  while (urls.size() < 64) startObject();
  const int before = openDescriptors(pid);
  while (urls.size() < 80) startObject();
  for (std::size_t i = 0; i < urls.size(); ++i) {
    EXPECT_EQ(request(urls[i], "HEAD").status, i < 16 ? 404 : 200) << "object " << i;
  }
  int after = -1;
  EXPECT_TRUE(zvr_test::eventually([&] { return (after = openDescriptors(pid)) <= before; },
                                   std::chrono::seconds(3)))
      << after << " descriptors open, " << before << " before";
}

void MediaServiceTest::expectServedWithin16MiB(const std::string& source,
                                               const httplib::Headers& headers, int status,
                                               std::uint64_t size) {
  const int pid = bus_->emulatorPid();
  ASSERT_GT(pid, 0);
  std::string session;
  const std::string url = start("zvr-g", source, &session)[6];
  ASSERT_FALSE(url.empty());
  ASSERT_EQ(client_.await("definition", session).size(), 11u);  // probing is over
  // Its buffers and worker are there before the measure begins.
  EXPECT_EQ(request(url, "GET", {}, [](std::size_t received) { return received < 65536; }).status,
            200);
  const long before = residentKiB(pid);
  ASSERT_GT(before, 0);

  const auto parts = zvr_test::splitURL(url);
  httplib::Client client(parts.first);
  client.set_read_timeout(30);
  std::uint64_t received = 0;
  std::uint64_t nextSample = 0;
  long highest = before;
  httplib::Result result =
      client.Get(parts.second.c_str(), headers, [&](const char* /*data*/, std::size_t length) {
        received += length;
        if (received >= nextSample) {
          highest = std::max(highest, residentKiB(pid));
          nextSample += 16 << 20;
        }
        return true;
      });
  highest = std::max(highest, residentKiB(pid));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, status);
  EXPECT_EQ(received, size);
  RecordProperty("resident_before_kib", std::to_string(before));
  RecordProperty("resident_growth_kib", std::to_string(highest - before));
  EXPECT_LE(highest - before, 16 * 1024) << "resident before " << before << " KiB";
}

TEST_F(MediaServiceTest, ServingAGibibyteRaisesTheEmulatorsMemoryByAtMost16MiB) {
  zvr_test::TempDir dir;
  // The clip's bytes followed by a hole: a 1 GiB WebM that takes no disk space.
  const std::string path = dir.file("large.webm", readFile(clipPath("clip.webm")));
  constexpr std::uint64_t kSize = 1ull << 30;
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(kSize)), 0);
  startService({"definition-delay=0"});
  expectServedWithin16MiB("file://" + path, {}, 200, kSize);
}

TEST_F(MediaServiceTest,
       ServingAGibibyteOfAnUpstreamWithRangesRaisesTheEmulatorsMemoryByAtMost16MiB) {
  Upstream upstream;
  startService({"definition-delay=0"});
  constexpr std::uint64_t kFirst = 1000;
  expectServedWithin16MiB(upstream.url("large.webm"),
                          {{"Range", "bytes=" + std::to_string(kFirst) + "-"}}, 206,
                          Upstream::kLargeSize - kFirst);
}

TEST_F(MediaServiceTest,
       ServingAGibibyteOfAnUpstreamWithoutRangesRaisesTheEmulatorsMemoryByAtMost16MiB) {
  Upstream upstream(std::chrono::milliseconds(0), false);
  startService({"definition-delay=0"});
  expectServedWithin16MiB(upstream.url("large.webm"), {}, 200, Upstream::kLargeSize);
}

}  // namespace
