// The machine-wide lock around "/ZVR_PROXY".
//
// Everything that creates, writes or removes the shared-memory segment on this machine (test
// runs, fuzzers, these benchmarks) takes an exclusive flock on /tmp/zvr_shm.lock first. The
// descriptor is close-on-exec, so that a process started while the lock is held (the bus daemon,
// the emulator) never inherits it and never keeps the lock alive after this process is gone.

#ifndef ZVR_BENCH_SEGMENT_LOCK_H_
#define ZVR_BENCH_SEGMENT_LOCK_H_

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

namespace zvr_bench {

class SegmentLock {
 public:
  static constexpr const char* kPath = "/tmp/zvr_shm.lock";

  // Waits up to ZVR_BENCH_LOCK_WAIT seconds (default 900: a fuzzing session holds the lock for
  // ten minutes) and throws when the lock stays busy. Reports on standard error how long it
  // waited.
  SegmentLock() {
    fd_ = open(kPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ < 0) fd_ = open(kPath, O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) throw std::runtime_error(std::string("cannot open ") + kPath);
    const char* text = std::getenv("ZVR_BENCH_LOCK_WAIT");
    const int waitSeconds = text != nullptr && *text != '\0' ? std::atoi(text) : 900;
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = start + std::chrono::seconds(waitSeconds);
    bool told = false;
    while (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      if (std::chrono::steady_clock::now() >= deadline) {
        close(fd_);
        throw std::runtime_error(std::string(kPath) + " stayed busy");
      }
      if (!told) {
        std::fprintf(stderr, "waiting for %s (held by another run)\n", kPath);
        told = true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (told) {
      const double waited =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::fprintf(stderr, "segment lock: waited %.0f s for %s\n", waited, kPath);
    }
  }
  ~SegmentLock() {
    flock(fd_, LOCK_UN);
    close(fd_);
  }
  SegmentLock(const SegmentLock&) = delete;
  SegmentLock& operator=(const SegmentLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace zvr_bench

#endif  // ZVR_BENCH_SEGMENT_LOCK_H_
