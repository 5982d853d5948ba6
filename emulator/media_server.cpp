#include "media_server.h"

#include <cxxabi.h>
#include <httplib.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <stdexcept>
#include <vector>

namespace zvr_emulator {

namespace {

using Clock = std::chrono::steady_clock;

// Connections served at once; more wait for a worker. Far more than a television's players
// hold: eight, each with a kept-alive connection, one more for a seek and a few that a browser
// opens ahead of time or that the server has not noticed closing yet.
constexpr std::size_t kMaxWorkers = 256;
// The server library reads a Range header with std::regex, whose matching recurses for every
// part of the header: one of the 8 KiB the library lets through takes about 4 MiB of stack. A
// worker's stack is set, whatever the default for threads is where the emulator runs; it is
// address space, of which only what is used becomes resident.
constexpr std::size_t kWorkerStackBytes = 16 << 20;
constexpr std::size_t kPieceBytes = 64 * 1024;
// How often a response waiting for its upstream looks whether its session closed; it gives up
// after kUpstreamSilence.
constexpr int kUpstreamPollMs = 100;

// Object ids are the host's to choose; anything outside the unreserved characters is escaped.
std::string pathSegment(const std::string& text) {
  std::string segment;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      segment += static_cast<char>(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      segment += escaped;
    }
  }
  return segment.empty() ? "-" : segment;
}

std::string newToken() {
  std::random_device device;
  const std::uint64_t value = (std::uint64_t{device()} << 32) | device();
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

// The server library's task queue, which runs each connection, from its first request to its
// end, on one worker. A connection holds its worker while it is idle too: after each answer for
// the keep-alive time, before its first request for the read time-out. A fixed number of workers
// lets idle connections (kept alive by players, opened ahead by browsers) take them all while a
// new player waits; so a worker is started for a connection whenever none is free, up to
// kMaxWorkers. Workers stay until the server stops, for the connections to come.
class ConnectionWorkers : public httplib::TaskQueue {
 public:
  ~ConnectionWorkers() override { shutdown(); }

  void enqueue(std::function<void()> task) override {
    std::lock_guard<std::mutex> lock(mutex_);
    tasks_.push_back(std::move(task));
    if (idle_ < tasks_.size() && workers_.size() < kMaxWorkers) startWorker_l();
    changed_.notify_one();
  }

  // Runs the tasks queued so far, then ends every worker. No task comes after it.
  void shutdown() override {
    std::vector<pthread_t> workers;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
      workers.swap(workers_);
    }
    changed_.notify_all();
    for (pthread_t worker : workers) pthread_join(worker, nullptr);
  }

 private:
  // When no worker can be started, the task waits for one that is; when there is none at all,
  // the next connection tries again.
  void startWorker_l() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kWorkerStackBytes);
    pthread_t worker;
    const int error = pthread_create(
        &worker, &attributes,
        [](void* self) -> void* {
          static_cast<ConnectionWorkers*>(self)->work();
          return nullptr;
        },
        this);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
      std::fprintf(stderr, "zvr_emulator: no worker for a connection: %s\n", std::strerror(error));
      return;
    }
    workers_.push_back(worker);
  }

  void work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      ++idle_;
      changed_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
      --idle_;
      if (tasks_.empty()) return;
      std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> tasks_;
  std::vector<pthread_t> workers_;
  std::size_t idle_ = 0;  // workers waiting for a task
  bool stopping_ = false;
};

}  // namespace

// The server library listens with a backlog of 5: players that connect at once overflow it, and
// the kernel drops their connections, which the clients try again only a second later.
class MediaServer::Http : public httplib::Server {
 public:
  void widenBacklog() { ::listen(svr_sock_, 128); }
};

// One playback session's media, shared by its responses in progress.
class MediaServer::Session {
 public:
  Session(std::string objectId, std::shared_ptr<MediaSource> source)
      : objectId_(std::move(objectId)), source_(std::move(source)) {}

  const std::string& objectId() const { return objectId_; }
  MediaSource& source() const { return *source_; }

  void close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    closedChanged_.notify_all();
  }
  bool closed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
  }
  // Waits until `until`; false when the session closed first.
  bool sleepUntil(Clock::time_point until) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return !closedChanged_.wait_until(lock, until, [this] { return closed_; });
  }

 private:
  const std::string objectId_;
  const std::shared_ptr<MediaSource> source_;

  mutable std::mutex mutex_;
  mutable std::condition_variable closedChanged_;
  bool closed_ = false;
};

// The body of one response: read from the source into one buffer, written to the client, paced
// and cut as the faults say. Used by the worker thread that writes the response.
class MediaServer::BodyWriter {
 public:
  BodyWriter(std::shared_ptr<const Session> session, std::unique_ptr<BodyReader> body,
             const ServingFaults& faults)
      : session_(std::move(session)),
        body_(std::move(body)),
        faults_(faults),
        buffer_(kPieceBytes) {}

  // Writes the next piece; false ends the response and closes the connection. With `sized`
  // false the body's end is marked with sink.done().
  bool writeNext(std::size_t wanted, httplib::DataSink& sink, bool sized) {
    try {
      return writePiece(wanted, sink, sized);
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      std::fprintf(stderr, "zvr_emulator: a response of %s failed\n", session_->objectId().c_str());
      return false;
    }
  }

 private:
  bool writePiece(std::size_t wanted, httplib::DataSink& sink, bool sized) {
    if (session_->closed()) return false;
    if (sent_ == 0) started_ = Clock::now();
    std::size_t piece = std::min(wanted, buffer_.size());
    if (faults_.throttleBytesPerSecond > 0) {
      const auto rate = faults_.throttleBytesPerSecond;
      piece = std::min<std::size_t>(piece,
                                    static_cast<std::size_t>(std::max<std::int64_t>(rate / 20, 1)));
      const auto due = started_ + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(double(sent_) / double(rate)));
      if (!session_->sleepUntil(due)) return false;
    }
    if (faults_.cutAfterBytes > 0) {
      if (sent_ >= faults_.cutAfterBytes) return false;
      piece = std::min<std::size_t>(piece, static_cast<std::size_t>(faults_.cutAfterBytes - sent_));
    }

    long n = BodyReader::kNothingYet;
    const Clock::time_point giveUp = Clock::now() + kUpstreamSilence;
    while ((n = body_->read(buffer_.data(), piece, kUpstreamPollMs)) == BodyReader::kNothingYet) {
      if (session_->closed()) return false;
      if (Clock::now() >= giveUp) {
        std::fprintf(stderr, "zvr_emulator: the upstream of %s went silent\n",
                     session_->objectId().c_str());
        return false;
      }
    }
    if (n == 0 && !sized) {
      sink.done();
      return true;
    }
    if (n <= 0) {
      std::fprintf(stderr, "zvr_emulator: the media of %s broke off\n",
                   session_->objectId().c_str());
      return false;
    }
    if (!sink.write(buffer_.data(), static_cast<std::size_t>(n))) return false;
    sent_ += n;
    return true;
  }

  const std::shared_ptr<const Session> session_;
  const std::unique_ptr<BodyReader> body_;
  const ServingFaults faults_;
  std::vector<char> buffer_;
  std::int64_t sent_ = 0;
  Clock::time_point started_;
};

MediaServer::MediaServer(int port) : http_(std::make_unique<Http>()) {
  http_->new_task_queue = [] { return new ConnectionWorkers(); };
  http_->set_keep_alive_max_count(1000);
  // An idle kept-alive connection holds its worker until this runs out, stop() included.
  http_->set_keep_alive_timeout(2);
  http_->set_write_timeout(3, 0);
  // Local URLs are told by their prefix before the library's routes, which it matches with
  // std::regex: that recursion for every character of a long path would take megabytes of stack.
  // Anything else falls through to the routes, of which there are none: 404.
  http_->set_pre_routing_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        if ((request.method != "GET" && request.method != "HEAD") ||
            request.path.compare(0, 7, "/media/") != 0) {
          return httplib::Server::HandlerResponse::Unhandled;
        }
        handle(request, response);
        return httplib::Server::HandlerResponse::Handled;
      });
  const int bound = port != 0 ? (http_->bind_to_port("127.0.0.1", port) ? port : -1)
                              : http_->bind_to_any_port("127.0.0.1");
  if (bound <= 0) throw std::runtime_error("cannot bind the media server to 127.0.0.1");
  http_->widenBacklog();
  base_ = "http://127.0.0.1:" + std::to_string(bound);
  thread_ = std::thread([this] { http_->listen_after_bind(); });
  // The server library ignores a stop() that comes before it runs, and would then run forever.
  const Clock::time_point giveUp = Clock::now() + std::chrono::seconds(10);
  while (!http_->is_running() && Clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

MediaServer::~MediaServer() { stop(); }

void MediaServer::setFaults(const ServingFaults& faults) {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_ = faults;
}

std::string MediaServer::open(const std::string& objectId, std::shared_ptr<MediaSource> source) {
  const std::string path = "/media/" + pathSegment(objectId) + "/" + newToken();
  auto session = std::make_shared<Session>(objectId, std::move(source));
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) session->close();
  sessions_[path] = std::move(session);
  return base_ + path;
}

void MediaServer::close(const std::string& url) {
  if (url.compare(0, base_.size(), base_) != 0) return;
  std::shared_ptr<Session> session;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = sessions_.find(url.substr(base_.size()));
    if (it == sessions_.end()) return;
    session = std::move(it->second);
    sessions_.erase(it);
  }
  session->close();
}

void MediaServer::stop() {
  std::map<std::string, std::shared_ptr<Session>> sessions;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return;
    stopped_ = true;
    sessions.swap(sessions_);
  }
  for (auto& entry : sessions) entry.second->close();
  http_->stop();
  if (thread_.joinable()) thread_.join();
}

void MediaServer::handle(const httplib::Request& request, httplib::Response& response) {
  // The server library would apply the ranges it parsed to the body on its own, and gets
  // ranges past the end wrong; this handler answers ranges itself, so they are dropped here.
  const_cast<httplib::Request&>(request).ranges.clear();

  std::shared_ptr<const Session> session;
  ServingFaults faults;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // By the path as sent: the server library decodes `path`, and the URL escapes the object id.
    auto it = sessions_.find(request.target.substr(0, request.target.find('?')));
    if (it != sessions_.end()) session = it->second;
    faults = faults_;
  }
  const auto notFound = [&response] {
    response.status = 404;
    response.set_content("no media at this address\n", "text/plain");
  };
  if (!session) return notFound();
  if (faults.firstByteDelayMs > 0 &&
      !session->sleepUntil(Clock::now() + std::chrono::milliseconds(faults.firstByteDelayMs))) {
    return notFound();
  }

  ByteRange range;
  const bool ranged = !faults.noRange && request.has_header("Range") &&
                      parseRange(request.get_header_value("Range"), &range);
  const bool withBody = request.method != "HEAD";
  Reply reply = session->source().open(ranged ? &range : nullptr, withBody);
  if (session->closed()) return notFound();

  response.status = reply.status;
  // Set for every answer: without it the server library claims range support for HEAD.
  response.set_header("Accept-Ranges", reply.acceptsRanges && !faults.noRange ? "bytes" : "none");
  if (!reply.contentRange.empty()) response.set_header("Content-Range", reply.contentRange);
  if (reply.status != 200 && reply.status != 206) {
    if (reply.status != 416) response.set_content(reply.reason + "\n", "text/plain");
    return;
  }

  const std::string& type = session->source().contentType();
  if (reply.length == 0) {
    response.set_content(std::string(), type);
    return;
  }
  // A HEAD answer gets a provider without a body: it only carries the length into the headers.
  std::shared_ptr<BodyWriter> body =
      withBody ? std::make_shared<BodyWriter>(session, std::move(reply.body), faults) : nullptr;
  if (reply.length > 0) {
    response.set_content_provider(
        static_cast<std::size_t>(reply.length), type,
        [body](std::size_t /*offset*/, std::size_t length, httplib::DataSink& sink) {
          return body && body->writeNext(length, sink, true);
        });
  } else {
    response.set_chunked_content_provider(
        type, [body](std::size_t /*offset*/, httplib::DataSink& sink) {
          return body && body->writeNext(kPieceBytes, sink, false);
        });
  }
}

}  // namespace zvr_emulator
