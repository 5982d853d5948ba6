// The media-service emulator's behaviour, independent of the bus.
//
// handleSetValue() takes every value a client writes. A command message (the command key, 11
// strings) is recorded and answered like the media service would: "create" -> "created",
// "start" -> "started" then, after a delay, "definition", "preload" -> "started", "stop" ->
// "stopped", "seek" -> "seeked", "inspect" -> "status". Each answer echoes the command's session
// id at position 2 and names the object at position 3. An answer is written into "/ZVR_PROXY"
// first and then emitted through the `emit` function, from the emulator's answer thread.
//
// Faults (see Settings) change how it answers; setOption() changes them while it runs.
// Thread-safe: the bus thread, the answer thread and the HTTP threads all use it.

#ifndef ZVR_EMULATOR_EMULATOR_H_
#define ZVR_EMULATOR_EMULATOR_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "event_segment.h"

namespace zvr_emulator {

struct Settings {
  std::map<std::string, int> delayMs;             // per command word
  std::map<std::string, std::string> resultCode;  // per command word; default "200"
  std::set<std::string> silent;                   // command words, or "all"
  bool twice = false;                             // every answer is emitted twice
  bool staleSession = false;                      // answers carry another session id
  int exitAfter = 0;                              // exit after this many commands; 0: never
  bool refuseStart = false;                       // exit at once with a failure
  std::string segment = "normal";                 // "normal", "malformed", "no-terminator"
  std::string definitions = "SD,HD,FHD";
  int definitionDelayMs = 400;
  int httpPort = 0;        // 0: any free port
  std::string recordFile;  // every command message, one JSON array per line
};

// Applies one option "name=value" (the names are the command-line options without "--").
// Returns false, with a reason in *error, when the option is not understood.
bool applyOption(Settings& settings, const std::string& option, std::string* error);

class Emulator {
 public:
  using Emit = std::function<void(const std::vector<std::string>& record)>;

  Emulator(Settings settings, EventSegment& segment, Emit emit);
  ~Emulator();
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  // The HTTP base of the local URLs, e.g. "http://127.0.0.1:40123".
  void setMediaBase(const std::string& base);

  int handleSetValue(const std::string& key, const std::vector<std::string>& values);
  int handleGetValue(const std::string& key, std::vector<std::string>* values);
  bool setOption(const std::string& option, std::string* error);

  std::vector<std::vector<std::string>> recordedCommands() const;
  void clearRecordedCommands();

  // The source (a local file path) behind an object's local URL, or "" when it has none.
  std::string sourceOf(const std::string& objectId) const;

  // True once the emulator has handled its exit-after count and sent every answer.
  bool finished() const;
  // Blocks until finished() or shutdown().
  void waitFinished();
  // Stops answering; pending answers are dropped.
  void shutdown();

 private:
  struct Answer {
    std::chrono::steady_clock::time_point due;
    std::vector<std::string> record;
  };

  void queue_l(std::vector<std::string> record, int delayMs);
  void run();
  void publish(const std::vector<std::string>& record, const std::string& segmentMode);
  std::string localURL(const std::string& objectId) const;

  EventSegment& segment_;
  const Emit emit_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Settings settings_;
  std::string mediaBase_;
  std::map<std::string, std::vector<std::string>> values_;
  std::vector<std::vector<std::string>> recorded_;
  std::map<std::string, std::string> sources_;
  std::vector<Answer> pending_;
  int created_ = 0;
  int handled_ = 0;
  bool stopping_ = false;
  bool finished_ = false;
  std::thread answers_;
};

}  // namespace zvr_emulator

#endif  // ZVR_EMULATOR_EMULATOR_H_
