// What a hostile or broken "/ZVR_PROXY" does to a host: a segment shrunk while it is mapped, a
// FIFO or a device node planted under the name before the service creates it, and JSON nested
// deep enough to exhaust a small thread stack in the parser. The host must live, leak nothing,
// and report each as a failed read or a failed mapping.

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "shm_writer.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"

namespace {

using velmora::ZVRMediaProxyManager;
using velmora::logging::kError;
using velmora::logging::kProgress;
using zvr_test::CapturedLog;
using zvr_test::ShmWriter;

using Record = std::vector<std::string>;

const char kSegmentPath[] = "/dev/shm/ZVR_PROXY";
const std::string kAllocationFailure = "Failed to allocate shared memory\n\n";

CapturedLog& log() { return CapturedLog::instance(); }

int openDescriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count;
}

// Runs `body` on a thread whose stack is `stackBytes` large and waits for it.
template <typename Body>
void runOnStack(std::size_t stackBytes, Body body) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, stackBytes), 0);
  pthread_t thread;
  auto run = [](void* argument) -> void* {
    (*static_cast<Body*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &body), 0);
  pthread_attr_destroy(&attributes);
  pthread_join(thread, nullptr);
}

class HostileSegmentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ShmWriter::remove();
    manager_ = ZVRMediaProxyManager::getInstance();
    log().clear();
  }
  void TearDown() override { ShmWriter::remove(); }

  // The lines of a read that found nothing to parse: as for a segment holding only a zero byte.
  static std::vector<std::string> emptyReadLines() {
    return {"buf: \n", "Fail to parse json string:.\n"};
  }

  ZVRMediaProxyManager* manager_ = nullptr;
};

// --- A segment that shrinks while it is mapped ---------------------------------------------------

TEST_F(HostileSegmentTest, ASegmentTruncatedToZeroReadsAsAnEmptySegment) {
  ShmWriter writer;
  writer.writeRecord({"created", "200", "ses-1", "abc"});
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  ShmWriter::truncate(0);
  log().clear();

  EXPECT_TRUE(manager_->readZVREventMemory().empty());
  EXPECT_EQ(log().messages(), emptyReadLines());
  EXPECT_EQ(log().count("Fail to parse json string:.\n", kError), 1);
}

TEST_F(HostileSegmentTest, ASegmentShorterThanItsSizeReadsAsAnEmptySegment) {
  ShmWriter writer;
  writer.writeRecord({"created", "200", "ses-1", "abc"});
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  ShmWriter::truncate(100);  // the record is still there, but the segment is short
  log().clear();

  EXPECT_TRUE(manager_->readZVREventMemory().empty());
  EXPECT_EQ(log().messages(), emptyReadLines());
}

TEST_F(HostileSegmentTest, ASegmentGrownBackIsReadAgain) {
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  ShmWriter::truncate(0);
  EXPECT_TRUE(manager_->readZVREventMemory().empty());
  ShmWriter::truncate(ShmWriter::kSize);
  writer.writeRecord({"status", "200", "ses-2", "abc"});
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"status", "200", "ses-2", "abc", "", "", "", "", "", "", ""}));
}

TEST_F(HostileSegmentTest, TruncatingTheSegmentWhileAHostReadsItInALoopLeavesTheHostAlive) {
  ShmWriter writer;
  writer.writeRecord({"created", "200", "ses-1", "abc"});
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  log().enableOnly({});  // the loop would fill the capturing log

  std::atomic<bool> stop{false};
  std::atomic<int> reads{0};
  std::atomic<int> emptyReads{0};
  std::thread host([&] {
    while (!stop.load()) {
      if (manager_->readZVREventMemory().empty()) ++emptyReads;
      ++reads;
    }
  });
  for (int round = 0; round < 200; ++round) {
    const bool shrink = round % 2 == 0;
    ShmWriter::truncate(shrink ? 0 : static_cast<off_t>(ShmWriter::kSize));
    if (!shrink) writer.writeRecord({"created", "200", "ses-1", "abc"});
    const int seen = reads.load();
    while (reads.load() < seen + 2) std::this_thread::yield();
  }
  ShmWriter::truncate(0);
  const int seen = reads.load();
  while (reads.load() < seen + 2) std::this_thread::yield();
  stop = true;
  host.join();
  log().enableAll();
  EXPECT_GT(emptyReads.load(), 0);
  EXPECT_TRUE(manager_->readZVREventMemory().empty());
}

// --- Something else planted under the name -------------------------------------------------------

TEST_F(HostileSegmentTest, AFifoUnderTheNameIsRefusedWithoutLeakingADescriptor) {
  ASSERT_EQ(mkfifo(kSegmentPath, 0666), 0) << std::strerror(errno);
  const int before = openDescriptors();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(manager_->checkZVREventMemory(), -1);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(log().count(kAllocationFailure, kProgress), 100);
  EXPECT_EQ(log().messages().size(), 100u);
}

TEST_F(HostileSegmentTest, ACharacterDeviceUnderTheNameIsRefusedWithoutLeakingADescriptor) {
  if (mknod(kSegmentPath, S_IFCHR | 0666, makedev(1, 3)) != 0) {  // a copy of /dev/null
    GTEST_SKIP() << "cannot make a device node here: " << std::strerror(errno);
  }
  const int before = openDescriptors();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(manager_->checkZVREventMemory(), -1);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(log().count(kAllocationFailure, kProgress), 100);
}

TEST_F(HostileSegmentTest, RepeatedMappingsKeepOneReadingDescriptor) {
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  const int before = openDescriptors();
  for (int i = 0; i < 50; ++i) ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  EXPECT_EQ(openDescriptors(), before);
}

// --- Deeply nested JSON --------------------------------------------------------------------------

// The deepest text a segment holds: 4095 brackets and the terminating zero byte.
TEST_F(HostileSegmentTest, TheDeepestSegmentIsAParseFailureOnA256KiBThreadStack) {
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  const std::string deepest(ShmWriter::kSize - 1, '[');
  writer.writeText(deepest);
  log().clear();
  Record record{"not read"};
  runOnStack(256 * 1024, [&] { record = manager_->readZVREventMemory(); });
  EXPECT_TRUE(record.empty());
  EXPECT_EQ(log().count("Fail to parse json string:" + deepest + ".\n", kError), 1);
}

TEST_F(HostileSegmentTest, BalancedDeepObjectsAreAParseFailureOnA256KiBThreadStack) {
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  std::string text;
  const int levels = (ShmWriter::kSize - 1) / 6;  // {"0": and } per level
  for (int i = 0; i < levels; ++i) text += "{\"0\":";
  text += "1";
  text += std::string(levels, '}');
  text.resize(std::min(text.size(), ShmWriter::kSize - 1));
  writer.writeText(text);
  Record record{"not read"};
  runOnStack(256 * 1024, [&] { record = manager_->readZVREventMemory(); });
  EXPECT_TRUE(record.empty());
}

// A record is one flat object; 64 levels still parse, the 65th is refused.
TEST_F(HostileSegmentTest, NestingIsBoundedAtSixtyFourLevels) {
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  const auto withArrays = [](int arrays) {
    return "{\"0\":\"created\",\"9\":" + std::string(arrays, '[') + std::string(arrays, ']') + "}";
  };
  writer.writeText(withArrays(63));
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"created", "", "", "", "", "", "", "", "", "", ""}));
  writer.writeText(withArrays(64));
  EXPECT_TRUE(manager_->readZVREventMemory().empty());
}

TEST_F(HostileSegmentTest, BracketsInsideStringsAndCommentsDoNotCount) {
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  const std::string brackets(100, '[');
  writer.writeText("/* " + brackets + " */ {\"0\":\"" + brackets + "\\\"" + brackets + "\", // " +
                   brackets + "\n \"1\":\"200\"}");
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{brackets + "\"" + brackets, "200", "", "", "", "", "", "", "", "", ""}));
}

TEST_F(HostileSegmentTest, ACommentEndingAtACarriageReturnDoesNotHideBrackets) {
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  writer.writeText("// comment\r" + std::string(ShmWriter::kSize - 20, '['));
  Record record{"not read"};
  runOnStack(256 * 1024, [&] { record = manager_->readZVREventMemory(); });
  EXPECT_TRUE(record.empty());
}

}  // namespace
