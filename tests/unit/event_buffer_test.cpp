// The manager's event channel: mapping "/ZVR_PROXY", reading the JSON record the service leaves
// there, falling back to the model-access event value, and resetting that value.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "capturing_log.h"
#include "manager_test.h"
#include "recording_model_access.h"
#include "shm_writer.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"

namespace {

using velmora::ZVRMediaProxyManager;
using velmora::logging::kError;
using velmora::logging::kProgress;
using velmora::logging::kVerbose;
using zvr_test::log;
using zvr_test::recorder;
using zvr_test::ShmWriter;

using Record = std::vector<std::string>;

constexpr char kMappedPath[] = "/dev/shm/ZVR_PROXY";
constexpr char kParseFailurePrefix[] = "Fail to parse json string:";

// The lines of /proc/self/maps that map the segment; with onlyDeleted, only those whose name has
// been removed since they were mapped.
int segmentMappings(bool onlyDeleted) {
  std::ifstream maps("/proc/self/maps");
  int n = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(kMappedPath) == std::string::npos) continue;
    if (onlyDeleted && line.find("(deleted)") == std::string::npos) continue;
    ++n;
  }
  return n;
}

Record emptyRecord(std::size_t positions) { return Record(positions); }

// The verbose dump readZVREventMemory writes for a record it read.
std::vector<std::string> memoryDump(const Record& record) {
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < record.size(); ++i) {
    lines.push_back("parameter " + std::to_string(i) + ":   " + record[i] + " \n");
  }
  return lines;
}

// The verbose dump readZVREvent writes for a record from the model access.
std::vector<std::string> storeDump(const Record& record) {
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < record.size(); ++i) {
    lines.push_back("parameter " + std::to_string(i) + ": " + record[i] + " \n");
  }
  return lines;
}

// True when `text` is `prefix`, then between 1 and `limit` copies of `fill`, then `suffix`.
bool isFilledLine(const std::string& text, const std::string& prefix, char fill, std::size_t limit,
                  const std::string& suffix) {
  if (text.size() < prefix.size() + suffix.size() + 1) return false;
  if (text.compare(0, prefix.size(), prefix) != 0) return false;
  if (text.compare(text.size() - suffix.size(), suffix.size(), suffix) != 0) return false;
  const std::string body = text.substr(prefix.size(), text.size() - prefix.size() - suffix.size());
  return body.size() <= limit && body.find_first_not_of(fill) == std::string::npos;
}

class EventBufferTest : public zvr_test::ManagerTest {
 protected:
  void SetUp() override {
    ShmWriter::remove();
    ManagerTest::SetUp();
  }
  void TearDown() override { ShmWriter::remove(); }

  // Creates the segment, maps it into the manager and clears the log of the mapping.
  void mapSegment() {
    writer_.reset(new ShmWriter);
    ASSERT_EQ(manager_->checkZVREventMemory(), 0);
    log().clear();
  }

  std::unique_ptr<ShmWriter> writer_;
};

// --- checkZVREventMemory -----------------------------------------------------------------------

TEST_F(EventBufferTest, CheckWithoutSegmentFailsAndLogsAllocationFailureWithBlankLine) {
  EXPECT_EQ(manager_->checkZVREventMemory(), -1);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"Failed to allocate shared memory\n\n"});
  EXPECT_EQ(log().count("Failed to allocate shared memory\n\n", kProgress), 1);
}

TEST_F(EventBufferTest, CheckWithSegmentMapsItAndReturnsZero) {
  ShmWriter writer;
  const int before = segmentMappings(false);
  EXPECT_EQ(manager_->checkZVREventMemory(), 0);
  EXPECT_EQ(segmentMappings(false), before + 1);
  EXPECT_TRUE(log().messages().empty());
  writer.writeRecord({"status", "200", "ses-1", "obj-1"});
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"status", "200", "ses-1", "obj-1", "", "", "", "", "", "", ""}));
}

TEST_F(EventBufferTest, CheckTwiceMakesASecondMappingAndKeepsTheFirst) {
  ShmWriter writer;
  writer.writeRecord({"created", "200", "ses-1", "abc"});
  const int before = segmentMappings(false);
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  EXPECT_EQ(segmentMappings(false), before + 2);
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"created", "200", "ses-1", "abc", "", "", "", "", "", "", ""}));
}

TEST_F(EventBufferTest, AfterASecondCheckTheNewMappingIsReadAndTheOldOneStaysMapped) {
  const int before = segmentMappings(false);
  const int deletedBefore = segmentMappings(true);
  std::unique_ptr<ShmWriter> first(new ShmWriter);
  first->writeRecord({"created", "200", "ses-1", "first"});
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"created", "200", "ses-1", "first", "", "", "", "", "", "", ""}));

  // The service goes and a new one creates a fresh segment under the same name.
  first.reset();
  ShmWriter second;
  second.writeRecord({"created", "200", "ses-2", "second"});
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);

  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"created", "200", "ses-2", "second", "", "", "", "", "", "", ""}));
  // The library's two mappings and the writer's own.
  EXPECT_EQ(segmentMappings(false), before + 3);
  // The first mapping is still there, now of a removed name.
  EXPECT_EQ(segmentMappings(true), deletedBefore + 1);
}

// --- readZVREventMemory ------------------------------------------------------------------------

TEST_F(EventBufferTest, ReadWithoutMappingReturnsEmptyRecordAndLogsMemoryNull) {
  EXPECT_TRUE(manager_->readZVREventMemory().empty());
  EXPECT_EQ(log().messages(), std::vector<std::string>{"memory NULL.\n"});
  EXPECT_EQ(log().count("memory NULL.\n", kProgress), 1);
}

TEST_F(EventBufferTest, CreatedRecordWithMembersZeroOneThreeReadsAsElevenPositions) {
  mapSegment();
  const std::string json = R"({"0":"created","1":"200","3":"abc"})";
  writer_->writeText(json);
  const Record record = manager_->readZVREventMemory();
  EXPECT_EQ(record, (Record{"created", "200", "", "abc", "", "", "", "", "", "", ""}));
  EXPECT_EQ(log().messages(kProgress),
            (std::vector<std::string>{"buf: " + json + "\n", "updateParameters\n"}));
  EXPECT_EQ(log().messages(kError), std::vector<std::string>{});
}

TEST_F(EventBufferTest, ReadDumpsEveryPositionAtVerboseSeverityWithThreeBlanks) {
  mapSegment();
  writer_->writeRecord({"started", "200", "ses-7", "abc", "", "", "http://127.0.0.1:1/a"});
  manager_->readZVREventMemory();
  EXPECT_EQ(log().messages(kVerbose),
            (std::vector<std::string>{
                "parameter 0:   started \n", "parameter 1:   200 \n", "parameter 2:   ses-7 \n",
                "parameter 3:   abc \n", "parameter 4:    \n", "parameter 5:    \n",
                "parameter 6:   http://127.0.0.1:1/a \n", "parameter 7:    \n",
                "parameter 8:    \n", "parameter 9:    \n", "parameter 10:    \n"}));
}

TEST_F(EventBufferTest, ReadLogsBufferThenUpdateThenDumpInThisOrder) {
  mapSegment();
  const Record written{"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k"};
  writer_->writeRecord(written);
  EXPECT_EQ(manager_->readZVREventMemory(), written);
  std::vector<std::string> expected{"buf: " + ShmWriter::json(written) + "\n",
                                    "updateParameters\n"};
  for (const std::string& line : memoryDump(written)) expected.push_back(line);
  EXPECT_EQ(log().messages(), expected);
}

TEST_F(EventBufferTest, SegmentHoldingOnlyAZeroByteFailsToParseAndYieldsEmptyRecord) {
  mapSegment();
  writer_->writeText("");
  EXPECT_TRUE(manager_->readZVREventMemory().empty());
  EXPECT_EQ(log().messages(),
            (std::vector<std::string>{"buf: \n", "Fail to parse json string:.\n"}));
  EXPECT_EQ(log().count("Fail to parse json string:.\n", kError), 1);
  EXPECT_EQ(log().count("buf: \n", kProgress), 1);
}

TEST_F(EventBufferTest, MalformedJsonLogsParseFailureWithTheTextAndYieldsEmptyRecord) {
  mapSegment();
  const std::string text = R"({"0":"created","1":"200")";
  writer_->writeText(text);
  EXPECT_TRUE(manager_->readZVREventMemory().empty());
  EXPECT_EQ(log().messages(kError),
            std::vector<std::string>{"Fail to parse json string:" + text + ".\n"});
  EXPECT_EQ(log().count("updateParameters\n"), 0);
  EXPECT_TRUE(log().messages(kVerbose).empty());
}

TEST_F(EventBufferTest, TextThatIsNotJsonAtAllFailsToParse) {
  mapSegment();
  writer_->writeText("created,200,ses-1,abc");
  EXPECT_TRUE(manager_->readZVREventMemory().empty());
  EXPECT_EQ(log().count("Fail to parse json string:created,200,ses-1,abc.\n", kError), 1);
}

TEST_F(EventBufferTest, ReadingTwiceWithoutAWriteYieldsTheSameRecord) {
  mapSegment();
  writer_->writeRecord({"seeked", "200", "ses-4", "abc"});
  const Record first = manager_->readZVREventMemory();
  const Record second = manager_->readZVREventMemory();
  EXPECT_EQ(first, (Record{"seeked", "200", "ses-4", "abc", "", "", "", "", "", "", ""}));
  EXPECT_EQ(second, first);
  EXPECT_EQ(log().count("updateParameters\n", kProgress), 2);
}

TEST_F(EventBufferTest, ReadSeesTheServicesNextWrite) {
  mapSegment();
  writer_->writeRecord({"seeked", "200", "ses-4", "abc"});
  manager_->readZVREventMemory();
  writer_->writeRecord({"stopped", "500", "ses-5", "abc", "", "", "", "", "busy"});
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"stopped", "500", "ses-5", "abc", "", "", "", "", "busy", "", ""}));
}

TEST_F(EventBufferTest, MembersWithOtherNamesAreIgnored) {
  mapSegment();
  writer_->writeText(
      R"({"name":"created","00":"a","01":"b"," 2":"c","3 ":"d","-4":"e","+5":"f","0x6":"g",)"
      R"("7":"seven"})");
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"", "", "", "", "", "", "", "seven", "", "", ""}));
}

TEST_F(EventBufferTest, OnlyMembersZeroToTenAreRead) {
  mapSegment();
  writer_->writeRecord(
      {"p0", "p1", "p2", "p3", "p4", "p5", "p6", "p7", "p8", "p9", "p10", "p11", "p12"});
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"p0", "p1", "p2", "p3", "p4", "p5", "p6", "p7", "p8", "p9", "p10"}));
  EXPECT_EQ(log().messages(kVerbose).size(), 11u);
}

TEST_F(EventBufferTest, MemberOrderInTheTextDoesNotMatter) {
  mapSegment();
  writer_->writeText(R"({"10":"ten","3":"abc","0":"started","1":"200"})");
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"started", "200", "", "abc", "", "", "", "", "", "", "ten"}));
}

// --- readZVREventMemory: hardening against what the service must not write -----------------------

TEST_F(EventBufferTest, SegmentWithoutZeroByteIsNotReadPastItsEnd) {
  mapSegment();
  writer_->writeWithoutTerminator('x');
  Record record{"stale"};
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  EXPECT_TRUE(record.empty());
  const std::vector<std::string> progress = log().messages(kProgress);
  ASSERT_EQ(progress.size(), 1u);
  EXPECT_TRUE(isFilledLine(progress[0], "buf: ", 'x', ShmWriter::kSize, "\n"))
      << "buf line of " << progress[0].size() << " characters";
  const std::vector<std::string> errors = log().messages(kError);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(isFilledLine(errors[0], kParseFailurePrefix, 'x', ShmWriter::kSize, ".\n"))
      << "parse failure line of " << errors[0].size() << " characters";
  EXPECT_TRUE(log().messages(kVerbose).empty());
}

TEST_F(EventBufferTest, SegmentWithoutZeroByteAfterAValidRecordStillYieldsEmptyRecord) {
  mapSegment();
  writer_->writeRecord({"created", "200", "ses-1", "abc"});
  ASSERT_EQ(manager_->readZVREventMemory().size(), 11u);
  writer_->writeWithoutTerminator('}');
  Record record{"stale"};
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  EXPECT_TRUE(record.empty());
  EXPECT_EQ(log().messages(kError).size(), 1u);
}

TEST_F(EventBufferTest, ObjectAndArrayMembersReadAsEmptyText) {
  mapSegment();
  writer_->writeText(R"({"0":"started","1":{"code":"200"},"2":["ses-1"],"3":"abc","4":{},"5":[]})");
  Record record;
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  EXPECT_EQ(record, (Record{"started", "", "", "abc", "", "", "", "", "", "", ""}));
}

TEST_F(EventBufferTest, NumberBooleanAndNullMembersReadAsJsonCppText) {
  mapSegment();
  writer_->writeText(R"({"0":"started","1":200,"2":-7,"3":1.5,"4":true,"5":false,"6":null,"7":0.1,)"
                     R"("8":18446744073709551615,"9":1e300})");
  Record record;
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  EXPECT_EQ(record, (Record{"started", Json::Value(200).asString(), Json::Value(-7).asString(),
                            Json::Value(1.5).asString(), Json::Value(true).asString(),
                            Json::Value(false).asString(), Json::Value().asString(),
                            Json::Value(0.1).asString(),
                            Json::Value(Json::UInt64(18446744073709551615ULL)).asString(),
                            Json::Value(1e300).asString(), ""}));
  // The plain cases, spelled out.
  EXPECT_EQ(record[1], "200");
  EXPECT_EQ(record[2], "-7");
  EXPECT_EQ(record[4], "true");
  EXPECT_EQ(record[5], "false");
  EXPECT_EQ(record[6], "");
}

TEST_F(EventBufferTest, LongestFittingMemberReadsBackExactly) {
  mapSegment();
  // {"0":"...."} with 8 characters around the member text fills 4095 bytes plus the zero byte.
  const std::string member(ShmWriter::kSize - 1 - 8, 'u');
  const std::string json = "{\"0\":\"" + member + "\"}";
  ASSERT_EQ(json.size(), ShmWriter::kSize - 1);
  writer_->writeText(json);
  Record record;
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  ASSERT_EQ(record.size(), 11u);
  EXPECT_EQ(record[0], member);
  EXPECT_EQ(record, (Record{member, "", "", "", "", "", "", "", "", "", ""}));
  EXPECT_EQ(log().count("buf: " + json + "\n", kProgress), 1);
  EXPECT_EQ(log().count("parameter 0:   " + member + " \n", kVerbose), 1);
}

TEST_F(EventBufferTest, InvalidUtf8BytesInsideAStringMemberArePassedThrough) {
  mapSegment();
  const std::string bytes =
      "a\xff\xfe"
      "b\xc3\x28\x80";
  writer_->writeText("{\"0\":\"started\",\"6\":\"" + bytes + "\"}");
  Record record;
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  EXPECT_EQ(record, (Record{"started", "", "", "", "", "", bytes, "", "", "", ""}));
}

TEST_F(EventBufferTest, ArrayRootYieldsElevenEmptyPositions) {
  mapSegment();
  writer_->writeText(R"(["created","200","ses-1","abc"])");
  Record record;
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  EXPECT_EQ(record, emptyRecord(11));
  EXPECT_EQ(log().count("updateParameters\n", kProgress), 1);
  EXPECT_EQ(log().messages(kVerbose), memoryDump(emptyRecord(11)));
}

TEST_F(EventBufferTest, NumberRootYieldsElevenEmptyPositions) {
  mapSegment();
  writer_->writeText("42");
  Record record;
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  EXPECT_EQ(record, emptyRecord(11));
  EXPECT_EQ(log().count("updateParameters\n", kProgress), 1);
}

TEST_F(EventBufferTest, StringRootYieldsElevenEmptyPositions) {
  mapSegment();
  writer_->writeText(R"("created")");
  Record record;
  EXPECT_NO_THROW(record = manager_->readZVREventMemory());
  EXPECT_EQ(record, emptyRecord(11));
}

// --- readZVREvent ------------------------------------------------------------------------------

TEST_F(EventBufferTest, ReadEventPrefersTheSharedMemoryRecord) {
  recorder().setValue(zvr_test::kEventKey, {"stopped", "200", "ses-0", "old"});
  mapSegment();
  writer_->writeRecord({"started", "200", "ses-7", "abc", "", "", "http://127.0.0.1:1/a"});
  const int getsBefore = recorder().getCalls();
  EXPECT_EQ(manager_->readZVREvent(), (Record{"started", "200", "ses-7", "abc", "", "",
                                              "http://127.0.0.1:1/a", "", "", "", ""}));
  EXPECT_EQ(log().count("read memory success.\n", kProgress), 1);
  EXPECT_EQ(log().messages(kProgress).back(), "read memory success.\n");
  EXPECT_EQ(recorder().getCalls(), getsBefore);
}

TEST_F(EventBufferTest, ReadEventWithoutMappingReturnsTheModelAccessValue) {
  const Record stored{"started", "200", "ses-9", "abc", "", "", "http://127.0.0.1:2/b"};
  recorder().setValue(zvr_test::kEventKey, stored);
  EXPECT_EQ(manager_->readZVREvent(), stored);
  EXPECT_EQ(log().messages(kProgress), std::vector<std::string>{"memory NULL.\n"});
  EXPECT_EQ(log().messages(kVerbose), storeDump(stored));
  EXPECT_EQ(log().count("read memory success.\n"), 0);
}

TEST_F(EventBufferTest, ReadEventWithNoSegmentPresentReturnsTheModelAccessValue) {
  ASSERT_EQ(manager_->checkZVREventMemory(), -1);
  const Record stored{"unknown", "", "", "", "", "", "", "", ""};
  recorder().setValue(zvr_test::kEventKey, stored);
  log().clear();
  EXPECT_EQ(manager_->readZVREvent(), stored);
  EXPECT_EQ(
      log().messages(kVerbose),
      (std::vector<std::string>{"parameter 0: unknown \n", "parameter 1:  \n", "parameter 2:  \n",
                                "parameter 3:  \n", "parameter 4:  \n", "parameter 5:  \n",
                                "parameter 6:  \n", "parameter 7:  \n", "parameter 8:  \n"}));
}

TEST_F(EventBufferTest, ReadEventFallsBackToTheModelAccessWhenTheSegmentDoesNotParse) {
  const Record stored{"seeked", "200", "ses-3", "abc"};
  recorder().setValue(zvr_test::kEventKey, stored);
  mapSegment();
  writer_->writeText("");
  EXPECT_EQ(manager_->readZVREvent(), stored);
  EXPECT_EQ(log().count("Fail to parse json string:.\n", kError), 1);
  EXPECT_EQ(log().messages(kVerbose), storeDump(stored));
}

// --- initializeZVREvent ------------------------------------------------------------------------

TEST_F(EventBufferTest, InitializeWritesTheNinePositionResetRecordUnderTheEventKey) {
  manager_->initializeZVREvent();
  const std::vector<zvr_test::AccessCall> calls = recorder().calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].key, zvr_test::kEventKey);
  EXPECT_EQ(calls[0].values, (Record{"unknown", "", "", "", "", "", "", "", ""}));
  EXPECT_EQ(log().messages(), std::vector<std::string>{"initializeZVREvent.\n"});
  EXPECT_EQ(log().count("initializeZVREvent.\n", kProgress), 1);
}

TEST_F(EventBufferTest, InitializeNeitherReadsNorTouchesTheSegment) {
  mapSegment();
  writer_->writeRecord({"created", "200", "ses-1", "abc"});
  manager_->initializeZVREvent();
  EXPECT_EQ(manager_->readZVREventMemory(),
            (Record{"created", "200", "ses-1", "abc", "", "", "", "", "", "", ""}));
}

// Without a model access: the platform refuses every connection from the first getInstance on.
TEST(EventBufferNoAccessTest, ReadEventWithoutModelAccessFromTheStartReturnsEmptyRecord) {
  recorder().setThrowFromConstructor(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  log().clear();
  std::vector<std::string> record{"stale"};
  EXPECT_NO_THROW(record = manager->readZVREvent());
  EXPECT_TRUE(record.empty());
  EXPECT_EQ(log().messages(kProgress), std::vector<std::string>{"memory NULL.\n"});
  EXPECT_EQ(recorder().getCalls(), 0);
}

TEST(EventBufferNoAccessTest, InitializeWithoutModelAccessLogsNoAccessAndWritesNothing) {
  recorder().setThrowFromConstructor(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  log().clear();
  recorder().clearCalls();
  manager->initializeZVREvent();
  EXPECT_EQ(log().messages(), (std::vector<std::string>{"initializeZVREvent.\n", "No Access\n"}));
  EXPECT_EQ(log().count("No Access\n", kError), 1);
  EXPECT_TRUE(recorder().calls().empty());
}

}  // namespace
