#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "capturing_log.h"
#include "zvr_log.h"

namespace {

using velmora::logging::kError;
using velmora::logging::kHeadline;
using velmora::logging::kProgress;
using velmora::logging::kVerbose;
using zvr_test::CapturedLog;

class LoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log().clear();
    log().enableAll();
  }
  CapturedLog& log() { return CapturedLog::instance(); }
};

TEST_F(LoggingTest, LevelRecordCarriesModuleAndSeverity) {
  ZVR_LOG(kHeadline, "a\n");
  ZVR_LOG(kError, "b\n");
  ZVR_LOG(kProgress, "c\n");
  ZVR_LOG(kVerbose, "d\n");
  const std::vector<std::vector<unsigned int>> expected = {
      {0x5F0001, 0, 0}, {0x5F03E8, 0, 0}, {0x5F0FA0, 0, 0}, {0x5F1388, 0, 0}};
  EXPECT_EQ(log().levelRecords(), expected);
}

TEST_F(LoggingTest, EnabledStatementWritesPrefixTagBaseNameLineAndFunction) {
  const int line = __LINE__ + 1;
  ZVR_LOG(kProgress, "value %d, text %s\n", 42, "abc");
  ASSERT_EQ(log().lines().size(), 1u);
  EXPECT_EQ(log().lines()[0].text, "[B-LOG] logging_test.cpp:" + std::to_string(line) +
                                       ":TestBody(): value 42, text abc\n");
  EXPECT_EQ(log().lines()[0].severity, kProgress);
}

TEST_F(LoggingTest, DisabledSeverityMakesNoOutputAndNoBaseNameCall) {
  log().enableOnly({kError});
  ZVR_LOG(kProgress, "hidden %d\n", 1);
  EXPECT_EQ(log().levelChecks(), 1);
  EXPECT_EQ(log().outputCalls(), 0);
  EXPECT_EQ(log().baseNameCalls(), 0);
}

TEST_F(LoggingTest, EnabledSeverityAsksForTheBaseNameOnce) {
  log().enableOnly({kError});
  ZVR_LOG(kError, "shown\n");
  EXPECT_EQ(log().outputCalls(), 1);
  EXPECT_EQ(log().baseNameCalls(), 1);
}

TEST_F(LoggingTest, MessageEndingInTwoNewlinesIsWrittenAsItStands) {
  ZVR_LOG(kProgress, "Failed to allocate shared memory\n\n");
  ASSERT_EQ(log().lines().size(), 1u);
  EXPECT_EQ(log().lines()[0].message, "Failed to allocate shared memory\n\n");
}

int traceLine = 0;

void returnsEarly(bool early) {
  traceLine = __LINE__ + 1;
  ZVR_TRACE();
  if (early) return;
  ZVR_LOG(kProgress, "late\n");
}

void throwsOut() {
  traceLine = __LINE__ + 1;
  ZVR_TRACE();
  throw std::runtime_error("out");
}

TEST_F(LoggingTest, TraceGuardWritesInAndOutLinesWithTheFunctionNameFirst) {
  returnsEarly(false);
  const std::string at = "logging_test.cpp:" + std::to_string(traceLine) + ":returnsEarly() \n";
  const std::vector<zvr_test::LogLine> lines = log().lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].text, "[TRACE -> returnsEarly(IN)] " + at);
  EXPECT_EQ(lines[0].severity, kVerbose);
  EXPECT_EQ(lines[1].message, "late\n");
  EXPECT_EQ(lines[2].text, "[TRACE <- returnsEarly(OUT)] " + at);
  EXPECT_EQ(lines[2].severity, kVerbose);
}

TEST_F(LoggingTest, TraceGuardOnEarlyReturnWritesExactlyOneOutLine) {
  returnsEarly(true);
  const std::vector<zvr_test::LogLine> lines = log().lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text.rfind("[TRACE -> returnsEarly(IN)] ", 0), 0u);
  EXPECT_EQ(lines[1].text.rfind("[TRACE <- returnsEarly(OUT)] ", 0), 0u);
}

TEST_F(LoggingTest, TraceGuardWritesOutLineWhenAnExceptionLeaves) {
  EXPECT_THROW(throwsOut(), std::runtime_error);
  const std::string at = "logging_test.cpp:" + std::to_string(traceLine) + ":throwsOut() \n";
  const std::vector<zvr_test::LogLine> lines = log().lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "[TRACE -> throwsOut(IN)] " + at);
  EXPECT_EQ(lines[1].text, "[TRACE <- throwsOut(OUT)] " + at);
}

TEST_F(LoggingTest, TraceGuardTakesTheBaseNameEvenWhenVerboseIsDisabled) {
  log().enableOnly({kProgress});
  returnsEarly(true);
  EXPECT_EQ(log().outputCalls(), 0);
  EXPECT_EQ(log().baseNameCalls(), 1);
}

TEST_F(LoggingTest, TraceGuardPassesTheBaseNameThroughAgainOnExit) {
  returnsEarly(true);
  EXPECT_EQ(log().baseNameCalls(), 2);
}

}  // namespace
