// Linked into every test executable that touches "/ZVR_PROXY": each test process starts with no
// segment, whatever an earlier process (or an emulator, which never removes it) left behind.

#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

class CleanSharedMemory : public ::testing::Environment {
 public:
  void SetUp() override { shm_unlink("/ZVR_PROXY"); }
};

const ::testing::Environment* const kCleanSharedMemory =
    ::testing::AddGlobalTestEnvironment(new CleanSharedMemory);

}  // namespace
