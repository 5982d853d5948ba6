#include "http_upstream.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace zvr_emulator {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxHeadBytes = 32 * 1024;
constexpr std::size_t kMaxLine = 8 * 1024;
constexpr std::size_t kFillBytes = 16 * 1024;

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

int millisecondsLeft(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, 60000));
}

// Waits until fd is ready for `events`: 1, 0 at the deadline, -1 on an error.
int waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, events, 0};
    const int ready = ::poll(&p, 1, millisecondsLeft(deadline));
    if (ready > 0) return 1;
    if (ready == 0) return 0;
    if (errno != EINTR) return -1;
  }
}

bool parseDecimal(const std::string& text, std::int64_t max, std::int64_t* value) {
  if (text.empty() || text.size() > 18) return false;
  std::int64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (v > max) return false;
  *value = v;
  return true;
}

// A chunk size: hex digits only (no sign, no blanks, which strtoull would accept), at most 15 of
// them, so the value stays far inside int64_t.
bool parseHex(const std::string& text, std::int64_t* value) {
  if (text.empty() || text.size() > 15) return false;
  std::int64_t v = 0;
  for (char c : text) {
    const int digit = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                      : (c >= 'a' && c <= 'f')                    ? c - 'a' + 10
                      : (c >= 'A' && c <= 'F')                    ? c - 'A' + 10
                                                                  : -1;
    if (digit < 0) return false;
    v = v * 16 + digit;
  }
  *value = v;
  return true;
}

}  // namespace

URLCheck parseLoopbackURL(const std::string& url, LoopbackURL* parsed, std::string* error) {
  const std::string scheme = "http://";
  // The URL goes into the request line and the Host header as it is: a blank or a control
  // character would split them or add headers of the sender's choosing.
  const bool printable = std::all_of(url.begin(), url.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte != 0x7f;
  });
  if (!printable) {
    *error = "blank or control character in the URL";
    return URLCheck::kMalformed;
  }
  if (lowerCase(url.substr(0, scheme.size())) != scheme) {
    *error = "not an http:// URL";
    return URLCheck::kMalformed;
  }
  std::string rest = url.substr(scheme.size());
  rest = rest.substr(0, rest.find('#'));
  const std::size_t pathStart = rest.find_first_of("/?");
  const std::string authority = rest.substr(0, pathStart);
  std::string target = pathStart == std::string::npos ? "/" : rest.substr(pathStart);
  if (target[0] == '?') target = "/" + target;
  if (authority.empty() || authority.find('@') != std::string::npos) {
    *error = "no usable host in " + url;
    return URLCheck::kMalformed;
  }

  std::string host = authority;
  std::string port;
  if (authority[0] == '[') {
    const std::size_t close = authority.find(']');
    if (close == std::string::npos) {
      *error = "bad host in " + url;
      return URLCheck::kMalformed;
    }
    host = authority.substr(1, close - 1);
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') {
        *error = "bad host in " + url;
        return URLCheck::kMalformed;
      }
      port = authority.substr(close + 2);
    }
  } else if (authority.find(':') != std::string::npos) {
    host = authority.substr(0, authority.find(':'));
    port = authority.substr(authority.find(':') + 1);
  }

  std::int64_t number = 80;
  if (!port.empty() && (!parseDecimal(port, 65535, &number) || number == 0)) {
    *error = "bad port in " + url;
    return URLCheck::kMalformed;
  }

  std::string address;
  in_addr v4{};
  in6_addr v6{};
  if (lowerCase(host) == "localhost") {
    address = "127.0.0.1";
  } else if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
    if ((ntohl(v4.s_addr) >> 24) == 127) address = host;
  } else if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
    if (IN6_IS_ADDR_LOOPBACK(&v6)) address = host;
  }
  if (address.empty()) {
    *error = "not on the loopback: " + host;
    return URLCheck::kNotLoopback;
  }

  parsed->host = authority;
  parsed->address = address;
  parsed->port = static_cast<int>(number);
  parsed->target = target;
  return URLCheck::kOk;
}

UpstreamExchange::~UpstreamExchange() {
  if (fd_ >= 0) ::close(fd_);
}

bool UpstreamExchange::open(const LoopbackURL& url, const std::string& method,
                            const std::string& extraHeaders, Clock::time_point deadline,
                            std::string* error) {
  failure_ = Failure::kBroken;
  sockaddr_storage address{};
  socklen_t addressLength = 0;
  const bool v6 = url.address.find(':') != std::string::npos;
  if (v6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&address);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(static_cast<uint16_t>(url.port));
    inet_pton(AF_INET6, url.address.c_str(), &a->sin6_addr);
    addressLength = sizeof *a;
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&address);
    a->sin_family = AF_INET;
    a->sin_port = htons(static_cast<uint16_t>(url.port));
    inet_pton(AF_INET, url.address.c_str(), &a->sin_addr);
    addressLength = sizeof *a;
  }

  fd_ = ::socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    *error = std::string("no socket: ") + std::strerror(errno);
    return false;
  }
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), addressLength) != 0) {
    if (errno != EINPROGRESS) {
      failure_ = errno == ECONNREFUSED ? Failure::kRefused : Failure::kBroken;
      *error = std::string("cannot connect: ") + std::strerror(errno);
      return false;
    }
    const int ready = waitFor(fd_, POLLOUT, deadline);
    int socketError = 0;
    socklen_t length = sizeof socketError;
    if (ready == 0) {
      failure_ = Failure::kTimedOut;
      *error = "no connection in time";
      return false;
    }
    if (ready < 0 || getsockopt(fd_, SOL_SOCKET, SO_ERROR, &socketError, &length) != 0 ||
        socketError != 0) {
      failure_ = socketError == ECONNREFUSED ? Failure::kRefused : Failure::kBroken;
      *error = std::string("cannot connect: ") + std::strerror(socketError ? socketError : errno);
      return false;
    }
  }

  const std::string request = method + " " + url.target + " HTTP/1.1\r\nHost: " + url.host +
                              "\r\nUser-Agent: zvr-media-service\r\nConnection: close\r\n" +
                              extraHeaders + "\r\n";
  std::size_t sent = 0;
  while (sent < request.size()) {
    const ssize_t n = ::send(fd_, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      const int ready = waitFor(fd_, POLLOUT, deadline);
      if (ready > 0) continue;
      if (ready == 0) {
        failure_ = Failure::kTimedOut;
        *error = "the request could not be sent in time";
        return false;
      }
    }
    *error = std::string("cannot send the request: ") + std::strerror(errno);
    return false;
  }

  bodyless_ = method == "HEAD";
  if (!readHead(deadline, error)) return false;
  failure_ = Failure::kNone;
  return true;
}

std::string UpstreamExchange::header(const std::string& lowerCaseName) const {
  auto it = headers_.find(lowerCaseName);
  return it != headers_.end() ? it->second : std::string();
}

int UpstreamExchange::fill(Clock::time_point deadline) {
  if (begin_ > 0) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
    begin_ = 0;
  }
  const std::size_t had = buffer_.size();
  buffer_.resize(had + kFillBytes);
  for (;;) {
    const ssize_t n = ::recv(fd_, buffer_.data() + had, kFillBytes, 0);
    if (n > 0) {
      buffer_.resize(had + static_cast<std::size_t>(n));
      return 1;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      const int ready = waitFor(fd_, POLLIN, deadline);
      if (ready > 0) continue;
      buffer_.resize(had);
      return ready == 0 ? static_cast<int>(kNothingYet) : -1;
    }
    buffer_.resize(had);
    return n == 0 ? 0 : -1;
  }
}

int UpstreamExchange::readLine(std::string* line, Clock::time_point deadline) {
  for (;;) {
    const auto start = buffer_.begin() + static_cast<std::ptrdiff_t>(begin_);
    const auto end = std::find(start, buffer_.end(), '\n');
    if (end != buffer_.end()) {
      line->assign(start, end);
      if (!line->empty() && line->back() == '\r') line->pop_back();
      begin_ = static_cast<std::size_t>(end - buffer_.begin()) + 1;
      return 1;
    }
    if (buffer_.size() - begin_ > kMaxLine) return -1;
    const int filled = fill(deadline);
    if (filled != 1) return filled;
  }
}

bool UpstreamExchange::readHead(Clock::time_point deadline, std::string* error) {
  std::size_t headBytes = 0;
  std::string line;
  for (;;) {  // interim 1xx answers are skipped
    const int got = readLine(&line, deadline);
    if (got != 1) {
      failure_ = got == kNothingYet ? Failure::kTimedOut : Failure::kBroken;
      *error = got == kNothingYet ? "no answer in time" : "the connection ended without an answer";
      return false;
    }
    headBytes += line.size();
    std::int64_t code = 0;
    if (line.compare(0, 5, "HTTP/") != 0 || line.size() < 12 || line[8] != ' ' ||
        !parseDecimal(line.substr(9, 3), 999, &code)) {
      *error = "not an HTTP answer";
      return false;
    }
    status_ = static_cast<int>(code);
    headers_.clear();
    for (;;) {
      const int more = readLine(&line, deadline);
      if (more != 1) {
        failure_ = more == kNothingYet ? Failure::kTimedOut : Failure::kBroken;
        *error = "the answer's headers did not arrive";
        return false;
      }
      headBytes += line.size();
      if (headBytes > kMaxHeadBytes) {
        *error = "the answer's headers are too long";
        return false;
      }
      if (line.empty()) break;
      const std::size_t colon = line.find(':');
      if (colon == std::string::npos) continue;
      const std::string name = lowerCase(trimmed(line.substr(0, colon)));
      const std::string value = trimmed(line.substr(colon + 1));
      auto it = headers_.find(name);
      if (it == headers_.end()) {
        headers_[name] = value;
      } else {
        it->second += ", " + value;
      }
    }
    if (status_ >= 200) break;
  }

  if (status_ == 204 || status_ == 304) bodyless_ = true;
  chunked_ = lowerCase(header("transfer-encoding")).find("chunked") != std::string::npos;
  std::int64_t length = 0;
  if (!chunked_ && parseDecimal(header("content-length"), INT64_MAX / 10, &length)) {
    contentLength_ = length;
  }
  remaining_ = chunked_ ? 0 : contentLength_;
  return true;
}

long UpstreamExchange::read(char* buffer, std::size_t size, int timeoutMs) {
  if (bodyless_ || ended_) return 0;
  if (size == 0) return 0;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  if (chunked_) return readChunked(buffer, size, deadline);
  if (remaining_ == 0) {
    ended_ = true;
    return 0;
  }
  if (remaining_ > 0) size = static_cast<std::size_t>(std::min<std::int64_t>(size, remaining_));

  std::size_t count = 0;
  if (begin_ < buffer_.size()) {
    count = std::min(size, buffer_.size() - begin_);
    std::memcpy(buffer, buffer_.data() + begin_, count);
    begin_ += count;
  } else {
    for (;;) {
      const ssize_t n = ::recv(fd_, buffer, size, 0);
      if (n > 0) {
        count = static_cast<std::size_t>(n);
        break;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) {
        const int ready = waitFor(fd_, POLLIN, deadline);
        if (ready > 0) continue;
        return ready == 0 ? kNothingYet : -1;
      }
      if (n == 0 && remaining_ < 0) {  // the body ends with the connection
        ended_ = true;
        return 0;
      }
      return -1;
    }
  }
  if (remaining_ > 0) remaining_ -= static_cast<std::int64_t>(count);
  return static_cast<long>(count);
}

long UpstreamExchange::readChunked(char* buffer, std::size_t size, Clock::time_point deadline) {
  std::string line;
  while (remaining_ == 0) {
    if (afterChunk_) {
      const int got = readLine(&line, deadline);
      if (got != 1) return got == kNothingYet ? kNothingYet : -1;
      if (!line.empty()) return -1;
      afterChunk_ = false;
    }
    const int got = readLine(&line, deadline);
    if (got != 1) return got == kNothingYet ? kNothingYet : -1;
    std::int64_t chunk = 0;
    if (!parseHex(trimmed(line.substr(0, line.find(';'))), &chunk)) return -1;
    if (chunk == 0) {
      do {  // trailer fields, up to the empty line; they come with the last chunk
        if (readLine(&line, deadline) != 1) return -1;
      } while (!line.empty());
      ended_ = true;
      return 0;
    }
    remaining_ = static_cast<std::int64_t>(chunk);
  }

  if (begin_ == buffer_.size()) {
    const int filled = fill(deadline);
    if (filled != 1) return filled == kNothingYet ? kNothingYet : -1;
  }
  const std::size_t count = static_cast<std::size_t>(
      std::min<std::int64_t>({static_cast<std::int64_t>(size), remaining_,
                              static_cast<std::int64_t>(buffer_.size() - begin_)}));
  std::memcpy(buffer, buffer_.data() + begin_, count);
  begin_ += count;
  remaining_ -= static_cast<std::int64_t>(count);
  if (remaining_ == 0) afterChunk_ = true;
  return static_cast<long>(count);
}

}  // namespace zvr_emulator
