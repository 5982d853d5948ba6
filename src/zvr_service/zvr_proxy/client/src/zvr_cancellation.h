// The unwinding of a cancelled thread (glibc's abi::__forced_unwind) must pass through every
// catch-all of the library: a handler that ends without rethrowing it aborts the process.

#ifndef ZVR_CANCELLATION_H_
#define ZVR_CANCELLATION_H_

#include <exception>

namespace velmora {

// Inside a catch (...) handler: whether the exception is that unwinding. A handler that names
// abi::__forced_unwind binds a reference to a null object, which UBSan reports as an error;
// std::current_exception() is empty for it, as for any exception not thrown by C++ code, which
// is rethrown as well.
inline bool unwindingCancelledThread() { return !std::current_exception(); }

}  // namespace velmora

#endif  // ZVR_CANCELLATION_H_
