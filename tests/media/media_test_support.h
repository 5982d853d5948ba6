// Helpers of the media tests: the generated clips, a temporary folder, HTTP requests against a
// local URL that keep every header and count the bytes of a body that breaks off.

#ifndef ZVR_TESTS_MEDIA_MEDIA_TEST_SUPPORT_H_
#define ZVR_TESTS_MEDIA_MEDIA_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace zvr_test {

// Compares bytes without printing megabytes of them when they differ.
inline ::testing::AssertionResult sameBytes(const std::string& actual,
                                            const std::string& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  std::size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << actual.size() << " bytes where " << expected.size()
                                       << " were expected, first difference at byte " << at;
}

// Starts `server` on a loopback port of its own; returns the port. The server library ignores
// a stop() that comes before it runs, so this returns once it runs.
inline int startLoopbackServer(httplib::Server& server, std::thread& thread) {
  const int port = server.bind_to_any_port("127.0.0.1");
  thread = std::thread([&server] { server.listen_after_bind(); });
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server.is_running() && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return port;
}

inline std::string clipPath(const std::string& name) {
  return std::string(ZVR_TEST_MEDIA_DIR) + "/" + name;
}

inline std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

// A folder under /tmp, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/zvr-media.XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name, const std::string& bytes) const {
    const std::string full = path_ + "/" + name;
    std::ofstream(full, std::ios::binary) << bytes;
    return full;
  }

 private:
  std::string path_;
};

struct HttpAnswer {
  bool complete = false;  // the whole answer arrived
  int status = 0;
  httplib::Headers headers;
  std::string body;  // what arrived of it
  std::string header(const std::string& name) const {
    auto it = headers.find(name);
    return it != headers.end() ? it->second : std::string();
  }
};

// "http://127.0.0.1:PORT/path" -> the base and the path.
inline std::pair<std::string, std::string> splitURL(const std::string& url) {
  const std::size_t path = url.find('/', 7);
  return {url.substr(0, path), path == std::string::npos ? "/" : url.substr(path)};
}

// One request on a connection of its own. `onBytes`, when given, sees the count received so
// far after every piece and may end the request by returning false. The request fails when
// nothing arrives for `readTimeoutSeconds`.
inline HttpAnswer request(const std::string& url, const std::string& method = "GET",
                          const httplib::Headers& headers = {},
                          const std::function<bool(std::size_t)>& onBytes = nullptr,
                          int readTimeoutSeconds = 10) {
  const auto parts = splitURL(url);
  httplib::Client client(parts.first);
  client.set_connection_timeout(5);
  client.set_read_timeout(readTimeoutSeconds);
  HttpAnswer answer;
  httplib::Request r;
  r.method = method;
  r.path = parts.second;
  r.headers = headers;
  r.response_handler = [&answer](const httplib::Response& response) {
    answer.status = response.status;
    answer.headers = response.headers;
    return true;
  };
  r.content_receiver = [&answer, &onBytes](const char* data, std::size_t length,
                                           uint64_t /*offset*/, uint64_t /*total*/) {
    answer.body.append(data, length);
    return !onBytes || onBytes(answer.body.size());
  };
  httplib::Response response;
  httplib::Error error = httplib::Error::Success;
  answer.complete = client.send(r, response, error);
  if (answer.complete) {
    answer.status = response.status;
    answer.headers = response.headers;
  }
  return answer;
}

inline HttpAnswer getRange(const std::string& url, const std::string& range) {
  return request(url, "GET", {{"Range", range}});
}

}  // namespace zvr_test

#endif  // ZVR_TESTS_MEDIA_MEDIA_TEST_SUPPORT_H_
