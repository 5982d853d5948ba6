#include "emulator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <utility>

namespace zvr_emulator {

namespace {

const char kCommandKey[] = "varek.sl2.vstr.videoplayer.zvr.command";
const char kEventKey[] = "varek.sl2.vstr.videoplayer.zvr.event";
constexpr std::size_t kPositions = 11;

// A synchronous start waits 250 ms for "started": an http source has this long to show its
// first bytes.
constexpr std::chrono::milliseconds kHttpSniffTime(150);
// How long a seek waits for the probe that tells the media's duration.
constexpr std::chrono::milliseconds kSeekProbeWait(200);
// Local URLs open at once. A host that never stops its objects would otherwise keep a session
// (and for a file its descriptor) per object for as long as the emulator runs; beyond this many,
// a start closes the one started longest ago.
constexpr std::size_t kMaxPlaybacks = 64;

bool parseInt(const std::string& text, int* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  const long parsed = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || parsed < 0 || parsed > 3600000) return false;
  *value = static_cast<int>(parsed);
  return true;
}

// A byte count or rate: 0 up to 2^50.
bool parseCount(const std::string& text, std::int64_t* value) {
  if (text.empty() || text[0] == '-') return false;
  char* end = nullptr;
  const long long parsed = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || parsed < 0 || parsed > (1LL << 50)) return false;
  *value = parsed;
  return true;
}

bool parseBool(const std::string& text, bool* value) {
  if (text == "1" || text == "true" || text == "on" || text.empty()) {
    *value = true;
    return true;
  }
  if (text == "0" || text == "false" || text == "off") {
    *value = false;
    return true;
  }
  return false;
}

// Splits "word:value".
bool splitPair(const std::string& text, std::string* word, std::string* value) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 0) return false;
  *word = text.substr(0, colon);
  *value = text.substr(colon + 1);
  return true;
}

std::string jsonArray(const std::vector<std::string>& values) {
  std::string line = "[";
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i != 0) line += ",";
    line += "\"";
    for (char c : values[i]) {
      if (c == '"' || c == '\\') line += '\\';
      line += c;
    }
    line += "\"";
  }
  return line + "]";
}

std::string staleSessionId() {
  static std::mt19937 random(std::random_device{}());
  char text[40];
  std::snprintf(text, sizeof text, "ses-STALE%08X", static_cast<unsigned>(random()));
  return text;
}

std::string newRunToken() {
  std::random_device device;
  char text[16];
  std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(device()));
  return text;
}

std::string seconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", value);
  return text;
}

}  // namespace

bool applyOption(Settings& s, const std::string& option, std::string* error) {
  const std::size_t equals = option.find('=');
  const std::string name = option.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : option.substr(equals + 1);
  std::string word, argument;
  int number = 0;
  if (name == "delay" && splitPair(value, &word, &argument) && parseInt(argument, &number)) {
    s.delayMs[word] = number;
  } else if (name == "result" && splitPair(value, &word, &argument)) {
    s.resultCode[word] = argument;
  } else if (name == "silent") {
    if (value.empty()) {
      s.silent.clear();
    } else {
      s.silent.insert(value);
    }
  } else if (name == "answer") {
    s.silent.erase(value);
  } else if (name == "twice" && parseBool(value, &s.twice)) {
  } else if (name == "repeat-id" && parseBool(value, &s.repeatId)) {
  } else if (name == "stale-session" && parseBool(value, &s.staleSession)) {
  } else if (name == "exit-after" && parseInt(value, &number)) {
    s.exitAfter = number;
  } else if (name == "refuse-start" && parseBool(value, &s.refuseStart)) {
  } else if (name == "segment" &&
             (value == "normal" || value == "malformed" || value == "no-terminator")) {
    s.segment = value;
  } else if (name == "segment-group" && !value.empty()) {
    s.segmentGroup = value;
  } else if (name == "definitions") {
    s.definitions = value;
  } else if (name == "definition-delay" && parseInt(value, &number)) {
    s.definitionDelayMs = number;
  } else if (name == "probe-delay" && parseInt(value, &number)) {
    s.probeDelayMs = number;
  } else if (name == "throttle" && parseCount(value, &s.serving.throttleBytesPerSecond)) {
  } else if (name == "cut-after" && parseCount(value, &s.serving.cutAfterBytes)) {
  } else if (name == "no-range" && parseBool(value, &s.serving.noRange)) {
  } else if (name == "first-byte-delay" && parseInt(value, &number)) {
    s.serving.firstByteDelayMs = number;
  } else if (name == "http-port" && parseInt(value, &number) && number < 65536) {
    s.httpPort = number;
  } else if (name == "record") {
    s.recordFile = value;
  } else {
    if (error != nullptr) *error = "unknown option or bad value: " + option;
    return false;
  }
  return true;
}

Emulator::Emulator(Settings settings, EventSegment& segment, MediaServer& server, Emit emit)
    : segment_(segment),
      server_(server),
      emit_(std::move(emit)),
      runToken_(newRunToken()),
      settings_(std::move(settings)),
      prober_(std::make_unique<Prober>()) {
  server_.setFaults(settings_.serving);
  answers_ = std::thread([this] { run(); });
}

Emulator::~Emulator() {
  shutdown();
  answers_.join();
  // Its callbacks use the members below; it is gone before they are.
  prober_.reset();
}

void Emulator::shutdown() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
}

int Emulator::handleSetValue(const std::string& key, const std::vector<std::string>& values) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (key != kCommandKey) {
      values_[key] = values;
      return 0;
    }
    recorded_.push_back(values);
    if (!settings_.recordFile.empty()) {
      std::ofstream(settings_.recordFile, std::ios::app) << jsonArray(values) << "\n";
    }
    ++handled_;
    if (values.size() != kPositions) return -1;
  }

  // Opening reads the source's first bytes, from an upstream server for an http source: done
  // without the lock, on the bus thread, which answers one command at a time anyway.
  const std::string& word = values[0];
  OpenedSource opened;
  if (word == "start" || word == "preload") {
    opened = openMediaSource(values[6], Clock::now() + kHttpSniffTime);
  }

  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> answer(kPositions);
  answer[2] = settings_.staleSession ? staleSessionId() : values[2];
  answer[3] = values[3];
  auto code = settings_.resultCode.find(word);
  answer[1] = code != settings_.resultCode.end() ? code->second : "200";
  const bool silent = settings_.silent.count(word) != 0 || settings_.silent.count("all") != 0;
  auto delay = settings_.delayMs.find(word);
  const Clock::time_point due =
      Clock::now() +
      std::chrono::milliseconds(delay != settings_.delayMs.end() ? delay->second : 0);
  Answer pending;
  std::shared_ptr<Playback> started;
  if (word == "create") {
    answer[0] = "created";
    // A service that hands out an id twice: the previous creation's id again.
    if (!settings_.repeatId || created_ == 0) ++created_;
    answer[3] = "zvr-" + runToken_ + "-" + std::to_string(created_);
  } else if (word == "start" || word == "preload") {
    answer[0] = "started";
    started = answerStart_l(values, answer, opened, silent, due);
  } else if (word == "stop") {
    answer[0] = "stopped";
    closePlayback_l(values[3]);
  } else if (word == "seek") {
    answer[0] = "seeked";
    if (code == settings_.resultCode.end()) answerSeek_l(values, answer, pending);
  } else if (word == "inspect") {
    answer[0] = "status";
  } else {
    return -1;
  }

  if (!silent) {
    pending.due = due;
    pending.record = std::move(answer);
    queue_l(std::move(pending));
  }
  // Queued after its "started", which it must not overtake when both are due at once.
  if (started && started->answered && !settings_.definitions.empty()) {
    queue_l(definition_l(*started, "200", settings_.definitions, std::string(),
                         started->definitionDue));
  }
  if (settings_.exitAfter > 0 && handled_ >= settings_.exitAfter) {
    finished_ = pending_.empty();
  }
  changed_.notify_all();
  return 0;
}

// A failure code configured with result=start:CODE wins over the source's own; a "started"
// that is not "200" leaves the object without a local URL.
std::shared_ptr<Emulator::Playback> Emulator::answerStart_l(const std::vector<std::string>& command,
                                                            std::vector<std::string>& answer,
                                                            const OpenedSource& opened, bool silent,
                                                            Clock::time_point due) {
  const std::string& objectId = command[3];
  closePlayback_l(objectId);
  if (answer[1] == "200") answer[1] = opened.code;
  if (answer[1] != "200" || !opened.source) {
    answer[8] = opened.code != "200" ? opened.detail : std::string();
    return nullptr;
  }

  if (playbacks_.size() >= kMaxPlaybacks) {
    auto oldest = std::min_element(
        playbacks_.begin(), playbacks_.end(),
        [](const auto& a, const auto& b) { return a.second->order < b.second->order; });
    std::fprintf(stderr,
                 "zvr_emulator: %zu local URLs are open; closing the one of %s, started longest "
                 "ago and never stopped\n",
                 playbacks_.size(), oldest->first.c_str());
    closePlayback_l(oldest->first);
  }
  auto playback = std::make_shared<Playback>();
  playback->order = ++playbacksOpened_;
  playback->objectId = objectId;
  playback->sessionId = answer[2];
  playback->url = server_.open(objectId, opened.source);
  playback->container = opened.source->contentType();
  playback->answered = !silent;
  playback->definitionDue = due + std::chrono::milliseconds(settings_.definitionDelayMs);
  playbacks_[objectId] = playback;
  answer[6] = playback->url;
  answer[8] = playback->container;

  if (!settings_.definitions.empty()) {
    // Given definitions stand for the probe's: nothing is probed, seeks are not checked.
    playback->probed = true;
    return playback;
  }
  prober_->probe(opened.source->probeURI(), settings_.probeDelayMs,
                 [this, playback](const MediaInfo& info) { onProbed(playback, info); });
  return playback;
}

void Emulator::answerSeek_l(const std::vector<std::string>& command,
                            std::vector<std::string>& answer, Answer& pending) {
  auto it = playbacks_.find(command[3]);
  if (it == playbacks_.end()) {
    answer[1] = "404";
    answer[8] = "nothing is started for " + command[3];
    return;
  }
  char* end = nullptr;
  const double position = std::strtod(command[5].c_str(), &end);
  if (command[5].empty() || *end != '\0' || !std::isfinite(position)) {
    answer[1] = "400";
    answer[8] = "not a position in seconds: '" + command[5] + "'";
    return;
  }
  pending.seekIn = it->second;
  pending.seekPosition = position;
  pending.probeDeadline = Clock::now() + kSeekProbeWait;
}

void Emulator::closePlayback_l(const std::string& objectId) {
  auto it = playbacks_.find(objectId);
  if (it == playbacks_.end()) return;
  server_.close(it->second->url);
  playbacks_.erase(it);
}

void Emulator::onProbed(const std::shared_ptr<Playback>& playback, const MediaInfo& info) {
  std::lock_guard<std::mutex> lock(mutex_);
  playback->probed = true;
  playback->durationSeconds = info.ok ? info.durationSeconds : 0;
  changed_.notify_all();  // seeks may wait for this
  auto current = playbacks_.find(playback->objectId);
  if (stopping_ || !playback->answered || current == playbacks_.end() ||
      current->second != playback) {
    return;
  }
  const Clock::time_point due = std::max(Clock::now(), playback->definitionDue);
  if (info.ok) {
    queue_l(definition_l(*playback, "200", definitionsJson(info, playback->container),
                         std::string(), due));
  } else {
    queue_l(definition_l(*playback, "415", std::string(), info.error, due));
  }
}

Emulator::Answer Emulator::definition_l(const Playback& playback, const std::string& code,
                                        const std::string& definitions, const std::string& detail,
                                        Clock::time_point due) {
  Answer definition;
  definition.due = due;
  definition.record.assign(kPositions, std::string());
  definition.record[0] = "definition";
  definition.record[1] = code;
  definition.record[2] = playback.sessionId;
  definition.record[3] = playback.objectId;
  definition.record[7] = definitions;
  definition.record[8] = detail;
  return definition;
}

int Emulator::handleGetValue(const std::string& key, std::vector<std::string>* values) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = values_.find(key);
  if (it == values_.end()) return -1;
  *values = it->second;
  return 0;
}

bool Emulator::setOption(const std::string& option, std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (option == "remove-segment" || option == "remove-segment=1") {
    segment_.removeName();
    return true;
  }
  if (option.compare(0, 14, "segment-group=") == 0) {
    if (error != nullptr) *error = "segment-group is only taken at start";
    return false;
  }
  if (!applyOption(settings_, option, error)) return false;
  server_.setFaults(settings_.serving);
  return true;
}

std::vector<std::vector<std::string>> Emulator::recordedCommands() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return recorded_;
}

void Emulator::clearRecordedCommands() {
  std::lock_guard<std::mutex> lock(mutex_);
  recorded_.clear();
}

bool Emulator::finished() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return finished_;
}

void Emulator::waitFinished() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return finished_ || stopping_; });
}

void Emulator::queue_l(Answer answer) {
  if (settings_.twice) pending_.push_back(answer);
  pending_.push_back(std::move(answer));
  changed_.notify_all();
}

Emulator::Clock::time_point Emulator::readyAt_l(const Answer& answer) const {
  if (answer.seekIn && !answer.seekIn->probed) return std::max(answer.due, answer.probeDeadline);
  return answer.due;
}

void Emulator::finishSeek_l(Answer& answer) const {
  const Playback& playback = *answer.seekIn;
  std::vector<std::string>& record = answer.record;
  if (!playback.probed) {
    record[8] = "not checked: the media is still being probed";
  } else if (playback.durationSeconds <= 0) {
    record[8] = "not checked: the media does not tell its duration";
  } else if (answer.seekPosition < 0 || answer.seekPosition > playback.durationSeconds) {
    record[1] = "416";
    record[8] = "position " + seconds(answer.seekPosition) + " lies outside the media (0 to " +
                seconds(playback.durationSeconds) + ")";
  }
}

void Emulator::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (stopping_) return;
    if (pending_.empty()) {
      changed_.wait(lock);
      continue;
    }
    auto next = std::min_element(
        pending_.begin(), pending_.end(),
        [this](const Answer& a, const Answer& b) { return readyAt_l(a) < readyAt_l(b); });
    const Clock::time_point ready = readyAt_l(*next);
    if (ready > Clock::now()) {
      changed_.wait_until(lock, ready);
      continue;
    }
    if (next->seekIn) finishSeek_l(*next);
    std::vector<std::string> record = std::move(next->record);
    pending_.erase(next);
    const std::string segmentMode = settings_.segment;
    values_[kEventKey] = record;
    lock.unlock();
    publish(record, segmentMode);
    lock.lock();
    if (settings_.exitAfter > 0 && handled_ >= settings_.exitAfter && pending_.empty()) {
      finished_ = true;
      changed_.notify_all();
    }
  }
}

void Emulator::publish(const std::vector<std::string>& record, const std::string& segmentMode) {
  if (segmentMode == "malformed") {
    segment_.writeMalformed();
  } else if (segmentMode == "no-terminator") {
    segment_.writeWithoutTerminator();
  } else {
    segment_.writeRecord(record);
  }
  emit_(record);
}

}  // namespace zvr_emulator
