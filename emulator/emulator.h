// The media-service emulator's behaviour, independent of the bus.
//
// handleSetValue() takes every value a client writes. A command message (the command key, 11
// strings) is recorded and answered like the media service would: "create" -> "created" with a
// new object id, "start" and "preload" -> "started" then "definition", "stop" -> "stopped",
// "seek" -> "seeked", "inspect" -> "status". Each answer echoes the command's session id at
// position 2 and names the object at position 3. An answer is written into "/ZVR_PROXY" first
// and then emitted through the `emit` function, from the emulator's answer thread.
//
// "start" and "preload" open the source at position 6 (see openMediaSource) before answering:
// "started" carries the source's new local URL at position 6, or a failure code at position 1
// and what failed at position 8. The source is then probed off the bus thread, and the
// "definition" event carries the probed definitions at position 7. "seek" (position 5, seconds)
// is checked against the probed duration, waiting up to 200 ms for a probe still running.
// "stop", or the next start of the same object, closes the local URL; so does a start that
// would leave more than 64 local URLs open, for the one started longest ago.
//
// Faults (see Settings) change how it answers and serves; setOption() changes them while it
// runs. Thread-safe: the bus thread, the answer thread and the prober's thread all use it.

#ifndef ZVR_EMULATOR_EMULATOR_H_
#define ZVR_EMULATOR_EMULATOR_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "event_segment.h"
#include "media_server.h"
#include "media_source.h"
#include "prober.h"

namespace zvr_emulator {

struct Settings {
  std::map<std::string, int> delayMs;             // per command word
  std::map<std::string, std::string> resultCode;  // per command word; default "200"
  std::set<std::string> silent;                   // command words, or "all"
  bool twice = false;                             // every answer is emitted twice
  bool repeatId = false;                          // "create" repeats the last id
  bool staleSession = false;                      // answers carry another session id
  int exitAfter = 0;                              // exit after this many commands; 0: never
  bool refuseStart = false;                       // exit at once with a failure
  std::string segment = "normal";                 // "normal", "malformed", "no-terminator"
  std::string segmentGroup;                       // group of "/ZVR_PROXY"; "": the emulator's
  std::string definitions;      // the text of every "definition"; "": probed from the media
  int definitionDelayMs = 400;  // least time from "started" to "definition"
  int probeDelayMs = 0;         // probing starts this much later
  ServingFaults serving;        // how the local URLs misbehave
  int httpPort = 0;             // 0: any free port
  std::string recordFile;       // every command message, one JSON array per line
};

// Applies one option "name=value" (the names are the command-line options without "--").
// Returns false, with a reason in *error, when the option is not understood.
bool applyOption(Settings& settings, const std::string& option, std::string* error);

class Emulator {
 public:
  using Emit = std::function<void(const std::vector<std::string>& record)>;

  // `server` serves the local URLs and must outlive the emulator.
  Emulator(Settings settings, EventSegment& segment, MediaServer& server, Emit emit);
  ~Emulator();
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  int handleSetValue(const std::string& key, const std::vector<std::string>& values);
  int handleGetValue(const std::string& key, std::vector<std::string>* values);
  bool setOption(const std::string& option, std::string* error);

  std::vector<std::vector<std::string>> recordedCommands() const;
  void clearRecordedCommands();

  // True once the emulator has handled its exit-after count and sent every answer.
  bool finished() const;
  // Blocks until finished() or shutdown().
  void waitFinished();
  // Stops answering; pending answers are dropped.
  void shutdown();

 private:
  using Clock = std::chrono::steady_clock;

  // What a start or preload opened for an object, until its stop or next start.
  struct Playback {
    std::uint64_t order = 0;  // counts the playbacks opened, this one included
    std::string objectId;
    std::string sessionId;  // of the command that opened it
    std::string url;
    std::string container;
    bool answered = false;  // its "started" is sent
    Clock::time_point definitionDue;
    bool probed = false;
    double durationSeconds = 0;  // 0: not known
  };

  struct Answer {
    Clock::time_point due;
    std::vector<std::string> record;
    // A "seeked" whose code waits for the probe of `seekIn`, until `probeDeadline` at most.
    std::shared_ptr<Playback> seekIn;
    double seekPosition = 0;
    Clock::time_point probeDeadline;
  };

  // Opens the object's new playback, or fills in the failure; null when it failed.
  std::shared_ptr<Playback> answerStart_l(const std::vector<std::string>& command,
                                          std::vector<std::string>& answer,
                                          const OpenedSource& opened, bool silent,
                                          Clock::time_point due);
  void answerSeek_l(const std::vector<std::string>& command, std::vector<std::string>& answer,
                    Answer& pending);
  void closePlayback_l(const std::string& objectId);
  void onProbed(const std::shared_ptr<Playback>& playback, const MediaInfo& info);
  static Answer definition_l(const Playback& playback, const std::string& code,
                             const std::string& definitions, const std::string& detail,
                             Clock::time_point due);
  void queue_l(Answer answer);
  Clock::time_point readyAt_l(const Answer& answer) const;
  void finishSeek_l(Answer& answer) const;
  void run();
  void publish(const std::vector<std::string>& record, const std::string& segmentMode);

  // Constant after construction.
  EventSegment& segment_;
  MediaServer& server_;
  const Emit emit_;
  const std::string runToken_;  // makes object ids unique across emulator runs

  // Guarded by mutex_, as are the playbacks' fields.
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Settings settings_;
  std::map<std::string, std::vector<std::string>> values_;
  std::vector<std::vector<std::string>> recorded_;
  std::map<std::string, std::shared_ptr<Playback>> playbacks_;  // by object id
  std::vector<Answer> pending_;
  std::uint64_t playbacksOpened_ = 0;
  int created_ = 0;
  int handled_ = 0;
  bool stopping_ = false;
  bool finished_ = false;

  // Constant after construction until the destructor ends it.
  std::unique_ptr<Prober> prober_;
  std::thread answers_;
};

}  // namespace zvr_emulator

#endif  // ZVR_EMULATOR_EMULATOR_H_
