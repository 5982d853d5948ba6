// A mapping of "/ZVR_PROXY" that fails is stored as no mapping at all: the check reports it, and
// later reads find no memory instead of reading the mapping call's failure value. Built with
// --wrap=mmap, so that the library's mmap can be made to fail.

#include <sys/mman.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "capturing_log.h"
#include "shm_writer.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"

extern "C" void* __real_mmap(void* address, size_t length, int protection, int flags, int fd,
                             off_t offset);

namespace {
std::atomic<bool> gFailMappings{false};
}  // namespace

extern "C" void* __wrap_mmap(void* address, size_t length, int protection, int flags, int fd,
                             off_t offset) {
  if (gFailMappings.load()) return MAP_FAILED;
  return __real_mmap(address, length, protection, flags, fd, offset);
}

namespace {

using velmora::ZVRMediaProxyManager;
using velmora::logging::kProgress;
using zvr_test::CapturedLog;
using zvr_test::ShmWriter;

TEST(MappingFailureTest, AFailedMappingIsReportedAndLaterReadsFindNoMemory) {
  ShmWriter writer;
  writer.writeRecord({"created", "200", "ses-1", "abc"});
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  CapturedLog::instance().clear();

  gFailMappings = true;
  EXPECT_EQ(manager->checkZVREventMemory(), -1);
  gFailMappings = false;
  EXPECT_EQ(CapturedLog::instance().messages(),
            std::vector<std::string>{"Failed to mmap buffer shared memory\n\n"});

  CapturedLog::instance().clear();
  EXPECT_TRUE(manager->readZVREventMemory().empty());
  EXPECT_EQ(CapturedLog::instance().messages(), std::vector<std::string>{"memory NULL.\n"});
  EXPECT_EQ(CapturedLog::instance().count("memory NULL.\n", kProgress), 1);
}

TEST(MappingFailureTest, AFailedMappingReplacesAnEarlierOne) {
  ShmWriter writer;
  writer.writeRecord({"created", "200", "ses-1", "abc"});
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  ASSERT_EQ(manager->checkZVREventMemory(), 0);
  ASSERT_FALSE(manager->readZVREventMemory().empty());

  gFailMappings = true;
  EXPECT_EQ(manager->checkZVREventMemory(), -1);
  gFailMappings = false;
  EXPECT_TRUE(manager->readZVREventMemory().empty());
}

}  // namespace
