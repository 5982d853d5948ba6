// The local URLs: an HTTP/1.1 server on 127.0.0.1 that serves each playback session's media at
// an address of its own, "http://127.0.0.1:PORT/media/OBJECT/TOKEN", with a fresh random TOKEN
// for every session, so that a player holding an old URL cannot read the next session's media.
//
// GET and HEAD; a single byte range (bounded, open-ended, suffix) is answered with 206 and
// Content-Range, an unsatisfiable one with 416; several ranges, or none, with the whole body.
// The Content-Type is the container the source's first bytes showed. Bodies are read from the
// source piece by piece into one buffer per response, so memory does not grow with the media.
// After close() the URL answers 404 and its responses in progress end at their next piece.
//
// Faults (ServingFaults) apply to every response that starts after setFaults().
//
// Thread-safe. The HTTP server runs on a thread of its own and serves each connection on a
// worker of its own, started when no worker is free, up to 256: connections that players keep
// alive, or that browsers open ahead of time, hold their worker while idle, and must not keep a
// new player waiting.

#ifndef ZVR_EMULATOR_MEDIA_SERVER_H_
#define ZVR_EMULATOR_MEDIA_SERVER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "media_source.h"

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace zvr_emulator {

struct ServingFaults {
  std::int64_t throttleBytesPerSecond = 0;  // 0: as fast as the client reads
  std::int64_t cutAfterBytes = 0;           // close the connection after this much body; 0: never
  bool noRange = false;      // ranges are ignored: 200 with the whole body, "Accept-Ranges: none"
  int firstByteDelayMs = 0;  // wait before answering
};

class MediaServer {
 public:
  // Binds 127.0.0.1:port (0: any free port) and starts serving; throws std::runtime_error
  // when the port cannot be bound.
  explicit MediaServer(int port = 0);
  // Ends every response in progress and stops.
  ~MediaServer();
  MediaServer(const MediaServer&) = delete;
  MediaServer& operator=(const MediaServer&) = delete;

  // "http://127.0.0.1:PORT".
  const std::string& base() const { return base_; }

  void setFaults(const ServingFaults& faults);

  // Serves `source` at a new local URL, which it returns, until close(url).
  std::string open(const std::string& objectId, std::shared_ptr<MediaSource> source);
  // The URL answers 404 from now on; responses in progress end.
  void close(const std::string& url);
  // Closes every URL and stops the server. Idempotent.
  void stop();

 private:
  class Http;
  class Session;
  class BodyWriter;

  void handle(const httplib::Request& request, httplib::Response& response);

  // Constant after construction.
  std::unique_ptr<Http> http_;
  std::string base_;

  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Session>> sessions_;  // by URL path
  ServingFaults faults_;
  std::mt19937_64 random_;
  bool stopped_ = false;

  std::thread thread_;
};

}  // namespace zvr_emulator

#endif  // ZVR_EMULATOR_MEDIA_SERVER_H_
