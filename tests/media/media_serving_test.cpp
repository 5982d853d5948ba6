// The local URLs as a player sees them: the emulator's media server, in this process, serving
// the generated clips from files and through loopback upstream servers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "media_server.h"
#include "media_source.h"
#include "media_test_support.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using zvr_emulator::MediaServer;
using zvr_emulator::OpenedSource;
using zvr_emulator::ServingFaults;
using zvr_test::clipPath;
using zvr_test::getRange;
using zvr_test::HttpAnswer;
using zvr_test::readFile;
using zvr_test::request;
using zvr_test::sameBytes;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

class MediaServingTest : public ::testing::Test {
 protected:
  // Serves `source` at a new local URL, as a start would.
  std::string serve(const std::string& source) {
    const OpenedSource opened =
        zvr_emulator::openMediaSource(source, Clock::now() + std::chrono::seconds(2));
    EXPECT_EQ(opened.code, "200") << opened.detail;
    return opened.source ? server_.open("zvr-test-1", opened.source) : std::string();
  }
  void setFaults(const ServingFaults& faults) { server_.setFaults(faults); }

  MediaServer server_;
};

TEST_F(MediaServingTest, RangesGetTheirExactBytesWith206AtTheStartMiddleEndAndAsASuffix) {
  const std::string clip = readFile(clipPath("clip.mp4"));
  const std::string url = serve(clipPath("clip.mp4"));
  const std::string size = std::to_string(clip.size());
  const std::size_t middle = clip.size() / 2;
  const std::size_t last = clip.size() - 1;
  struct Case {
    std::string range;
    std::size_t first, length;
  };
  const std::vector<Case> cases = {
      {"bytes=0-99", 0, 100},
      {"bytes=" + std::to_string(middle) + "-" + std::to_string(middle + 4095), middle, 4096},
      {"bytes=" + std::to_string(last - 9) + "-" + std::to_string(last), last - 9, 10},
      {"bytes=-500", clip.size() - 500, 500},
      {"bytes=" + std::to_string(middle) + "-", middle, clip.size() - middle},
      {"bytes=" + std::to_string(last - 9) + "-" + std::to_string(last + 1000), last - 9, 10},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.range);
    const HttpAnswer answer = getRange(url, c.range);
    ASSERT_TRUE(answer.complete);
    EXPECT_EQ(answer.status, 206);
    EXPECT_TRUE(sameBytes(answer.body, clip.substr(c.first, c.length)));
    EXPECT_EQ(answer.header("Content-Range"), "bytes " + std::to_string(c.first) + "-" +
                                                  std::to_string(c.first + c.length - 1) + "/" +
                                                  size);
    EXPECT_EQ(answer.header("Content-Length"), std::to_string(c.length));
    EXPECT_EQ(answer.header("Accept-Ranges"), "bytes");
    EXPECT_EQ(answer.header("Content-Type"), "video/mp4");
  }
}

TEST_F(MediaServingTest, RequestWithoutARangeGetsTheWholeMediaAndAcceptRanges) {
  const std::string clip = readFile(clipPath("clip.webm"));
  const HttpAnswer answer = request(serve(clipPath("clip.webm")));
  ASSERT_TRUE(answer.complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(sameBytes(answer.body, clip));
  EXPECT_EQ(answer.header("Accept-Ranges"), "bytes");
  EXPECT_EQ(answer.header("Content-Length"), std::to_string(clip.size()));
}

TEST_F(MediaServingTest, UnsatisfiableRangeGets416WithTheMediaSize) {
  const std::string size = std::to_string(readFile(clipPath("clip.webm")).size());
  const std::string url = serve(clipPath("clip.webm"));
  for (const std::string& range :
       {"bytes=" + size + "-", "bytes=" + size + "-" + size + "0", std::string("bytes=-0")}) {
    SCOPED_TRACE(range);
    const HttpAnswer answer = getRange(url, range);
    ASSERT_TRUE(answer.complete);
    EXPECT_EQ(answer.status, 416);
    EXPECT_EQ(answer.header("Content-Range"), "bytes */" + size);
    EXPECT_TRUE(sameBytes(answer.body, ""));
  }
}

TEST_F(MediaServingTest, SeveralRangesGetTheWholeMediaAndAnUnreadableRangeGets416) {
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string url = serve(clipPath("clip.webm"));
  const HttpAnswer several = getRange(url, "bytes=0-1,5-6");
  EXPECT_EQ(several.status, 200);
  EXPECT_TRUE(sameBytes(several.body, clip));
  // The server library turns away what it cannot read as byte ranges.
  for (const char* range : {"items=0-1", "bytes=5-2", "bytes=x-"}) {
    EXPECT_EQ(getRange(url, range).status, 416) << range;
  }
}

TEST_F(MediaServingTest, HeadGivesTheHeadersOfTheGetWithoutABody) {
  const std::string size = std::to_string(readFile(clipPath("clip.ts")).size());
  const std::string url = serve(clipPath("clip.ts"));
  const HttpAnswer whole = request(url, "HEAD");
  ASSERT_TRUE(whole.complete);
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.header("Content-Length"), size);
  EXPECT_EQ(whole.header("Content-Type"), "video/mp2t");
  EXPECT_EQ(whole.header("Accept-Ranges"), "bytes");
  EXPECT_TRUE(sameBytes(whole.body, ""));

  const HttpAnswer part = request(url, "HEAD", {{"Range", "bytes=100-199"}});
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.header("Content-Length"), "100");
  EXPECT_EQ(part.header("Content-Range"), "bytes 100-199/" + size);
  EXPECT_TRUE(sameBytes(part.body, ""));
}

TEST_F(MediaServingTest, ContentTypeIsTheContainerOfTheBytesWhateverTheName) {
  zvr_test::TempDir dir;
  const std::vector<std::pair<std::string, std::string>> clips = {
      {"clip.webm", "video/webm"}, {"clip.mp4", "video/mp4"}, {"clip.ts", "video/mp2t"}};
  for (const auto& clip : clips) {
    // Each clip under the name of another container.
    const std::string misnamed = dir.file(clip.first + ".mp3", readFile(clipPath(clip.first)));
    const HttpAnswer answer = getRange(serve(misnamed), "bytes=0-0");
    EXPECT_EQ(answer.header("Content-Type"), clip.second) << clip.first;
  }
}

TEST_F(MediaServingTest, ClosedURLAnswers404AndOtherURLsStayServed) {
  const std::string first = serve(clipPath("clip.webm"));
  const std::string second = serve(clipPath("clip.webm"));
  EXPECT_NE(first, second);
  server_.close(first);
  EXPECT_EQ(request(first).status, 404);
  EXPECT_EQ(request(first, "HEAD").status, 404);
  EXPECT_EQ(request(second).status, 200);
  EXPECT_EQ(request(server_.base() + "/media/zvr-test-1/0123456789abcdef").status, 404);
  EXPECT_EQ(request(server_.base() + "/other").status, 404);
}

TEST_F(MediaServingTest, ObjectIdsThatNeedEscapingAreServedAtTheirURL) {
  const OpenedSource opened =
      zvr_emulator::openMediaSource(clipPath("clip.webm"), Clock::now() + std::chrono::seconds(2));
  ASSERT_EQ(opened.code, "200");
  for (const char* id : {"a b", "x/y", "%41", "caf\xc3\xa9?#"}) {
    SCOPED_TRACE(id);
    const std::string url = server_.open(id, opened.source);
    EXPECT_EQ(request(url, "HEAD").status, 200) << url;
    server_.close(url);
    EXPECT_EQ(request(url, "HEAD").status, 404) << url;
  }
}

TEST_F(MediaServingTest, ClosingEndsAResponseInProgress) {
  ServingFaults slow;
  slow.throttleBytesPerSecond = 100 * 1000;  // the 736 kB clip would take over 7 s
  setFaults(slow);
  const std::string url = serve(clipPath("clip.mp4"));
  const Clock::time_point begin = Clock::now();
  bool closed = false;
  const HttpAnswer answer = request(url, "GET", {}, [&](std::size_t received) {
    if (received >= 10000 && !closed) {
      server_.close(url);  // while the response is in progress
      closed = true;
    }
    return true;
  });
  EXPECT_TRUE(closed);
  EXPECT_FALSE(answer.complete);
  EXPECT_LT(answer.body.size(), 200000u);
  EXPECT_LT(secondsSince(begin), 3.0);
}

// Each player keeps its connection alive and opens a second one for every seek, as browsers
// do. A server with too few workers makes the second connections wait until a kept-alive one
// is given up, a second or more; every request here takes milliseconds otherwise.
TEST_F(MediaServingTest, EightKeptAliveClientsSeekWithoutStalling) {
  const std::string clip = readFile(clipPath("clip.mp4"));
  const std::string url = serve(clipPath("clip.mp4"));
  const auto parts = zvr_test::splitURL(url);
  std::mutex mutex;
  int wrong = 0;
  int failed = 0;
  double slowest = 0;
  const auto check = [&](httplib::Client& client, std::size_t first, std::size_t length) {
    const std::string range =
        "bytes=" + std::to_string(first) + "-" + std::to_string(first + length - 1);
    const Clock::time_point begin = Clock::now();
    httplib::Result result = client.Get(parts.second.c_str(), {{"Range", range}});
    const double elapsed = secondsSince(begin);
    std::lock_guard<std::mutex> lock(mutex);
    slowest = std::max(slowest, elapsed);
    if (!result) {
      ++failed;
    } else if (result->status != 206 || result->body != clip.substr(first, length)) {
      ++wrong;
    }
  };

  std::vector<std::thread> players;
  for (int p = 0; p < 8; ++p) {
    players.emplace_back([&, p] {
      std::mt19937 random(static_cast<unsigned>(p));
      httplib::Client playing(parts.first);
      playing.set_keep_alive(true);
      playing.set_read_timeout(10);
      check(playing, 0, 64 * 1024);
      for (int seek = 0; seek < 4; ++seek) {
        httplib::Client seeking(parts.first);
        seeking.set_keep_alive(true);
        seeking.set_read_timeout(10);
        const std::size_t first = random() % (clip.size() - 32 * 1024);
        check(seeking, first, 32 * 1024);
        check(playing, first / 2, 16 * 1024);  // the first connection stays in use
      }
    });
  }
  for (std::thread& player : players) player.join();
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(wrong, 0);
  EXPECT_LT(slowest, 0.9);
}

// Faults, as set for the whole emulator.

TEST_F(MediaServingTest, ThrottleLimitsTheRateOfABody) {
  ServingFaults faults;
  faults.throttleBytesPerSecond = 200 * 1000;
  setFaults(faults);
  const Clock::time_point begin = Clock::now();
  const HttpAnswer answer = getRange(serve(clipPath("clip.mp4")), "bytes=0-99999");
  ASSERT_TRUE(answer.complete);
  EXPECT_EQ(answer.body.size(), 100000u);
  // All but the first piece (a twentieth of a second's worth) wait for their turn.
  EXPECT_GE(secondsSince(begin), 0.9 * (100000 - 10000) / 200000.0);
}

TEST_F(MediaServingTest, CutAfterClosesTheConnectionAfterThatManyBytes) {
  ServingFaults faults;
  faults.cutAfterBytes = 50000;
  setFaults(faults);
  const std::string clip = readFile(clipPath("clip.webm"));
  const HttpAnswer answer = request(serve(clipPath("clip.webm")));
  EXPECT_FALSE(answer.complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(sameBytes(answer.body, clip.substr(0, 50000)));
}

TEST_F(MediaServingTest, NoRangeAnswersRangesWith200AndTheWholeBody) {
  ServingFaults faults;
  faults.noRange = true;
  setFaults(faults);
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string url = serve(clipPath("clip.webm"));
  const HttpAnswer answer = getRange(url, "bytes=100-199");
  ASSERT_TRUE(answer.complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(sameBytes(answer.body, clip));
  EXPECT_EQ(answer.header("Content-Range"), "");
  EXPECT_EQ(answer.header("Accept-Ranges"), "none");
  EXPECT_EQ(request(url, "HEAD").header("Accept-Ranges"), "none");

  setFaults(ServingFaults());  // changed while serving
  EXPECT_EQ(getRange(url, "bytes=100-199").status, 206);
}

TEST_F(MediaServingTest, FirstByteDelayHoldsTheAnswer) {
  ServingFaults faults;
  faults.firstByteDelayMs = 300;
  setFaults(faults);
  const std::string url = serve(clipPath("clip.webm"));
  const Clock::time_point begin = Clock::now();
  const HttpAnswer answer = getRange(url, "bytes=0-9");
  EXPECT_EQ(answer.status, 206);
  EXPECT_GE(secondsSince(begin), 0.29);
}

// http:// sources: a loopback server of this test stands for the upstream.

class UpstreamTest : public MediaServingTest {
 protected:
  void SetUp() override {
    clip_ = readFile(clipPath("clip.webm"));
    // Ranges answered by the server library itself.
    upstream_.Get("/ranged.webm", [this](const httplib::Request&, httplib::Response& response) {
      response.set_content_provider(
          clip_.size(), "application/octet-stream",
          [this](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            return sink.write(clip_.data() + offset, std::min<std::size_t>(length, 8192));
          });
    });
    // A server without ranges, sending its body in chunks.
    upstream_.Get("/whole.webm",
                  [this](const httplib::Request& request, httplib::Response& response) {
                    const_cast<httplib::Request&>(request).ranges.clear();
                    response.status = 200;
                    response.set_chunked_content_provider(
                        "video/webm", [this](std::size_t offset, httplib::DataSink& sink) {
                          if (offset >= clip_.size()) {
                            sink.done();
                            return true;
                          }
                          return sink.write(clip_.data() + offset,
                                            std::min<std::size_t>(clip_.size() - offset, 5000));
                        });
                  });
    upstream_.Get("/text", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("<html>not media</html>", "text/html");
    });
    upstream_.Get("/broken", [](const httplib::Request&, httplib::Response& response) {
      response.status = 500;
    });
    port_ = zvr_test::startLoopbackServer(upstream_, thread_);
  }
  void TearDown() override {
    upstream_.stop();
    thread_.join();
  }
  std::string upstreamURL(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

  std::string clip_;
  httplib::Server upstream_;
  int port_ = 0;
  std::thread thread_;
};

TEST_F(UpstreamTest, RangesArePassedToAnUpstreamThatServesThem) {
  const std::string url = serve(upstreamURL("/ranged.webm"));
  const HttpAnswer part = getRange(url, "bytes=1000-1999");
  ASSERT_TRUE(part.complete);
  EXPECT_EQ(part.status, 206);
  EXPECT_TRUE(sameBytes(part.body, clip_.substr(1000, 1000)));
  EXPECT_EQ(part.header("Content-Range"), "bytes 1000-1999/" + std::to_string(clip_.size()));
  EXPECT_EQ(part.header("Accept-Ranges"), "bytes");
  EXPECT_EQ(part.header("Content-Type"), "video/webm");  // sniffed, not the upstream's

  const HttpAnswer suffix = getRange(url, "bytes=-100");
  EXPECT_EQ(suffix.status, 206);
  EXPECT_TRUE(sameBytes(suffix.body, clip_.substr(clip_.size() - 100)));
  const HttpAnswer whole = request(url);
  EXPECT_EQ(whole.status, 200);
  EXPECT_TRUE(sameBytes(whole.body, clip_));
}

TEST_F(UpstreamTest, UpstreamWithoutRangesIsServedWholeWithoutThem) {
  const std::string url = serve(upstreamURL("/whole.webm"));
  const HttpAnswer answer = getRange(url, "bytes=1000-1999");
  ASSERT_TRUE(answer.complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(sameBytes(answer.body, clip_));
  EXPECT_EQ(answer.header("Accept-Ranges"), "none");
  EXPECT_EQ(answer.header("Content-Type"), "video/webm");
}

TEST_F(UpstreamTest, ClosingEndsAnUpstreamResponseInProgress) {
  ServingFaults slow;
  slow.throttleBytesPerSecond = 20 * 1000;
  setFaults(slow);
  const std::string url = serve(upstreamURL("/ranged.webm"));
  bool closed = false;
  const HttpAnswer answer = request(url, "GET", {}, [&](std::size_t /*received*/) {
    if (!closed) {
      server_.close(url);  // while the response is in progress
      closed = true;
    }
    return true;
  });
  EXPECT_TRUE(closed);
  EXPECT_FALSE(answer.complete);
  EXPECT_LT(answer.body.size(), clip_.size());
}

// Each way a source fails, with its result code.

class FailingSourceTest : public UpstreamTest {
 protected:
  OpenedSource open(const std::string& source,
                    std::chrono::milliseconds within = std::chrono::milliseconds(150)) {
    return zvr_emulator::openMediaSource(source, Clock::now() + within);
  }
};

TEST_F(FailingSourceTest, UnknownSchemeOrNoPathIs400) {
  for (const char* source : {"ftp://127.0.0.1/a.webm", "media/clip.webm", "", "file://host/a"}) {
    const OpenedSource opened = open(source);
    EXPECT_EQ(opened.code, "400") << source;
    EXPECT_FALSE(opened.detail.empty()) << source;
    EXPECT_EQ(opened.source, nullptr);
  }
  EXPECT_THAT(open("rtsp://127.0.0.1/x").detail, HasSubstr("rtsp:"));
}

TEST_F(FailingSourceTest, MissingFileOrDirectoryIs404) {
  zvr_test::TempDir dir;
  const OpenedSource missing = open("file://" + dir.path() + "/none.webm");
  EXPECT_EQ(missing.code, "404");
  EXPECT_THAT(missing.detail, HasSubstr("none.webm"));
  EXPECT_EQ(open(dir.path()).code, "404");
}

// Root reads every file through CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH; this test process
// gives them up (from its effective set only), so that a file's mode counts as for a service
// that runs as an ordinary user.
void dropFileReadOverride() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
  for (int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) {
    data[capability / 32].effective &= ~(1u << (capability % 32));
  }
  ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
}

TEST_F(FailingSourceTest, UnreadableFileIs403) {
  dropFileReadOverride();
  zvr_test::TempDir dir;
  const std::string path = dir.file("locked.webm", readFile(clipPath("clip.webm")));
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  EXPECT_EQ(open(path).code, "403");
}

TEST_F(FailingSourceTest, FifoOrDeviceIs404WithoutWaitingForAWriter) {
  zvr_test::TempDir dir;
  const std::string fifo = dir.path() + "/pipe.webm";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Clock::time_point begin = Clock::now();
  const OpenedSource opened = open(fifo);
  EXPECT_EQ(opened.code, "404");
  EXPECT_THAT(opened.detail, HasSubstr("not a regular file"));
  EXPECT_EQ(open("file:///dev/null").code, "404");
  EXPECT_LT(secondsSince(begin), 1.0);
}

TEST_F(FailingSourceTest, ContentThatIsNoMediaContainerIs415) {
  zvr_test::TempDir dir;
  EXPECT_EQ(open(dir.file("empty.webm", "")).code, "415");
  const OpenedSource text = open(dir.file("text.webm", "just some text, not a container\n"));
  EXPECT_EQ(text.code, "415");
  EXPECT_THAT(text.detail, HasSubstr("text.webm"));
  EXPECT_EQ(open(upstreamURL("/text")).code, "415");
}

TEST_F(FailingSourceTest, PercentEscapesOfAFileURLAreDecoded) {
  zvr_test::TempDir dir;
  dir.file("a clip.webm", readFile(clipPath("clip.webm")));
  EXPECT_EQ(open("file://" + dir.path() + "/a%20clip.webm").code, "200");
  EXPECT_EQ(open("file://localhost" + dir.path() + "/a%20clip.webm").code, "200");
}

TEST_F(FailingSourceTest, UpstreamThatIsMissingFailingOrUnreachableIs404Or502) {
  EXPECT_EQ(open(upstreamURL("/none.webm")).code, "404");
  EXPECT_EQ(open(upstreamURL("/broken")).code, "502");

  // A port nobody listens on any more.
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&address), &length), 0);
  close(s);
  const OpenedSource refused =
      open("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/a.webm");
  EXPECT_EQ(refused.code, "502");
  EXPECT_THAT(refused.detail, HasSubstr("refused"));
}

TEST_F(FailingSourceTest, UpstreamThatDoesNotAnswerIs504ByTheDeadline) {
  // Listening, so the connection is made, but never answering.
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(s, 4), 0);
  ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const Clock::time_point begin = Clock::now();
  const OpenedSource silent =
      open("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/a.webm");
  const double elapsed = secondsSince(begin);
  close(s);
  EXPECT_EQ(silent.code, "504");
  EXPECT_GE(elapsed, 0.14);
  EXPECT_LT(elapsed, 0.45);
}

// A loopback upstream that answers every connection with bytes of the test's making, for answers
// that a well-behaved server library never gives: `answer` gets the head of the request and
// returns what to send. The connection is then closed or, with `hold`, kept open and silent
// until the upstream is destroyed.
class ScriptedUpstream {
 public:
  using Answer = std::function<std::string(const std::string& requestHead)>;

  explicit ScriptedUpstream(std::string answer)
      : ScriptedUpstream([answer](const std::string&) { return answer; }) {}
  explicit ScriptedUpstream(Answer answer, bool hold = false)
      : answer_(std::move(answer)), hold_(hold) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_, 8) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("cannot listen on the loopback");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedUpstream() {
    stopping_ = true;
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
    for (int connection : held_) close(connection);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/a.webm"; }
  // The head of the last request, as it arrived.
  std::string lastRequest() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastRequest_;
  }

 private:
  void serve() {
    while (!stopping_) {
      const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) return;
      std::string head;
      char buffer[1024];
      while (head.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = recv(connection, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        head.append(buffer, static_cast<std::size_t>(n));
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        lastRequest_ = head;
      }
      const std::string answer = answer_(head);
      std::size_t sent = 0;
      while (sent < answer.size()) {
        const ssize_t n =
            send(connection, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
      }
      if (hold_) {
        held_.push_back(connection);
      } else {
        close(connection);
      }
    }
  }

  const Answer answer_;
  const bool hold_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::vector<int> held_;  // used by the serving thread, then by the destructor
  std::thread thread_;
  std::mutex mutex_;
  std::string lastRequest_;
};

TEST_F(FailingSourceTest, UpstreamRefusalsAndBrokenAnswersGetTheirCodes) {
  struct Case {
    const char* answer;
    const char* code;
  };
  const Case cases[] = {
      {"HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n", "403"},
      {"HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n", "403"},
      {"HTTP/1.1 410 Gone\r\nContent-Length: 0\r\n\r\n", "404"},
      {"HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */0\r\n\r\n", "415"},
      {"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n", "502"},
      {"SSH-2.0-OpenSSH_9.2\r\n", "502"},        // not HTTP at all
      {"", "502"},                               // closed without an answer
      {"HTTP/1.1 200 OK\r\nContent-Le", "502"},  // closed within the head
      {"HTTP/1.1 200 OK\r\nContent-Length: 4096\r\n\r\n\x1a\x45", "502"},  // body broke off
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer);
    ScriptedUpstream upstream(c.answer);
    const OpenedSource opened = open(upstream.url());
    EXPECT_EQ(opened.code, c.code);
    EXPECT_FALSE(opened.detail.empty());
    EXPECT_EQ(opened.source, nullptr);
  }
}

// Chunk sizes that a lenient number parser would take: a negative one once became a copy of
// nearly the whole address space.
TEST_F(FailingSourceTest, ChunkSizesThatAreNoHexNumberBreakTheAnswer) {
  for (const char* size : {"-1", "+10", " 10", "0x10", "1g", "", "ffffffffffffffff"}) {
    SCOPED_TRACE(size);
    ScriptedUpstream upstream(std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n") +
                              size + "\r\n\x1a\x45\xdf\xa3\r\n0\r\n\r\n");
    EXPECT_EQ(open(upstream.url()).code, "502");
  }
}

TEST_F(FailingSourceTest, BlanksOrControlCharactersInAnHttpSourceAre400AndNothingIsSent) {
  ScriptedUpstream upstream("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  for (const std::string& tail : {std::string("\r\nX-Injected: 1"), std::string(" HTTP/1.0"),
                                  std::string("\n"), std::string("\x7f")}) {
    const OpenedSource opened = open(upstream.url() + tail);
    EXPECT_EQ(opened.code, "400");
    EXPECT_THAT(opened.detail, HasSubstr("control character"));
  }
  EXPECT_EQ(upstream.lastRequest(), "");
  EXPECT_EQ(open(upstream.url()).code, "404");  // the same upstream, asked properly
  EXPECT_THAT(upstream.lastRequest(), StartsWith("GET /a.webm HTTP/1.1\r\n"));
}

TEST_F(FailingSourceTest, UpstreamOffTheLoopbackIs403) {
  const OpenedSource remote = open("http://192.0.2.1/a.webm");
  EXPECT_EQ(remote.code, "403");
  EXPECT_THAT(remote.detail, HasSubstr("loopback"));
  EXPECT_EQ(open("http://example.com/a.webm").code, "403");
  EXPECT_EQ(open("http://user@127.0.0.1/a.webm").code, "400");
}

// Failures while a response is in progress: the response ends, at once or after the upstream's
// silence limit, and never hangs or takes the server down.

class ServingFailureTest : public MediaServingTest {};

double silenceLimitSeconds() {
  return std::chrono::duration<double>(zvr_emulator::kUpstreamSilence).count();
}

TEST_F(ServingFailureTest, UpstreamThatBreaksOffMidBodyEndsTheLocalResponse) {
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string part = clip.substr(0, 100000);
  char chunkSize[16];
  std::snprintf(chunkSize, sizeof chunkSize, "%zx", part.size());
  // Shorter than its length, and in chunks without the last one.
  const std::string answers[] = {
      "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(clip.size()) + "\r\n\r\n" + part,
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(chunkSize) + "\r\n" +
          part + "\r\n"};
  for (const std::string& answer : answers) {
    SCOPED_TRACE(answer.substr(0, 60));
    ScriptedUpstream upstream(answer);
    const std::string url = serve(upstream.url());
    const Clock::time_point begin = Clock::now();
    const HttpAnswer got = request(url);
    EXPECT_FALSE(got.complete);
    EXPECT_EQ(got.status, 200);
    EXPECT_TRUE(sameBytes(got.body, part));
    EXPECT_LT(secondsSince(begin), silenceLimitSeconds() / 2);  // not waiting for more
  }
}

TEST_F(ServingFailureTest, UpstreamThatGoesSilentMidBodyEndsTheResponseAfterTheSilenceLimit) {
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string part = clip.substr(0, 100000);
  ScriptedUpstream upstream(
      [&](const std::string&) {
        return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(clip.size()) + "\r\n\r\n" +
               part;
      },
      true);
  const std::string url = serve(upstream.url());
  const int readTimeout = static_cast<int>(4 * silenceLimitSeconds());
  Clock::time_point lastBytes = Clock::now();
  const HttpAnswer got = request(
      url, "GET", {},
      [&](std::size_t) {
        lastBytes = Clock::now();
        return true;
      },
      readTimeout);
  const double silent = secondsSince(lastBytes);
  EXPECT_FALSE(got.complete);
  EXPECT_TRUE(sameBytes(got.body, part));
  EXPECT_GE(silent, 0.9 * silenceLimitSeconds());
  EXPECT_LT(silent, 3 * silenceLimitSeconds());
}

TEST_F(ServingFailureTest, UpstreamThatDoesNotAnswerARequestGets504AfterTheSilenceLimit) {
  const std::string clip = readFile(clipPath("clip.webm"));
  // The first bytes, asked for when the source is opened, come; later requests get nothing.
  ScriptedUpstream upstream(
      [&](const std::string& head) -> std::string {
        if (head.find("Range: bytes=0-4095\r\n") == std::string::npos) return std::string();
        return "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-4095/" +
               std::to_string(clip.size()) + "\r\nContent-Length: 4096\r\n\r\n" +
               clip.substr(0, 4096);
      },
      true);
  const std::string url = serve(upstream.url());
  const Clock::time_point begin = Clock::now();
  const HttpAnswer got = request(url, "GET", {{"Range", "bytes=0-99"}}, nullptr,
                                 static_cast<int>(4 * silenceLimitSeconds()));
  const double waited = secondsSince(begin);
  EXPECT_TRUE(got.complete);
  EXPECT_EQ(got.status, 504);
  EXPECT_GE(waited, 0.9 * silenceLimitSeconds());
  EXPECT_LT(waited, 3 * silenceLimitSeconds());
}

TEST_F(ServingFailureTest, UpstreamsRangeNotSatisfiableIsPassedThrough) {
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string size = std::to_string(clip.size());
  // The first bytes, asked for when the source is opened, come; every other range is refused.
  ScriptedUpstream upstream([&](const std::string& head) -> std::string {
    if (head.find("Range: bytes=0-4095\r\n") == std::string::npos) {
      return "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" + size +
             "\r\nContent-Length: 0\r\n\r\n";
    }
    return "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-4095/" + size +
           "\r\nContent-Length: 4096\r\n\r\n" + clip.substr(0, 4096);
  });
  const std::string url = serve(upstream.url());
  const HttpAnswer answer = getRange(url, "bytes=" + size + "-");
  ASSERT_TRUE(answer.complete);
  EXPECT_EQ(answer.status, 416);
  EXPECT_EQ(answer.header("Content-Range"), "bytes */" + size);
  EXPECT_THAT(upstream.lastRequest(), HasSubstr("Range: bytes=" + size + "-\r\n"));
}

TEST_F(ServingFailureTest, UpstreamsPartialAnswerWithABrokenRangeIs502) {
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string size = std::to_string(clip.size());
  const std::string broken[] = {"bytes 0-99/" + size, "bytes 50-40/" + size, "bytes 0-99/50",
                                "bytes 0-x/" + size, "items 0-9/" + size};
  for (const std::string& contentRange : broken) {
    SCOPED_TRACE(contentRange);
    ScriptedUpstream upstream([&](const std::string& head) -> std::string {
      if (head.find("Range: bytes=0-4095\r\n") == std::string::npos) {
        return "HTTP/1.1 206 Partial Content\r\nContent-Range: " + contentRange +
               "\r\nContent-Length: 10\r\n\r\n" + clip.substr(0, 10);
      }
      return "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-4095/" + size +
             "\r\nContent-Length: 4096\r\n\r\n" + clip.substr(0, 4096);
    });
    const HttpAnswer answer = getRange(serve(upstream.url()), "bytes=0-9");
    EXPECT_EQ(answer.status, 502);
    EXPECT_THAT(answer.body, HasSubstr(contentRange));
  }
}

// The server library answers a range that starts past the end with 206 and the range
// "bytes SIZE-(SIZE-1)/SIZE", no bytes at all.
TEST_F(UpstreamTest, RangePastTheEndIs416AlsoWhenTheUpstreamAnswersItWith206) {
  const std::string url = serve(upstreamURL("/ranged.webm"));
  const std::string size = std::to_string(clip_.size());
  const HttpAnswer answer = getRange(url, "bytes=" + size + "-");
  ASSERT_TRUE(answer.complete);
  EXPECT_EQ(answer.status, 416);
  EXPECT_EQ(answer.header("Content-Range"), "bytes */" + size);
  EXPECT_EQ(getRange(url, "bytes=0-9").status, 206);  // the source serves on
}

TEST_F(ServingFailureTest, FileThatShrinksWhileServedEndsTheResponseAtItsNewEnd) {
  zvr_test::TempDir dir;
  const std::string clip = readFile(clipPath("clip.mp4"));
  const std::string path = dir.file("shrinking.mp4", clip);
  ServingFaults paced;
  paced.throttleBytesPerSecond = 400 * 1000;  // the 736 kB would take about 1.8 s
  setFaults(paced);
  const std::string url = serve(path);
  constexpr std::size_t kNewSize = 300000;
  bool shrunk = false;
  const Clock::time_point begin = Clock::now();
  const HttpAnswer answer = request(url, "GET", {}, [&](std::size_t received) {
    if (received >= 100000 && !shrunk) shrunk = truncate(path.c_str(), kNewSize) == 0;
    return true;
  });
  EXPECT_TRUE(shrunk);
  EXPECT_FALSE(answer.complete);
  EXPECT_EQ(answer.header("Content-Length"), std::to_string(clip.size()));
  EXPECT_TRUE(sameBytes(answer.body, clip.substr(0, kNewSize)));
  EXPECT_LT(secondsSince(begin), 3.0);

  setFaults(ServingFaults());
  const HttpAnswer after = request(url);  // later requests see the new size
  EXPECT_EQ(after.status, 200);
  EXPECT_TRUE(sameBytes(after.body, clip.substr(0, kNewSize)));
  EXPECT_EQ(getRange(url, "bytes=400000-").status, 416);
}

// Clients that no HTTP library makes: a connection written by hand.
class RawClient {
 public:
  // Connects to the server at `base`, "http://127.0.0.1:PORT".
  explicit RawClient(const std::string& base) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(base.substr(base.rfind(':') + 1))));
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawClient() { close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }
  bool send(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }
  // What arrives until the server closes the connection, at most `within`.
  std::string receiveAll(std::chrono::milliseconds within) {
    return receive(within, [](const std::string&) { return false; });
  }
  // What arrives up to the end of an answer's head or the connection's, at most `within`.
  std::string receiveHead(std::chrono::milliseconds within) {
    return receive(
        within, [](const std::string& got) { return got.find("\r\n\r\n") != std::string::npos; });
  }

 private:
  std::string receive(std::chrono::milliseconds within,
                      const std::function<bool(const std::string&)>& enough) {
    const Clock::time_point deadline = Clock::now() + within;
    std::string got;
    char buffer[4096];
    while (!enough(got)) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
      const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) break;  // closed, or reset with bytes still unread on the server's side
      got.append(buffer, static_cast<std::size_t>(n));
    }
    return got;
  }

  int fd_ = -1;
  bool connected_ = false;
};

// The status line of an answer, "" when none came.
std::string statusLine(const std::string& answer) { return answer.substr(0, answer.find('\r')); }

// Threads started in its scope get `bytes` of stack unless they ask for a size of their own, as
// where a low stack limit is set; the previous default comes back at its end.
class DefaultThreadStack {
 public:
  explicit DefaultThreadStack(std::size_t bytes) {
    pthread_getattr_default_np(&previous_);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, bytes);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
  }
  ~DefaultThreadStack() {
    pthread_setattr_default_np(&previous_);
    pthread_attr_destroy(&previous_);
  }
  DefaultThreadStack(const DefaultThreadStack&) = delete;
  DefaultThreadStack& operator=(const DefaultThreadStack&) = delete;

 private:
  pthread_attr_t previous_;
};

class BrokenClientTest : public MediaServingTest {
 protected:
  // The whole clip is served correctly to a well-behaved client.
  void expectServed(const std::string& url, const std::string& clip) {
    const HttpAnswer answer = request(url);
    EXPECT_EQ(answer.status, 200);
    EXPECT_TRUE(sameBytes(answer.body, clip));
  }
};

// Also where threads get a small stack by default: the server's workers must not depend on it.
TEST_F(BrokenClientTest, BrokenRequestsAreTurnedAwayAndTheServerServesOn) {
  const DefaultThreadStack small(1 << 20);
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string url = serve(clipPath("clip.webm"));
  const std::string path = zvr_test::splitURL(url).second;
  const auto get = [&path](const std::string& target, const std::string& headers) {
    return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers +
           "Connection: close\r\n\r\n";
  };
  std::string emptyRanges = "bytes=-";
  while (emptyRanges.size() < 8100) emptyRanges += ",-";
  std::string manyRanges = "bytes=0-1";
  while (manyRanges.size() < 8000) manyRanges += ",0-1";
  std::string manyHeaders;
  for (int i = 0; i < 2000; ++i) manyHeaders += "X-Header-" + std::to_string(i) + ": value\r\n";
  struct Case {
    std::string name, bytes, status;  // status: the status line's start, "" for no answer
  };
  const std::vector<Case> cases = {
      {"binary garbage", std::string("\x16\x03\x01\x02\x00\x01\x00\xff\r\n\r\n", 12),
       "HTTP/1.1 400"},
      {"no request line", "\r\n\r\n", "HTTP/1.1 400"},
      {"unknown version", "GET " + path + " HTTP/7.0\r\n\r\n", "HTTP/1.1 400"},
      {"unknown method", "BREW " + path + " HTTP/1.1\r\nConnection: close\r\n\r\n", "HTTP/1.1 4"},
      {"request line of 64 KiB", get("/media/" + std::string(65536, 'a'), ""), "HTTP/1.1 414"},
      {"header of 64 KiB", get(path, "X-Long: " + std::string(65536, 'x') + "\r\n"), ""},
      {"2000 headers", get(path, manyHeaders), "HTTP/1.1 200"},
      {"range past 2^64", get(path, "Range: bytes=99999999999999999999999-\r\n"), "HTTP/1.1 416"},
      {"range end past 2^64", get(path, "Range: bytes=0-99999999999999999999999\r\n"),
       "HTTP/1.1 416"},
      {"suffix past 2^64", get(path, "Range: bytes=-99999999999999999999999\r\n"), "HTTP/1.1 416"},
      {"range of 2000 parts", get(path, "Range: " + manyRanges + "\r\n"), "HTTP/1.1 200"},
      {"range of 4000 empty parts", get(path, "Range: " + emptyRanges + "\r\n"), "HTTP/1.1 200"},
      {"range of commas", get(path, "Range: bytes=" + std::string(8000, ',') + "\r\n"),
       "HTTP/1.1 416"},
      {"path of 8 KiB", get("/media/" + std::string(8100, 'a') + "/0123456789abcdef", ""),
       "HTTP/1.1 404"},
      {"path of 8 KiB of slashes", get("/media/" + std::string(8100, '/') + "0123456789abcdef", ""),
       "HTTP/1.1 404"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawClient client(server_.base());
    ASSERT_TRUE(client.connected());
    client.send(c.bytes);  // the server may close before it has read everything
    // The server answers, or closes the connection of a request it cannot read at all.
    const std::string answer = client.receiveHead(std::chrono::seconds(10));
    if (c.status.empty()) {
      EXPECT_THAT(statusLine(answer), ::testing::AnyOf("", StartsWith("HTTP/1.1 4")));
    } else {
      EXPECT_THAT(statusLine(answer), StartsWith(c.status));
    }
    expectServed(url, clip);
  }
}

TEST_F(BrokenClientTest, RequestSentSlowlyIsAnsweredWhileOthersAreServed) {
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string url = serve(clipPath("clip.webm"));
  const std::string slowRequest = "GET " + zvr_test::splitURL(url).second +
                                  " HTTP/1.1\r\nHost: 127.0.0.1\r\nRange: bytes=100-199\r\n"
                                  "Connection: close\r\n\r\n";
  RawClient slow(server_.base());
  ASSERT_TRUE(slow.connected());
  std::atomic<bool> sent{false};
  std::thread sender([&] {
    // A byte at a time, over about a second, well inside the server's read time-out.
    const auto pause = std::chrono::milliseconds(1000) / slowRequest.size();
    for (char c : slowRequest) {
      if (!slow.send(std::string(1, c))) return;
      std::this_thread::sleep_for(pause);
    }
    sent = true;
  });
  int served = 0;
  while (!sent && served < 1000) {
    expectServed(url, clip);
    ++served;
  }
  sender.join();
  ASSERT_TRUE(sent);
  EXPECT_GT(served, 0);
  const std::string answer = slow.receiveAll(std::chrono::seconds(10));
  EXPECT_THAT(statusLine(answer), StartsWith("HTTP/1.1 206"));
  const std::size_t body = answer.find("\r\n\r\n");
  ASSERT_NE(body, std::string::npos);
  EXPECT_TRUE(sameBytes(answer.substr(body + 4), clip.substr(100, 100)));
}

TEST_F(BrokenClientTest, ClientsThatLeaveMidResponseDoNotStopTheServer) {
  zvr_test::TempDir dir;
  // The clip's bytes followed by a hole: 64 MiB that the server cannot have sent ahead.
  const std::string clip = readFile(clipPath("clip.webm"));
  const std::string path = dir.file("long.webm", clip);
  ASSERT_EQ(truncate(path.c_str(), 64 << 20), 0);
  const std::string longURL = serve(path);
  const std::string url = serve(clipPath("clip.webm"));
  std::vector<std::thread> leaving;
  for (int i = 0; i < 16; ++i) {
    leaving.emplace_back([&longURL] {
      const HttpAnswer answer = request(longURL, "GET", {}, [](std::size_t received) {
        return received < 100000;  // leaves after the first 100 kB
      });
      EXPECT_FALSE(answer.complete);
      EXPECT_EQ(answer.status, 200);
    });
  }
  for (std::thread& t : leaving) t.join();
  RawClient raw(server_.base());  // and one that leaves without reading anything
  ASSERT_TRUE(raw.connected());
  raw.send("GET " + zvr_test::splitURL(longURL).second + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  expectServed(url, clip);
}

// The server gives every connection a worker of its own for as long as it lasts, idle time
// included: players keep theirs alive between requests, browsers open some ahead of time.
TEST_F(BrokenClientTest, FortyIdleConnectionsDoNotKeepANewClientWaiting) {
  const std::string url = serve(clipPath("clip.webm"));
  const std::string head =
      "HEAD " + zvr_test::splitURL(url).second + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  std::vector<std::unique_ptr<RawClient>> idle;
  for (int i = 0; i < 20; ++i) {  // asked once, kept alive
    idle.push_back(std::make_unique<RawClient>(server_.base()));
    ASSERT_TRUE(idle.back()->connected());
    ASSERT_TRUE(idle.back()->send(head));
    const Clock::time_point begin = Clock::now();
    EXPECT_THAT(statusLine(idle.back()->receiveHead(std::chrono::seconds(5))),
                StartsWith("HTTP/1.1 200"))
        << "connection " << i;
    EXPECT_LT(secondsSince(begin), 1.0) << "connection " << i;
  }
  for (int i = 0; i < 20; ++i) {  // opened ahead, never asked
    idle.push_back(std::make_unique<RawClient>(server_.base()));
    ASSERT_TRUE(idle.back()->connected());
  }
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(request(url, "HEAD").status, 200);
  EXPECT_LT(secondsSince(begin), 1.0);
}

}  // namespace
