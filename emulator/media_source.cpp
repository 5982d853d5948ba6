#include "media_source.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

#include "http_upstream.h"
#include "media_sniffer.h"

namespace zvr_emulator {

namespace {

using Clock = std::chrono::steady_clock;

bool parseNumber(const std::string& text, std::uint64_t* value) {
  if (text.empty() || text.size() > 19) return false;
  std::uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<std::uint64_t>(c - '0');
  }
  *value = v;
  return true;
}

// "bytes FIRST-LAST/SIZE", or "bytes FIRST-LAST/*" (size 0, sizeKnown false).
bool parseContentRange(const std::string& text, std::uint64_t* first, std::uint64_t* last,
                       std::uint64_t* size, bool* sizeKnown) {
  const std::string unit = "bytes ";
  if (text.compare(0, unit.size(), unit) != 0) return false;
  const std::size_t dash = text.find('-', unit.size());
  const std::size_t slash = text.find('/', unit.size());
  if (dash == std::string::npos || slash == std::string::npos || slash < dash) return false;
  const std::string total = text.substr(slash + 1);
  *sizeKnown = total != "*";
  *size = 0;
  return parseNumber(text.substr(unit.size(), dash - unit.size()), first) &&
         parseNumber(text.substr(dash + 1, slash - dash - 1), last) &&
         (!*sizeKnown || parseNumber(total, size));
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "%2F"-style escapes of a file URL's path; false on a broken escape or an escaped zero byte.
bool percentDecoded(const std::string& text, std::string* decoded) {
  decoded->clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      *decoded += text[i];
      continue;
    }
    if (i + 2 >= text.size() || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0) {
      return false;
    }
    const char c = static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
    if (c == '\0') return false;
    *decoded += c;
    i += 2;
  }
  return true;
}

OpenedSource failed(const char* code, std::string detail) {
  return OpenedSource{code, std::move(detail), nullptr};
}

class FileHandle {
 public:
  explicit FileHandle(int fd) : fd_(fd) {}
  ~FileHandle() { ::close(fd_); }
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  int fd() const { return fd_; }

 private:
  const int fd_;
};

class FileReader : public BodyReader {
 public:
  FileReader(std::shared_ptr<const FileHandle> file, std::uint64_t offset, std::uint64_t length)
      : file_(std::move(file)), offset_(offset), left_(length) {}

  long read(char* buffer, std::size_t size, int /*timeoutMs*/) override {
    if (left_ == 0) return 0;
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(size, left_));
    for (;;) {
      const ssize_t n = ::pread(file_->fd(), buffer, want, static_cast<off_t>(offset_));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return -1;  // an error, or the file shrank under the answer
      offset_ += static_cast<std::uint64_t>(n);
      left_ -= static_cast<std::uint64_t>(n);
      return static_cast<long>(n);
    }
  }

 private:
  const std::shared_ptr<const FileHandle> file_;
  std::uint64_t offset_;
  std::uint64_t left_;
};

class FileSource : public MediaSource {
 public:
  FileSource(std::string contentType, std::string path, std::shared_ptr<const FileHandle> file)
      : MediaSource(std::move(contentType)), path_(std::move(path)), file_(std::move(file)) {}

  std::string probeURI() const override { return "file://" + path_; }

  // Ranges are resolved against the file's size at the time of the request.
  Reply open(const ByteRange* range, bool withBody) override {
    Reply reply;
    reply.acceptsRanges = true;
    struct stat status {};
    if (::fstat(file_->fd(), &status) != 0) {
      reply.status = 404;
      reply.reason = "the source file is gone";
      return reply;
    }
    const std::uint64_t size = static_cast<std::uint64_t>(status.st_size);
    std::uint64_t first = 0;
    std::uint64_t length = size;
    if (range != nullptr) {
      bool satisfiable = false;
      switch (range->kind) {
        case ByteRange::Kind::kBounded:
        case ByteRange::Kind::kOpenEnded:
          satisfiable = range->first < size;
          first = range->first;
          length = range->kind == ByteRange::Kind::kBounded
                       ? std::min(range->last, size - 1) - first + 1
                       : size - first;
          break;
        case ByteRange::Kind::kSuffix:
          satisfiable = range->suffix > 0 && size > 0;
          length = std::min(range->suffix, size);
          first = size - length;
          break;
      }
      if (!satisfiable) {
        reply.status = 416;
        reply.contentRange = "bytes */" + std::to_string(size);
        reply.reason = "the range lies outside the media";
        return reply;
      }
      reply.status = 206;
      reply.contentRange = "bytes " + std::to_string(first) + "-" +
                           std::to_string(first + length - 1) + "/" + std::to_string(size);
    }
    reply.length = static_cast<std::int64_t>(length);
    if (withBody) reply.body = std::make_unique<FileReader>(file_, first, length);
    return reply;
  }

 private:
  const std::string path_;
  const std::shared_ptr<const FileHandle> file_;
};

class UpstreamReader : public BodyReader {
 public:
  explicit UpstreamReader(std::unique_ptr<UpstreamExchange> exchange)
      : exchange_(std::move(exchange)) {}
  long read(char* buffer, std::size_t size, int timeoutMs) override {
    return exchange_->read(buffer, size, timeoutMs);
  }

 private:
  const std::unique_ptr<UpstreamExchange> exchange_;
};

// Every request goes upstream on a connection of its own, with its range when the upstream
// serves ranges; its status, range and length are passed back as they come.
class HttpSource : public MediaSource {
 public:
  HttpSource(std::string contentType, std::string url, LoopbackURL upstream, bool acceptsRanges)
      : MediaSource(std::move(contentType)),
        url_(std::move(url)),
        upstream_(std::move(upstream)),
        acceptsRanges_(acceptsRanges) {}

  std::string probeURI() const override { return url_; }

  Reply open(const ByteRange* range, bool withBody) override {
    Reply reply;
    reply.acceptsRanges = acceptsRanges_;
    auto exchange = std::make_unique<UpstreamExchange>();
    const std::string rangeHeader =
        range != nullptr && acceptsRanges_ ? "Range: " + range->text() + "\r\n" : "";
    std::string error;
    // HEAD is answered from a GET's head: not every server answers HEAD.
    if (!exchange->open(upstream_, "GET", rangeHeader, Clock::now() + kUpstreamSilence, &error)) {
      reply.status = exchange->failure() == UpstreamExchange::Failure::kTimedOut ? 504 : 502;
      reply.reason = "upstream " + url_ + ": " + error;
      return reply;
    }
    const int status = exchange->status();
    if (status == 206 && !checkPartial(*exchange, reply)) return reply;
    if (status == 200 || status == 206) {
      reply.status = status;
      reply.length = exchange->contentLength();
      if (status == 206) reply.contentRange = exchange->header("content-range");
      if (withBody) reply.body = std::make_unique<UpstreamReader>(std::move(exchange));
    } else if (status == 416) {
      reply.status = 416;
      reply.contentRange = exchange->header("content-range");
      reply.reason = "the range lies outside the media";
    } else if (status == 404 || status == 410) {
      reply.status = 404;
      reply.reason = "upstream " + url_ + " answered " + std::to_string(status);
    } else {
      reply.status = 502;
      reply.reason = "upstream " + url_ + " answered " + std::to_string(status);
    }
    return reply;
  }

 private:
  // A 206 answer must name the range it holds, within the media. Some servers answer a range
  // that starts past the end with 206 and an empty, inverted range ("bytes 100-99/100"): that
  // is passed on as the 416 it stands for; any other broken range fails the request (502).
  bool checkPartial(const UpstreamExchange& exchange, Reply& reply) const {
    const std::string contentRange = exchange.header("content-range");
    std::uint64_t first = 0, last = 0, size = 0;
    bool sizeKnown = false;
    const bool parsed = parseContentRange(contentRange, &first, &last, &size, &sizeKnown);
    if (parsed && sizeKnown && first >= size) {
      reply.status = 416;
      reply.contentRange = "bytes */" + std::to_string(size);
      reply.reason = "the range lies outside the media";
      return false;
    }
    const std::int64_t length = exchange.contentLength();
    if (!parsed || last < first || (sizeKnown && last >= size) ||
        (length >= 0 && static_cast<std::uint64_t>(length) != last - first + 1)) {
      reply.status = 502;
      reply.reason = "upstream " + url_ + " answered 206 with the range '" + contentRange + "'";
      return false;
    }
    return true;
  }

  const std::string url_;
  const LoopbackURL upstream_;
  const bool acceptsRanges_;
};

OpenedSource openFile(const std::string& path) {
  // O_NONBLOCK: a FIFO without a writer would otherwise block the open, and with it every answer
  // of the service; what is not a regular file is refused below. Regular files ignore the flag.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    const int error = errno;
    const char* code = error == EACCES || error == EPERM ? "403" : "404";
    return failed(code, "cannot open " + path + ": " + std::strerror(error));
  }
  auto file = std::make_shared<const FileHandle>(fd);
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return failed("404", "not a regular file: " + path);
  }
  unsigned char head[kSniffBytes];
  ssize_t n = -1;
  do {
    n = ::pread(fd, head, sizeof head, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return failed("403", "cannot read " + path + ": " + std::strerror(errno));
  const std::string type = containerType(head, static_cast<std::size_t>(n));
  if (type.empty()) {
    return failed("415", "not a media container this service plays: " + path);
  }
  return OpenedSource{"200", type, std::make_shared<FileSource>(type, path, std::move(file))};
}

OpenedSource openHttp(const std::string& url, Clock::time_point deadline) {
  LoopbackURL upstream;
  std::string error;
  const URLCheck check = parseLoopbackURL(url, &upstream, &error);
  if (check == URLCheck::kNotLoopback) return failed("403", "only loopback sources: " + error);
  if (check != URLCheck::kOk) return failed("400", error);

  // The first bytes, asked for as a range: a 206 answer shows that the upstream serves ranges.
  UpstreamExchange exchange;
  const std::string sniffRange = "Range: bytes=0-" + std::to_string(kSniffBytes - 1) + "\r\n";
  if (!exchange.open(upstream, "GET", sniffRange, deadline, &error)) {
    if (exchange.failure() == UpstreamExchange::Failure::kTimedOut) {
      return failed("504", "no answer from " + url + " in time: " + error);
    }
    return failed("502", "cannot fetch " + url + ": " + error);
  }
  const int status = exchange.status();
  if (status == 404 || status == 410) {
    return failed("404", url + " answered " + std::to_string(status));
  }
  if (status == 401 || status == 403) {
    return failed("403", url + " answered " + std::to_string(status));
  }
  if (status == 416) return failed("415", "empty media at " + url);
  if (status != 200 && status != 206) {
    return failed("502", url + " answered " + std::to_string(status));
  }

  std::vector<char> head(kSniffBytes);
  std::size_t got = 0;
  while (got < head.size()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    const long n = exchange.read(head.data() + got, head.size() - got,
                                 static_cast<int>(std::max<long long>(left.count(), 0)));
    if (n == 0) break;
    if (n == UpstreamExchange::kNothingYet) {
      if (got == 0) return failed("504", "no media bytes from " + url + " in time");
      break;
    }
    if (n < 0) return failed("502", "the answer of " + url + " broke off");
    got += static_cast<std::size_t>(n);
  }
  const std::string type = containerType(reinterpret_cast<const unsigned char*>(head.data()), got);
  if (type.empty()) return failed("415", "not a media container this service plays: " + url);
  return OpenedSource{"200", type,
                      std::make_shared<HttpSource>(type, url, std::move(upstream), status == 206)};
}

}  // namespace

std::string ByteRange::text() const {
  switch (kind) {
    case Kind::kBounded:
      return "bytes=" + std::to_string(first) + "-" + std::to_string(last);
    case Kind::kOpenEnded:
      return "bytes=" + std::to_string(first) + "-";
    case Kind::kSuffix:
      break;
  }
  return "bytes=-" + std::to_string(suffix);
}

bool parseRange(const std::string& header, ByteRange* range) {
  const std::string unit = "bytes=";
  if (lowerCase(header.substr(0, unit.size())) != unit) return false;
  std::string bounds = header.substr(unit.size());
  bounds.erase(
      std::remove_if(bounds.begin(), bounds.end(), [](char c) { return c == ' ' || c == '\t'; }),
      bounds.end());
  const std::size_t dash = bounds.find('-');
  if (dash == std::string::npos || bounds.find(',') != std::string::npos) return false;
  const std::string left = bounds.substr(0, dash);
  const std::string right = bounds.substr(dash + 1);
  ByteRange parsed;
  if (left.empty()) {
    parsed.kind = ByteRange::Kind::kSuffix;
    if (!parseNumber(right, &parsed.suffix)) return false;
  } else if (right.empty()) {
    parsed.kind = ByteRange::Kind::kOpenEnded;
    if (!parseNumber(left, &parsed.first)) return false;
  } else {
    parsed.kind = ByteRange::Kind::kBounded;
    if (!parseNumber(left, &parsed.first) || !parseNumber(right, &parsed.last) ||
        parsed.last < parsed.first) {
      return false;
    }
  }
  *range = parsed;
  return true;
}

OpenedSource openMediaSource(const std::string& text, Clock::time_point deadline) {
  if (text.empty()) return failed("400", "no source given");
  const std::string lower = lowerCase(text.substr(0, 8));
  if (lower.compare(0, 7, "http://") == 0) return openHttp(text, deadline);
  if (lower.compare(0, 7, "file://") == 0) {
    const std::string rest = text.substr(7);
    const std::size_t slash = rest.find('/');
    const std::string host = rest.substr(0, slash);
    std::string path;
    if (slash == std::string::npos || (!host.empty() && lowerCase(host) != "localhost") ||
        !percentDecoded(rest.substr(slash), &path)) {
      return failed("400", "not a local file URL: " + text);
    }
    return openFile(path);
  }
  if (text[0] == '/') return openFile(text);
  const std::size_t colon = text.find(':');
  if (colon != std::string::npos && colon > 0) {
    return failed("400", "unsupported scheme " + text.substr(0, colon + 1) +
                             " (file://, absolute paths and http:// on the loopback are played)");
  }
  return failed("400", "neither a URL nor an absolute path: " + text);
}

}  // namespace zvr_emulator
