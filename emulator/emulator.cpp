#include "emulator.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>
#include <utility>

namespace zvr_emulator {

namespace {

const char kCommandKey[] = "varek.sl2.vstr.videoplayer.zvr.command";
const char kEventKey[] = "varek.sl2.vstr.videoplayer.zvr.event";
constexpr std::size_t kPositions = 11;

bool parseInt(const std::string& text, int* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  const long parsed = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || parsed < 0 || parsed > 3600000) return false;
  *value = static_cast<int>(parsed);
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

// A local file path behind a source text: "file:///a/b" or "/a/b".
std::string localPath(const std::string& source) {
  const std::string scheme = "file://";
  if (source.compare(0, scheme.size(), scheme) == 0) return source.substr(scheme.size());
  if (!source.empty() && source[0] == '/') return source;
  return std::string();
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
  } else if (name == "stale-session" && parseBool(value, &s.staleSession)) {
  } else if (name == "exit-after" && parseInt(value, &number)) {
    s.exitAfter = number;
  } else if (name == "refuse-start" && parseBool(value, &s.refuseStart)) {
  } else if (name == "segment" &&
             (value == "normal" || value == "malformed" || value == "no-terminator")) {
    s.segment = value;
  } else if (name == "definitions") {
    s.definitions = value;
  } else if (name == "definition-delay" && parseInt(value, &number)) {
    s.definitionDelayMs = number;
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

Emulator::Emulator(Settings settings, EventSegment& segment, Emit emit)
    : segment_(segment), emit_(std::move(emit)), settings_(std::move(settings)) {
  answers_ = std::thread([this] { run(); });
}

Emulator::~Emulator() {
  shutdown();
  answers_.join();
}

void Emulator::shutdown() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
}

void Emulator::setMediaBase(const std::string& base) {
  std::lock_guard<std::mutex> lock(mutex_);
  mediaBase_ = base;
}

std::string Emulator::localURL(const std::string& objectId) const {
  return mediaBase_ + "/media/" + objectId;
}

int Emulator::handleSetValue(const std::string& key, const std::vector<std::string>& values) {
  std::unique_lock<std::mutex> lock(mutex_);
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

  const std::string& word = values[0];
  std::vector<std::string> answer(kPositions);
  answer[2] = settings_.staleSession ? staleSessionId() : values[2];
  answer[3] = values[3];
  auto code = settings_.resultCode.find(word);
  answer[1] = code != settings_.resultCode.end() ? code->second : "200";
  if (word == "create") {
    answer[0] = "created";
    answer[3] = "zvr-" + std::to_string(++created_);
  } else if (word == "start" || word == "preload") {
    answer[0] = "started";
    answer[6] = localURL(values[3]);
    sources_[values[3]] = localPath(values[6]);
  } else if (word == "stop") {
    answer[0] = "stopped";
  } else if (word == "seek") {
    answer[0] = "seeked";
  } else if (word == "inspect") {
    answer[0] = "status";
  } else {
    return -1;
  }

  const bool silent = settings_.silent.count(word) != 0 || settings_.silent.count("all") != 0;
  if (!silent) {
    auto delay = settings_.delayMs.find(word);
    const int delayMs = delay != settings_.delayMs.end() ? delay->second : 0;
    queue_l(answer, delayMs);
    if (word == "start" && answer[1] == "200") {
      std::vector<std::string> definition(kPositions);
      definition[0] = "definition";
      definition[1] = "200";
      definition[2] = answer[2];
      definition[3] = values[3];
      definition[7] = settings_.definitions;
      queue_l(definition, delayMs + settings_.definitionDelayMs);
    }
  }
  if (settings_.exitAfter > 0 && handled_ >= settings_.exitAfter) {
    finished_ = pending_.empty();
  }
  changed_.notify_all();
  return 0;
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
  return applyOption(settings_, option, error);
}

std::vector<std::vector<std::string>> Emulator::recordedCommands() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return recorded_;
}

void Emulator::clearRecordedCommands() {
  std::lock_guard<std::mutex> lock(mutex_);
  recorded_.clear();
}

std::string Emulator::sourceOf(const std::string& objectId) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sources_.find(objectId);
  return it != sources_.end() ? it->second : std::string();
}

bool Emulator::finished() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return finished_;
}

void Emulator::waitFinished() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return finished_ || stopping_; });
}

void Emulator::queue_l(std::vector<std::string> record, int delayMs) {
  const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(delayMs);
  pending_.push_back({due, record});
  if (settings_.twice) pending_.push_back({due, std::move(record)});
}

void Emulator::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (stopping_) return;
    if (pending_.empty()) {
      changed_.wait(lock);
      continue;
    }
    auto next = std::min_element(pending_.begin(), pending_.end(),
                                 [](const Answer& a, const Answer& b) { return a.due < b.due; });
    if (next->due > std::chrono::steady_clock::now()) {
      changed_.wait_until(lock, next->due);
      continue;
    }
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
