// The desktop logging library as the host sees it: lines on standard error, filtered by
// ZVR_LOG_LEVEL.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "log_utils.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"

namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using velmora::logging::kError;
using velmora::logging::kProgress;

TEST(StandInLogTest, WritesOneFullLineToStandardError) {
  setenv("ZVR_LOG_LEVEL", "4000", 1);
  ::testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  ZVR_LOG(kProgress, "Get proxy manager interface.\n");
  const std::string written = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(written, "[B-LOG] standin_log_test.cpp:" + std::to_string(line) +
                         ":TestBody(): Get proxy manager interface.\n");
}

TEST(StandInLogTest, LibraryLineCarriesItsSourceFileAndFunction) {
  setenv("ZVR_LOG_LEVEL", "4000", 1);
  velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
  ::testing::internal::CaptureStderr();
  manager->notifyURLChanged("abc", "http://127.0.0.1/a");
  const std::string written = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(written, ContainsRegex("^\\[B-LOG\\] zvr_media_proxy_manager\\.cpp:[0-9]+:"
                                     "notifyURLChanged\\(\\): notify error\n$"));
}

TEST(StandInLogTest, DefaultThresholdKeepsErrorsAndDropsProgress) {
  unsetenv("ZVR_LOG_LEVEL");
  ::testing::internal::CaptureStderr();
  ZVR_LOG(kProgress, "progress\n");
  ZVR_LOG(kError, "error\n");
  const std::string written = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(written, HasSubstr("): error\n"));
  EXPECT_THAT(written, Not(HasSubstr("progress")));
}

TEST(StandInLogTest, ZeroThresholdSilencesEverything) {
  setenv("ZVR_LOG_LEVEL", "0", 1);
  ::testing::internal::CaptureStderr();
  ZVR_LOG(velmora::logging::kHeadline, "headline\n");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(StandInLogTest, LongLinesAreWrittenWhole) {
  setenv("ZVR_LOG_LEVEL", "5000", 1);
  const std::string text(5000, 'x');
  ::testing::internal::CaptureStderr();
  ZVR_LOG(kError, "%s\n", text.c_str());
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("(): " + text + "\n"));
}

TEST(StandInLogTest, BaseNameIsThePartAfterTheLastSlash) {
  EXPECT_STREQ(log_blog_base_name("src/a/b/file.cpp"), "file.cpp");
  EXPECT_STREQ(log_blog_base_name("file.cpp"), "file.cpp");
  EXPECT_STREQ(log_blog_base_name(log_blog_base_name("/x/file.cpp")), "file.cpp");
}

TEST(StandInLogTest, ClockMovesForward) {
  const double first = base::log_now();
  double second = first;
  while (second == first) second = base::log_now();
  EXPECT_GT(second, first);
}

}  // namespace
