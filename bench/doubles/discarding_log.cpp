// A logging library whose output is formatted and dropped (see bench_doubles.h).

#include <time.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "bench_doubles.h"
#include "log_utils.h"

namespace zvr_bench {
namespace {
std::atomic<unsigned int> gThreshold{1000};
std::atomic<std::uint64_t> gDropped{0};
}  // namespace

void setLogThreshold(unsigned int threshold) {
  gThreshold.store(threshold, std::memory_order_relaxed);
}

std::uint64_t droppedLines() { return gDropped.load(std::memory_order_relaxed); }

}  // namespace zvr_bench

extern "C" int cspDebugCheckLevelGetFrameAndChunk(const unsigned int* level) {
  if (level == nullptr) return 0;
  return (level[0] & 0xFFFFu) <= zvr_bench::gThreshold.load(std::memory_order_relaxed) ? 1 : 0;
}

// Formats like the desktop library (a 512-byte stack buffer, a heap string for longer lines)
// and writes nothing.
extern "C" void cspDebugOutput0(const char* format, ...) {
  if (format == nullptr) return;
  char small[512];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) return;
  if (static_cast<std::size_t>(length) >= sizeof small) {
    std::string line(static_cast<std::size_t>(length) + 1, '\0');
    va_start(args, format);
    std::vsnprintf(&line[0], line.size(), format, args);
    va_end(args);
  }
  zvr_bench::gDropped.fetch_add(1, std::memory_order_relaxed);
}

extern "C" const char* log_blog_base_name(const char* path) {
  if (path == nullptr) return "";
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
