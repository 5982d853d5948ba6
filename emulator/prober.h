// Probes media with GStreamer's discoverer: duration, picture size, frame rate and codecs, from
// which definitionsJson() makes the text of the "definition" event.
//
// A Prober owns a thread that runs a GLib main loop for an asynchronous discoverer; probes run
// one at a time in the order they were asked for, and each one's result goes to its callback on
// that thread. GStreamer is initialised once per process, by the first Prober, on that thread;
// the thread also loads the plugins that probing needs, so that the first probe does not pay
// for it. Destroying the Prober drops the waiting probes without calling their callbacks and
// waits for the one in progress, which the discoverer's time-out (5 s) bounds.

#ifndef ZVR_EMULATOR_PROBER_H_
#define ZVR_EMULATOR_PROBER_H_

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace zvr_emulator {

struct MediaInfo {
  bool ok = false;
  std::string error;           // why probing failed, when !ok
  double durationSeconds = 0;  // 0 when the media does not tell
  bool seekable = false;
  int width = 0;  // 0 without video
  int height = 0;
  double frameRate = 0;
  std::string videoCodec;  // readable, as GStreamer describes it: "VP8", "H.264 (...)"
  std::string audioCodec;  // "" without audio
  int audioChannels = 0;
  int sampleRate = 0;
};

// At most this many bytes: the whole "definition" record must fit the 4096-byte segment.
constexpr std::size_t kMaxDefinitionsBytes = 1024;

// "SD" below 720 lines, "HD", "FHD" from 1080, "UHD" from 2160; "audio" without video.
std::string definitionLabel(const MediaInfo& info);

// One JSON object (see the README for its fields) of at most kMaxDefinitionsBytes.
std::string definitionsJson(const MediaInfo& info, const std::string& container);

class Prober {
 public:
  using Done = std::function<void(const MediaInfo& info)>;

  Prober();
  ~Prober();
  Prober(const Prober&) = delete;
  Prober& operator=(const Prober&) = delete;

  // Probes `uri` (file:// or http://) after waiting `delayMs`, then calls `done`.
  void probe(const std::string& uri, int delayMs, Done done);

 private:
  struct Job {
    std::string uri;
    int delayMs = 0;
    Done done;
  };
  struct Loop;  // the GLib side, touched only by the prober's thread

  void run();
  // On the prober's thread: starts the next job unless one is running.
  void startNext();
  void finish(const MediaInfo& info);
  void wake_l();

  std::mutex mutex_;
  std::deque<Job> waiting_;
  bool busy_ = false;
  bool stopping_ = false;
  Loop* loop_ = nullptr;  // set while the main loop runs

  // Touched only by the prober's thread.
  Job current_;               // the running job
  bool discovering_ = false;  // the discoverer works on current_

  std::thread thread_;
};

}  // namespace zvr_emulator

#endif  // ZVR_EMULATOR_PROBER_H_
