// The media behind a local URL: a local file, or an http:// URL on the loopback that is fetched
// again for every request and passed through piece by piece. A source answers one request at a
// time with a Reply whose body is read in pieces, so serving never holds more than one piece.
//
// openMediaSource() turns the source text of a "start" or "preload" into a source, after
// recognising its container from its first bytes, or into the result code and detail of a
// failed "started".
//
// Sources are immutable after opening and may serve several requests at once; a BodyReader
// belongs to one request.

#ifndef ZVR_EMULATOR_MEDIA_SOURCE_H_
#define ZVR_EMULATOR_MEDIA_SOURCE_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace zvr_emulator {

// The one byte range of a Range header: "bytes=first-last", "bytes=first-" or "bytes=-suffix".
struct ByteRange {
  enum class Kind { kBounded, kOpenEnded, kSuffix };
  Kind kind = Kind::kBounded;
  std::uint64_t first = 0;   // kBounded and kOpenEnded
  std::uint64_t last = 0;    // kBounded
  std::uint64_t suffix = 0;  // kSuffix: the last `suffix` bytes

  // The header value, "bytes=...".
  std::string text() const;
};

// Reads a Range header value. False when it asks for anything but one byte range (no range,
// several, another unit, bad syntax): such a request is served whole.
bool parseRange(const std::string& header, ByteRange* range);

class BodyReader {
 public:
  static constexpr long kNothingYet = -2;

  virtual ~BodyReader() = default;
  // Reads up to `size` bytes, waiting at most `timeoutMs`: the count, 0 at the end, kNothingYet
  // when nothing came in time (read again), -1 when the body cannot be completed.
  virtual long read(char* buffer, std::size_t size, int timeoutMs) = 0;
};

// The answer to one request, before its body.
struct Reply {
  int status = 200;                  // 200, 206, 416, or 404, 502, 504 for a failing upstream
  bool acceptsRanges = false;        // whether range requests are served
  std::string contentRange;          // "bytes FIRST-LAST/SIZE", "bytes */SIZE" with 416, or ""
  std::int64_t length = -1;          // of the body; -1 when only its end tells
  std::unique_ptr<BodyReader> body;  // null without a body (a HEAD request, an error)
  std::string reason;                // what went wrong, for the answers that are not 2xx
};

class MediaSource {
 public:
  virtual ~MediaSource() = default;

  // The MIME type of the container its first bytes showed.
  const std::string& contentType() const { return contentType_; }
  // The URI the prober reads: file:// for a file, the upstream URL for an http source.
  virtual std::string probeURI() const = 0;
  // Answers a request for the whole media (range null) or for one range of it; the reply has
  // a body only `withBody`.
  virtual Reply open(const ByteRange* range, bool withBody) = 0;

 protected:
  explicit MediaSource(std::string contentType) : contentType_(std::move(contentType)) {}

 private:
  const std::string contentType_;
};

// How long an http source's upstream may keep a request for a local URL waiting: for the head
// of its answer (the local URL then answers 504) and for each piece of its body (the response
// then ends, as when the upstream breaks off).
constexpr std::chrono::seconds kUpstreamSilence(5);

struct OpenedSource {
  std::string code;                     // "200", or the result code of the failed "started"
  std::string detail;                   // the container type, or what failed, readably
  std::shared_ptr<MediaSource> source;  // set with "200"
};

// Opens `text`: a file:// URL, an absolute path, or an http:// URL on the loopback, whose first
// bytes are read and sniffed by `deadline` (the upstream answers by then or the start fails
// with "504"). Codes: "400" a source that is no URL or path this plays, "403" not readable or
// not on the loopback, "404" no such file or upstream resource, "415" not a media container,
// "502" an unreachable or failing upstream, "504" an upstream that did not answer in time.
OpenedSource openMediaSource(const std::string& text,
                             std::chrono::steady_clock::time_point deadline);

}  // namespace zvr_emulator

#endif  // ZVR_EMULATOR_MEDIA_SOURCE_H_
