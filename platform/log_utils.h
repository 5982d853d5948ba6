// Declarations of the platform logging library (liblog_utils).
//
// The library calls the platform's debug log only through these four functions. The platform
// build provides them; standins/log_utils provides a desktop build, and the unit tests link a
// capturing double in their place. All four may be called from any thread.

#ifndef ZVR_PLATFORM_LOG_UTILS_H_
#define ZVR_PLATFORM_LOG_UTILS_H_

// Returns non-zero when a message of the module and severity in `level` is to be written.
// `level` points to three words: word 0 holds the module in its high half-word and the
// severity in its low half-word; words 1 and 2 are zero.
extern "C" int cspDebugCheckLevelGetFrameAndChunk(const unsigned int* level);  // level: 3 words

// Writes one printf-style formatted line to the platform debug log.
extern "C" void cspDebugOutput0(const char* format, ...);

// Returns the part of `path` after its last '/', or `path` itself when it has none.
extern "C" const char* log_blog_base_name(const char* path);

namespace base {
// The current time in seconds.
double log_now();
}  // namespace base

#endif  // ZVR_PLATFORM_LOG_UTILS_H_
