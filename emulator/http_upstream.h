// The emulator's side of an http:// source: one HTTP/1.1 exchange with the upstream server on a
// connection of its own, reading the body piecewise so that nothing is buffered beyond one read.
//
// Only loopback servers are reached ("127.x.x.x", "localhost", "[::1]"): the media service
// fetches from the television itself, never from the network on a host's behalf.
//
// An exchange belongs to one thread at a time.

#ifndef ZVR_EMULATOR_HTTP_UPSTREAM_H_
#define ZVR_EMULATOR_HTTP_UPSTREAM_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zvr_emulator {

// An http:// URL on the loopback, split for a request.
struct LoopbackURL {
  std::string host;     // as written in the URL, for the Host header
  std::string address;  // numeric, for connect()
  int port = 80;
  std::string target;  // path and query, at least "/"
};

enum class URLCheck { kOk, kMalformed, kNotLoopback };

// Parses `url`, an http:// URL; anything but kOk comes with a reason in *error.
URLCheck parseLoopbackURL(const std::string& url, LoopbackURL* parsed, std::string* error);

class UpstreamExchange {
 public:
  using Clock = std::chrono::steady_clock;

  // How the exchange failed.
  enum class Failure { kNone, kRefused, kTimedOut, kBroken };

  UpstreamExchange() = default;
  ~UpstreamExchange();
  UpstreamExchange(const UpstreamExchange&) = delete;
  UpstreamExchange& operator=(const UpstreamExchange&) = delete;

  // Connects, sends "METHOD target" with `extraHeaders` (complete lines, each ending in "\r\n")
  // and reads the answer's status line and headers, all by `deadline`. False with failure()
  // and a reason in *error when that does not succeed.
  bool open(const LoopbackURL& url, const std::string& method, const std::string& extraHeaders,
            Clock::time_point deadline, std::string* error);

  int status() const { return status_; }
  // The value of a header (name in lower case), or "" when the answer has none.
  std::string header(const std::string& lowerCaseName) const;
  // The body's length from Content-Length; -1 when the answer does not give one.
  std::int64_t contentLength() const { return contentLength_; }
  Failure failure() const { return failure_; }

  // What read() returns when nothing arrived in time; the exchange can be read again.
  static constexpr long kNothingYet = -2;

  // Reads up to `size` bytes of the body, waiting at most `timeoutMs`. Returns the count, 0 at
  // the body's end, kNothingYet, or -1 on an error (a broken connection or framing, a body
  // shorter than its Content-Length).
  long read(char* buffer, std::size_t size, int timeoutMs);

 private:
  // Makes at least one more byte available in buffer_; false on end, error or time-out.
  // Returns 1, 0 when the peer closed, -1 on an error, kNothingYet at the deadline.
  int fill(Clock::time_point deadline);
  // Returns 1 with a line (without its line end), 0, -1 or kNothingYet as fill().
  int readLine(std::string* line, Clock::time_point deadline);
  bool readHead(Clock::time_point deadline, std::string* error);
  long readChunked(char* buffer, std::size_t size, Clock::time_point deadline);

  int fd_ = -1;
  int status_ = 0;
  std::map<std::string, std::string> headers_;
  std::int64_t contentLength_ = -1;
  bool chunked_ = false;
  bool bodyless_ = false;
  std::int64_t remaining_ = -1;  // body bytes left (Content-Length), or of the current chunk
  bool afterChunk_ = false;      // a chunk's data was read; its line end comes next
  bool ended_ = false;
  Failure failure_ = Failure::kNone;
  std::vector<char> buffer_;  // bytes read from the socket and not yet consumed
  std::size_t begin_ = 0;
};

}  // namespace zvr_emulator

#endif  // ZVR_EMULATOR_HTTP_UPSTREAM_H_
