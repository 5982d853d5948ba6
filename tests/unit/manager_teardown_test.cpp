// The manager's teardown and the shared-memory calls it makes. munmap and shm_unlink are wrapped
// at link time, so the test sees every call the library makes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

#include "recording_model_access.h"
#include "shm_writer.h"
#include "zvr_media_proxy_manager.h"

namespace {
std::atomic<int> unmapCalls{0};
std::atomic<int> unlinkCalls{0};
}  // namespace

extern "C" int __real_munmap(void* address, size_t length);
extern "C" int __real_shm_unlink(const char* name);

extern "C" int __wrap_munmap(void* address, size_t length) {
  ++unmapCalls;
  return __real_munmap(address, length);
}

extern "C" int __wrap_shm_unlink(const char* name) {
  ++unlinkCalls;
  return __real_shm_unlink(name);
}

namespace {

using velmora::ZVRMediaProxyManager;

TEST(ManagerTeardownTest, DestructionWithoutMappingNeitherUnmapsNorRemovesTheName) {
  unmapCalls = 0;  // the test environment's own clean-up is wrapped too
  unlinkCalls = 0;
  ZVRMediaProxyManager* manager = new ZVRMediaProxyManager();
  delete manager;
  EXPECT_EQ(unmapCalls.load(), 0);
  EXPECT_EQ(unlinkCalls.load(), 0);
  EXPECT_EQ(zvr_test::ModelAccessRecorder::instance().destroyed(), 1);
}

TEST(ManagerTeardownTest, DestructionWithAMappingUnmapsAndRemovesTheName) {
  zvr_test::ShmWriter writer;
  ZVRMediaProxyManager* manager = new ZVRMediaProxyManager();
  ASSERT_EQ(manager->checkZVREventMemory(), 0);
  unmapCalls = 0;
  unlinkCalls = 0;
  delete manager;
  EXPECT_EQ(unmapCalls.load(), 1);
  EXPECT_EQ(unlinkCalls.load(), 1);
  EXPECT_FALSE(zvr_test::ShmWriter::exists());
}

}  // namespace
