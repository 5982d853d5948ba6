// Platform doubles for the micro benchmarks, linked in place of libzvr_model_access and
// liblog_utils.
//
// The model access does nothing: every operation returns at once and setAccessValue only counts
// its calls, so a benchmark measures the library's side of a command and nothing behind it.
//
// The log works like the desktop logging library with its output thrown away: a statement is
// enabled when its severity is at or below the threshold (0 disables everything), and an
// enabled line is formatted into a buffer exactly as the desktop library formats it, then
// dropped. base::log_now() reads the monotonic clock, as the desktop library does.

#ifndef ZVR_BENCH_DOUBLES_H_
#define ZVR_BENCH_DOUBLES_H_

#include <cstdint>

namespace zvr_bench {

// Severity threshold of the discarding log; 0 disables every statement.
void setLogThreshold(unsigned int threshold);
// Lines formatted and dropped so far.
std::uint64_t droppedLines();

// setAccessValue calls made so far, on any connection.
std::uint64_t accessValueWrites();

}  // namespace zvr_bench

#endif  // ZVR_BENCH_DOUBLES_H_
