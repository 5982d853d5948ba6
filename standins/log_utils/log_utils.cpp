// Desktop build of the platform logging library.
//
// Writes each enabled line to standard error in one write, so that lines from several threads
// never interleave. A statement is enabled when its severity (the low half-word of the level
// record's first word) is at or below the threshold read once from ZVR_LOG_LEVEL: 0 silences
// everything, 1 keeps headlines, 1000 adds errors (the default), 4000 progress, 5000 everything.

#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log_utils.h"

namespace {

constexpr unsigned long kDefaultThreshold = 1000;

unsigned long readThreshold() {
  const char* text = std::getenv("ZVR_LOG_LEVEL");
  if (text == nullptr || *text == '\0') return kDefaultThreshold;
  char* end = nullptr;
  const unsigned long value = std::strtoul(text, &end, 10);
  return *end == '\0' ? value : kDefaultThreshold;
}

unsigned long threshold() {
  static const unsigned long value = readThreshold();
  return value;
}

}  // namespace

extern "C" int cspDebugCheckLevelGetFrameAndChunk(const unsigned int* level) {
  if (level == nullptr) return 0;
  return (level[0] & 0xFFFFu) <= threshold() ? 1 : 0;
}

extern "C" void cspDebugOutput0(const char* format, ...) {
  if (format == nullptr) return;
  char small[512];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) return;
  if (static_cast<std::size_t>(length) < sizeof small) {
    std::fwrite(small, 1, static_cast<std::size_t>(length), stderr);
    return;
  }
  std::string line(static_cast<std::size_t>(length) + 1, '\0');
  va_start(args, format);
  std::vsnprintf(&line[0], line.size(), format, args);
  va_end(args);
  std::fwrite(line.data(), 1, static_cast<std::size_t>(length), stderr);
}

extern "C" const char* log_blog_base_name(const char* path) {
  if (path == nullptr) return "";
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

namespace base {

// Seconds on the monotonic clock: elapsed-time limits must not jump with the wall clock.
double log_now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace base
