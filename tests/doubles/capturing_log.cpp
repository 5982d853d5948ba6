#include "capturing_log.h"

#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "log_utils.h"

namespace zvr_test {
namespace {

struct State {
  mutable std::mutex mutex;
  bool all = true;
  std::set<unsigned int> enabled;
  std::vector<LogLine> lines;
  std::vector<std::vector<unsigned int>> levelRecords;
  int outputCalls = 0;
  int levelChecks = 0;
  int baseNameCalls = 0;
  void (*outputHook)(const std::string& text) = nullptr;
};

State& state() {
  static State* const s = new State;
  return *s;
}

thread_local unsigned int lastSeverity = 0;

LogLine parse(unsigned int severity, std::string text) {
  LogLine line{severity, text, std::string(), text};
  const std::string tag = "[B-LOG] ";
  if (text.compare(0, tag.size(), tag) == 0) {
    const std::size_t end = text.find("(): ");
    if (end != std::string::npos) {
      const std::size_t colon = text.rfind(':', end);
      line.function = text.substr(colon + 1, end - colon - 1);
      line.message = text.substr(end + 4);
    }
  }
  return line;
}

bool isBlog(const LogLine& line) { return line.text.compare(0, 8, "[B-LOG] ") == 0; }

}  // namespace

CapturedLog& CapturedLog::instance() {
  static CapturedLog* const log = new CapturedLog;
  return *log;
}

void CapturedLog::enableAll() {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().all = true;
}

void CapturedLog::enableOnly(std::set<unsigned int> severities) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().all = false;
  state().enabled = std::move(severities);
}

std::vector<LogLine> CapturedLog::lines() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().lines;
}

void CapturedLog::clear() {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().lines.clear();
  state().levelRecords.clear();
  state().outputCalls = 0;
  state().levelChecks = 0;
  state().baseNameCalls = 0;
}

int CapturedLog::count(const std::string& message, unsigned int severity) const {
  int n = 0;
  for (const LogLine& line : lines()) {
    n += isBlog(line) && line.message == message && line.severity == severity ? 1 : 0;
  }
  return n;
}

int CapturedLog::count(const std::string& message) const {
  int n = 0;
  for (const LogLine& line : lines()) n += isBlog(line) && line.message == message ? 1 : 0;
  return n;
}

std::vector<std::string> CapturedLog::messages(unsigned int severity) const {
  std::vector<std::string> result;
  for (const LogLine& line : lines()) {
    if (isBlog(line) && line.severity == severity) result.push_back(line.message);
  }
  return result;
}

std::vector<std::string> CapturedLog::messages() const {
  std::vector<std::string> result;
  for (const LogLine& line : lines()) {
    if (isBlog(line)) result.push_back(line.message);
  }
  return result;
}

std::vector<std::vector<unsigned int>> CapturedLog::levelRecords() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().levelRecords;
}

void CapturedLog::setOutputHook(void (*hook)(const std::string& text)) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().outputHook = hook;
}

int CapturedLog::outputCalls() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().outputCalls;
}

int CapturedLog::levelChecks() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().levelChecks;
}

int CapturedLog::baseNameCalls() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().baseNameCalls;
}

}  // namespace zvr_test

extern "C" int cspDebugCheckLevelGetFrameAndChunk(const unsigned int* level) {
  using zvr_test::state;
  const unsigned int severity = level[0] & 0xFFFFu;
  zvr_test::lastSeverity = severity;
  std::lock_guard<std::mutex> lock(state().mutex);
  ++state().levelChecks;
  state().levelRecords.push_back({level[0], level[1], level[2]});
  return state().all || state().enabled.count(severity) != 0 ? 1 : 0;
}

extern "C" void cspDebugOutput0(const char* format, ...) {
  using zvr_test::state;
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string text(length > 0 ? static_cast<std::size_t>(length) + 1 : 1, '\0');
  va_start(args, format);
  std::vsnprintf(&text[0], text.size(), format, args);
  va_end(args);
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  zvr_test::LogLine line = zvr_test::parse(zvr_test::lastSeverity, text);
  void (*hook)(const std::string&) = nullptr;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().outputCalls;
    state().lines.push_back(std::move(line));
    hook = state().outputHook;
  }
  if (hook != nullptr) hook(text);
}

extern "C" const char* log_blog_base_name(const char* path) {
  using zvr_test::state;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().baseNameCalls;
  }
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

namespace base {

double log_now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace base
