// The library's one logging pattern, on top of the platform debug log (platform/log_utils.h).
//
// ZVR_LOG(severity, "message\n", args...) checks first whether the severity is enabled, and
// only then formats the line "[B-LOG] <file base name>:<line>:<function>(): message". A disabled
// statement therefore costs one call into the platform and no formatting.
//
// ZVR_TRACE() puts a guard on the stack that writes an IN line now and an OUT line on every exit
// from the scope, exceptions included, both at the verbose severity.
//
// Everything here is stateless and may be used from any thread.

#ifndef ZVR_LOG_ZVR_LOG_H_
#define ZVR_LOG_ZVR_LOG_H_

#include <pthread.h>

#include "log_utils.h"

namespace velmora {
namespace logging {

// This library's module number, the high half-word of the level record's first word.
constexpr unsigned int kModule = 0x5F;

// Severities, the low half-word of the level record's first word.
constexpr unsigned int kHeadline = 1;     // notable outcomes
constexpr unsigned int kError = 1000;     // errors, refusals, time-outs
constexpr unsigned int kProgress = 4000;  // ordinary progress
constexpr unsigned int kVerbose = 5000;   // trace lines and per-field dumps

constexpr unsigned int levelWord(unsigned int severity) { return (kModule << 16) | severity; }

inline bool isEnabled(unsigned int severity) {
  const unsigned int level[3] = {levelWord(severity), 0, 0};
  return cspDebugCheckLevelGetFrameAndChunk(level) != 0;
}

// Never called: lets the compiler check each statement's format against its arguments, which
// the platform's cspDebugOutput0 declaration does not allow.
inline void __attribute__((format(printf, 1, 2))) checkFormat(const char*, ...) {}

// Writes the IN line on construction and the OUT line on destruction (see ZVR_TRACE).
class TraceGuard {
 public:
  TraceGuard(const char* function, const char* path, int line)
      : function_(function), baseName_(log_blog_base_name(path)), line_(line) {
    if (isEnabled(kVerbose)) {
      cspDebugOutput0("[TRACE -> %s(IN)] %s:%d:%s() \n", function_, baseName_, line_, function_);
    }
  }
  // The OUT line is written with the thread's cancellation disabled: the output may be a
  // cancellation point, and a cancellation acted upon inside a destructor, which may not throw,
  // ends the process instead of unwinding the thread. A deliberate deviation from the plain
  // pattern, which writes the line as it is.
  ~TraceGuard() {
    if (isEnabled(kVerbose)) {
      int cancelState = PTHREAD_CANCEL_ENABLE;
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
      cspDebugOutput0("[TRACE <- %s(OUT)] %s:%d:%s() \n", function_, log_blog_base_name(baseName_),
                      line_, function_);
      pthread_setcancelstate(cancelState, nullptr);
    }
  }
  TraceGuard(const TraceGuard&) = delete;
  TraceGuard& operator=(const TraceGuard&) = delete;

 private:
  const char* const function_;
  const char* const baseName_;
  const int line_;
};

}  // namespace logging
}  // namespace velmora

#define ZVR_LOG(severity, format, ...)                                                             \
  do {                                                                                             \
    if (false) ::velmora::logging::checkFormat(format, ##__VA_ARGS__);                             \
    if (::velmora::logging::isEnabled(severity)) {                                                 \
      cspDebugOutput0("[%s] %s:%d:%s(): " format, "B-LOG", log_blog_base_name(__FILE__), __LINE__, \
                      __func__, ##__VA_ARGS__);                                                    \
    }                                                                                              \
  } while (0)

#define ZVR_TRACE() ::velmora::logging::TraceGuard zvrTraceGuard(__func__, __FILE__, __LINE__)

#endif  // ZVR_LOG_ZVR_LOG_H_
