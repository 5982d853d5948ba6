// The command channel of the manager: the 11-string command message of every asynchronous
// request, the text forms of its numbers, the sync-mode switch to the synchronous twins, the
// unimplemented pause and the missing model-access client.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "shm_writer.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyObject;
using velmora::logging::kError;
using velmora::logging::kProgress;
using zvr_test::AccessCall;
using zvr_test::CapturedLog;
using zvr_test::ModelAccessRecorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;
using Message = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const char kCommandKeyText[] = "varek.sl2.vstr.videoplayer.zvr.command";
const char kEventKeyText[] = "varek.sl2.vstr.videoplayer.zvr.event";

// "%f" of a value, into a buffer large enough for any double.
std::string fixedText(double value) {
  char text[512];
  std::snprintf(text, sizeof text, "%f", value);
  return text;
}

std::string intText(int value) {
  char text[32];
  std::snprintf(text, sizeof text, "%d", value);
  return text;
}

// "ses-" and a 35-character upper-case UUID text in groups 8-4-4-16.
::testing::AssertionResult IsSessionId(const std::string& text) {
  static const std::regex kShape("ses-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{16}");
  if (text.size() != 39u) {
    return ::testing::AssertionFailure()
           << "\"" << text << "\" has " << text.size() << " characters, not 39";
  }
  if (!std::regex_match(text, kShape)) {
    return ::testing::AssertionFailure() << "\"" << text << "\" is not a session id";
  }
  return ::testing::AssertionSuccess();
}

// A "%f" text (digits, a point, six decimals) whose value lies between the "%f" texts of two
// clock readings, which round the same way as the timestamp does.
::testing::AssertionResult IsTimestampBetween(const std::string& text, double before,
                                              double after) {
  static const std::regex kShape("[0-9]+\\.[0-9]{6}");
  if (!std::regex_match(text, kShape)) {
    return ::testing::AssertionFailure() << "\"" << text << "\" is not a %f text";
  }
  const double value = std::strtod(text.c_str(), nullptr);
  const double low = std::strtod(fixedText(before).c_str(), nullptr);
  const double high = std::strtod(fixedText(after).c_str(), nullptr);
  if (value < low || value > high) {
    return ::testing::AssertionFailure()
           << text << " is not within [" << fixedText(before) << ", " << fixedText(after) << "]";
  }
  return ::testing::AssertionSuccess();
}

long long millisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

class CommandChannelTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // The service double writes into the segment, so it goes first.
    service_.reset();
    writer_.reset();
  }

  static ZVRMediaProxyManager* manager() { return ZVRMediaProxyManager::getInstance(); }
  static ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }
  static CapturedLog& log() { return CapturedLog::instance(); }

  // Builds the manager if needed, then forgets everything written and logged so far.
  static void startRecording() {
    manager();
    recorder().clearCalls();
    log().clear();
  }

  // The one value written since startRecording, which must be a command message.
  static Message onlyMessage() {
    const std::vector<AccessCall> calls = recorder().calls();
    EXPECT_EQ(calls.size(), 1u);
    if (calls.empty()) return Message();
    EXPECT_EQ(calls.back().key, kCommandKeyText);
    return calls.back().values;
  }

  // A service that answers every command at once through "/ZVR_PROXY".
  void answerThroughSharedMemory() {
    writer_.reset(new ShmWriter());
    service_.reset(new ServiceDouble(writer_.get(), ServiceDouble::Delivery::kSharedMemory));
  }

  // A service whose segment exists but which never answers.
  void silentService() {
    writer_.reset(new ShmWriter());
    service_.reset(new ServiceDouble(writer_.get(), ServiceDouble::Delivery::kSharedMemory));
    service_->setAllSilent(true);
  }

  // A synchronous creation with an id switches the manager to sync mode and sends nothing.
  static std::shared_ptr<ZVRMediaProxyObject> enterSyncMode() {
    return manager()->createNewZVRMediaProxySync("x");
  }

  std::unique_ptr<ShmWriter> writer_;
  std::unique_ptr<ServiceDouble> service_;
};

// --- Message layout of each command ------------------------------------------------------------

TEST_F(CommandChannelTest, StopForObj1SendsElevenEntriesWithSessionIdObjectIdAndTimestamp) {
  startRecording();
  const double before = base::log_now();
  manager()->requestRemoteObjectStop("obj-1");
  const double after = base::log_now();

  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_TRUE(IsTimestampBetween(sent[4], before, after));
  EXPECT_EQ(sent, (Message{"stop", "", sent[2], "obj-1", sent[4], "", "", "", "", "", ""}));
  EXPECT_TRUE(log().messages().empty());
}

TEST_F(CommandChannelTest, StartSendsUrlAtSixAndModeAtNine) {
  startRecording();
  const double before = base::log_now();
  manager()->requestRemoteObjectStart("obj-1", "http://host/a.m3u8", 1);
  const double after = base::log_now();

  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_TRUE(IsTimestampBetween(sent[4], before, after));
  EXPECT_EQ(sent, (Message{"start", "", sent[2], "obj-1", sent[4], "", "http://host/a.m3u8", "", "",
                           "1", ""}));
  EXPECT_TRUE(log().messages().empty());
}

TEST_F(CommandChannelTest, SeekSendsPositionAtFiveAndTextAtSix) {
  startRecording();
  const double before = base::log_now();
  manager()->requestRemoteObjectSeek("obj-1", 12.5, "seek-text");
  const double after = base::log_now();

  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_TRUE(IsTimestampBetween(sent[4], before, after));
  EXPECT_EQ(sent, (Message{"seek", "", sent[2], "obj-1", sent[4], "12.500000", "seek-text", "", "",
                           "", ""}));
  EXPECT_TRUE(log().messages().empty());
}

TEST_F(CommandChannelTest, PreloadSendsPositionAtFiveAndItsThreeTextsAtSixToEight) {
  startRecording();
  const double before = base::log_now();
  manager()->requestRemoteObjectPreload("obj-1", -3.0, "first", "second", "third");
  const double after = base::log_now();

  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_TRUE(IsTimestampBetween(sent[4], before, after));
  EXPECT_EQ(sent, (Message{"preload", "", sent[2], "obj-1", sent[4], "-3.000000", "first", "second",
                           "third", "", ""}));
  EXPECT_TRUE(log().messages().empty());
}

TEST_F(CommandChannelTest, InspectFillsOnlyTheWordAndTheSessionId) {
  startRecording();
  manager()->requestRemoteObjectInspect();

  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_EQ(sent, (Message{"inspect", "", sent[2], "", "", "", "", "", "", "", ""}));
  EXPECT_TRUE(log().messages().empty());
}

TEST_F(CommandChannelTest, TwoRequestsInARowCarryTwoDifferentSessionIds) {
  startRecording();
  manager()->requestRemoteObjectStop("obj-1");
  manager()->requestRemoteObjectStop("obj-1");
  manager()->requestRemoteObjectInspect();

  const std::vector<Message> sent = recorder().commands();
  ASSERT_EQ(sent.size(), 3u);
  for (const Message& message : sent) {
    ASSERT_EQ(message.size(), 11u);
    EXPECT_TRUE(IsSessionId(message[2]));
  }
  EXPECT_NE(sent[0][2], sent[1][2]);
  EXPECT_NE(sent[1][2], sent[2][2]);
  EXPECT_NE(sent[0][2], sent[2][2]);
}

TEST_F(CommandChannelTest, EveryCommandIsOneWriteUnderTheCommandKey) {
  startRecording();
  manager()->requestRemoteObjectStart("obj-1", "u", 1);
  manager()->requestRemoteObjectStop("obj-1");
  manager()->requestRemoteObjectSeek("obj-1", 1.0, "t");
  manager()->requestRemoteObjectPreload("obj-1", 1.0, "a", "b", "c");
  manager()->requestRemoteObjectInspect();

  const std::vector<AccessCall> calls = recorder().calls();
  ASSERT_EQ(calls.size(), 5u);
  std::vector<std::string> words;
  for (const AccessCall& call : calls) {
    EXPECT_EQ(call.key, kCommandKeyText);
    EXPECT_EQ(call.values.size(), 11u);
    words.push_back(call.values.empty() ? "" : call.values[0]);
  }
  EXPECT_THAT(words, ::testing::ElementsAre("start", "stop", "seek", "preload", "inspect"));
}

// --- Text forms of numbers ---------------------------------------------------------------------

TEST_F(CommandChannelTest, StartWithModeMinusOnePutsMinusOneAtNine) {
  startRecording();
  manager()->requestRemoteObjectStart("obj-1", "u", -1);
  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_EQ(sent, (Message{"start", "", sent[2], "obj-1", sent[4], "", "u", "", "", "-1", ""}));
}

TEST_F(CommandChannelTest, StartWithModeZeroPutsZeroAtNineNeverTheEmptyText) {
  startRecording();
  manager()->requestRemoteObjectStart("obj-1", "u", 0);
  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_EQ(sent, (Message{"start", "", sent[2], "obj-1", sent[4], "", "u", "", "", "0", ""}));
}

TEST_F(CommandChannelTest, StartWithExtremeModesSendsTheirDecimalTexts) {
  startRecording();
  manager()->requestRemoteObjectStart("obj-1", "u", INT_MIN);
  manager()->requestRemoteObjectStart("obj-1", "u", INT_MAX);
  const std::vector<Message> sent = recorder().commands();
  ASSERT_EQ(sent.size(), 2u);
  ASSERT_EQ(sent[0].size(), 11u);
  ASSERT_EQ(sent[1].size(), 11u);
  EXPECT_EQ(sent[0][9], intText(INT_MIN));
  EXPECT_EQ(sent[0][9], "-2147483648");
  EXPECT_EQ(sent[1][9], intText(INT_MAX));
}

TEST_F(CommandChannelTest, SeekToZeroPutsZeroWithSixDecimalsAtFive) {
  startRecording();
  manager()->requestRemoteObjectSeek("obj-1", 0.0, "t");
  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_EQ(sent,
            (Message{"seek", "", sent[2], "obj-1", sent[4], "0.000000", "t", "", "", "", ""}));
}

TEST_F(CommandChannelTest, SeekToNaNSendsTheFixedTextOfNaN) {
  startRecording();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  manager()->requestRemoteObjectSeek("obj-1", nan, "t");
  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_EQ(sent[5], fixedText(nan));
  EXPECT_EQ(sent[5], "nan");
  EXPECT_EQ(sent, (Message{"seek", "", sent[2], "obj-1", sent[4], "nan", "t", "", "", "", ""}));
}

TEST_F(CommandChannelTest, LargestDoublePositionsAreSentUntruncated) {
  startRecording();
  manager()->requestRemoteObjectSeek("obj-1", DBL_MAX, "t");
  manager()->requestRemoteObjectSeek("obj-1", -DBL_MAX, "t");
  manager()->requestRemoteObjectPreload("obj-1", DBL_MAX, "a", "b", "c");
  manager()->requestRemoteObjectPreload("obj-1", -DBL_MAX, "a", "b", "c");

  const std::vector<Message> sent = recorder().commands();
  ASSERT_EQ(sent.size(), 4u);
  const std::string largest = fixedText(DBL_MAX);
  const std::string lowest = fixedText(-DBL_MAX);
  ASSERT_EQ(largest.size(), 316u);  // 309 digits, the point and six decimals
  ASSERT_EQ(lowest, "-" + largest);
  for (const Message& message : sent) ASSERT_EQ(message.size(), 11u);
  EXPECT_EQ(sent[0][5], largest);
  EXPECT_EQ(sent[1][5], lowest);
  EXPECT_EQ(sent[2][5], largest);
  EXPECT_EQ(sent[3][5], lowest);
}

// --- setCommandParameter -----------------------------------------------------------------------

TEST_F(CommandChannelTest, SetCommandParameterOnAnEmptyListMakesElevenEntriesWithTheText) {
  Message list;
  ZVRMediaProxyManager::setCommandParameter(list, 6, "text");
  EXPECT_EQ(list, (Message{"", "", "", "", "", "", "text", "", "", "", ""}));

  Message first;
  ZVRMediaProxyManager::setCommandParameter(first, 0, "word");
  EXPECT_EQ(first, (Message{"word", "", "", "", "", "", "", "", "", "", ""}));

  Message last;
  ZVRMediaProxyManager::setCommandParameter(last, 10, "end");
  EXPECT_EQ(last, (Message{"", "", "", "", "", "", "", "", "", "", "end"}));
}

TEST_F(CommandChannelTest, SetCommandParameterOnAShortListDiscardsItsContentFirst) {
  Message three{"a", "b", "c"};
  ZVRMediaProxyManager::setCommandParameter(three, 4, "x");
  EXPECT_EQ(three, (Message{"", "", "", "", "x", "", "", "", "", "", ""}));

  Message ten{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"};
  ZVRMediaProxyManager::setCommandParameter(ten, 1, "y");
  EXPECT_EQ(ten, (Message{"", "y", "", "", "", "", "", "", "", "", ""}));
}

TEST_F(CommandChannelTest, SetCommandParameterOnAFullListReplacesOnlyThatPosition) {
  Message list;
  ZVRMediaProxyManager::setCommandParameter(list, 0, "stop");
  ZVRMediaProxyManager::setCommandParameter(list, 3, "obj-1");
  ZVRMediaProxyManager::setCommandParameter(list, 3, "obj-2");
  ZVRMediaProxyManager::setCommandParameter(list, 2, "ses");
  EXPECT_EQ(list, (Message{"stop", "", "ses", "obj-2", "", "", "", "", "", "", ""}));
}

// --- Texts pass through unchanged --------------------------------------------------------------

TEST_F(CommandChannelTest, EmptyIdAndUrlAreSentAsEmptyTexts) {
  startRecording();
  manager()->requestRemoteObjectStart("", "", 2);
  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_EQ(sent, (Message{"start", "", sent[2], "", sent[4], "", "", "", "", "2", ""}));
}

TEST_F(CommandChannelTest, EmptySeekAndPreloadTextsAreSentAsEmptyTexts) {
  startRecording();
  manager()->requestRemoteObjectSeek("", 1.5, "");
  manager()->requestRemoteObjectPreload("", 2.5, "", "", "");
  const std::vector<Message> sent = recorder().commands();
  ASSERT_EQ(sent.size(), 2u);
  ASSERT_EQ(sent[0].size(), 11u);
  ASSERT_EQ(sent[1].size(), 11u);
  EXPECT_EQ(sent[0],
            (Message{"seek", "", sent[0][2], "", sent[0][4], "1.500000", "", "", "", "", ""}));
  EXPECT_EQ(sent[1],
            (Message{"preload", "", sent[1][2], "", sent[1][4], "2.500000", "", "", "", "", ""}));
}

TEST_F(CommandChannelTest, TextsWithCommasQuotesAndNonAsciiBytesAreSentUnchanged) {
  const std::string id = "obj,\"1\"";
  const std::string url = "http://h/p?a=1,b=\"2\"&c='3'\\ caf\xC3\xA9";
  const std::string seekText = ",,\"\",\xE2\x9C\x93";
  const std::string text1 = "a,b,c";
  const std::string text2 = "\"quoted\" 'single'";
  const std::string text3 = "\xFF\xFE\x80 tab\t line\n back\\slash";

  startRecording();
  manager()->requestRemoteObjectStart(id, url, 1);
  manager()->requestRemoteObjectSeek(id, 3.0, seekText);
  manager()->requestRemoteObjectPreload(id, 4.0, text1, text2, text3);
  manager()->requestRemoteObjectStop(id);

  const std::vector<Message> sent = recorder().commands();
  ASSERT_EQ(sent.size(), 4u);
  for (const Message& message : sent) ASSERT_EQ(message.size(), 11u);
  EXPECT_EQ(sent[0], (Message{"start", "", sent[0][2], id, sent[0][4], "", url, "", "", "1", ""}));
  EXPECT_EQ(sent[1], (Message{"seek", "", sent[1][2], id, sent[1][4], "3.000000", seekText, "", "",
                              "", ""}));
  EXPECT_EQ(sent[2], (Message{"preload", "", sent[2][2], id, sent[2][4], "4.000000", text1, text2,
                              text3, "", ""}));
  EXPECT_EQ(sent[3], (Message{"stop", "", sent[3][2], id, sent[3][4], "", "", "", "", "", ""}));
}

TEST_F(CommandChannelTest, ALongUrlIsSentWhole) {
  const std::string url = "http://h/" + std::string(5000, 'u');
  startRecording();
  manager()->requestRemoteObjectStart("obj-1", url, 1);
  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_EQ(sent[6], url);
}

// --- Sync mode ---------------------------------------------------------------------------------

TEST_F(CommandChannelTest, InSyncModeStopWithAnAnsweringServiceReturnsWithTheAnswerDispatched) {
  answerThroughSharedMemory();
  auto proxy = enterSyncMode();
  startRecording();
  const double before = base::log_now();
  const auto start = Clock::now();
  manager()->requestRemoteObjectStop("obj-1");
  const long long elapsed = millisecondsSince(start);
  const double after = base::log_now();

  EXPECT_LT(elapsed, 200);
  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_TRUE(IsTimestampBetween(sent[4], before, after));
  EXPECT_EQ(sent, (Message{"stop", "", sent[2], "obj-1", sent[4], "", "", "", "", "", ""}));
  EXPECT_EQ(service_->answered(), 1);
  EXPECT_EQ(log().count("request RemoteObject Stop sync.\n", kProgress), 1);
  EXPECT_EQ(log().count("enter  id:" + sent[2] + ", name:stopped\n", kProgress), 1);
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 1);
  EXPECT_EQ(log().count("Task timeout: 250/250\n"), 0);
  // No object "obj-1" is registered, so the dispatch of the answer reports that.
  EXPECT_EQ(log().count("unable to find object for event: stopped, 200,obj-1\n", kError), 1);
}

TEST_F(CommandChannelTest, InSyncModeStopWithASilentServiceBlocksForTheWaitLimit) {
  silentService();
  auto proxy = enterSyncMode();
  startRecording();
  const auto start = Clock::now();
  manager()->requestRemoteObjectStop("obj-1");
  const long long elapsed = millisecondsSince(start);

  EXPECT_GT(elapsed, 200);
  EXPECT_LT(elapsed, 2000);
  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_EQ(sent, (Message{"stop", "", sent[2], "obj-1", sent[4], "", "", "", "", "", ""}));
  EXPECT_EQ(service_->answered(), 0);
  EXPECT_EQ(log().count("request RemoteObject Stop sync.\n", kProgress), 1);
  EXPECT_EQ(log().count("enter  id:" + sent[2] + ", name:stopped\n", kProgress), 1);
  EXPECT_EQ(log().count(" id:, name:\n", kProgress), 5);
  EXPECT_EQ(log().count("Task timeout: 250/250\n", kError), 1);
}

TEST_F(CommandChannelTest, InSyncModeStartRunsStartSync) {
  answerThroughSharedMemory();
  auto proxy = enterSyncMode();
  startRecording();
  manager()->requestRemoteObjectStart("obj-1", "http://host/a", -1);

  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_EQ(sent, (Message{"start", "", sent[2], "obj-1", sent[4], "", "http://host/a", "", "",
                           "-1", ""}));
  EXPECT_EQ(log().count("request RemoteObject Start sync.\n", kProgress), 1);
  EXPECT_EQ(log().count("enter  id:" + sent[2] + ", name:started\n", kProgress), 1);
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 1);
  EXPECT_EQ(log().count("unable to find object for event: started, 200,obj-1\n", kError), 1);
}

TEST_F(CommandChannelTest, InSyncModeSeekRunsSeekSync) {
  answerThroughSharedMemory();
  auto proxy = enterSyncMode();
  startRecording();
  manager()->requestRemoteObjectSeek("obj-1", 12.5, "t");

  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_EQ(sent,
            (Message{"seek", "", sent[2], "obj-1", sent[4], "12.500000", "t", "", "", "", ""}));
  EXPECT_EQ(log().count("request RemoteObject seek sync.\n", kProgress), 1);
  EXPECT_EQ(log().count("enter  id:" + sent[2] + ", name:seeked\n", kProgress), 1);
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 1);
  EXPECT_EQ(log().count("unable to find object for event: seeked, 200,obj-1\n", kError), 1);
}

TEST_F(CommandChannelTest, InSyncModePreloadRunsPreloadSync) {
  answerThroughSharedMemory();
  auto proxy = enterSyncMode();
  startRecording();
  manager()->requestRemoteObjectPreload("obj-1", 0.0, "a", "b", "c");

  const Message sent = onlyMessage();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_EQ(sent,
            (Message{"preload", "", sent[2], "obj-1", sent[4], "0.000000", "a", "b", "c", "", ""}));
  EXPECT_EQ(log().count("request RemoteObject preload sync.\n", kProgress), 1);
  EXPECT_EQ(log().count("enter  id:" + sent[2] + ", name:started\n", kProgress), 1);
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 1);
  EXPECT_EQ(log().count("unable to find object for event: started, 200,obj-1\n", kError), 1);
}

TEST_F(CommandChannelTest, InSyncModeInspectResetsTheEventValueThenRunsInspectSync) {
  answerThroughSharedMemory();
  auto proxy = enterSyncMode();
  startRecording();
  manager()->requestRemoteObjectInspect();

  const std::vector<AccessCall> calls = recorder().calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].key, kEventKeyText);
  EXPECT_EQ(calls[0].values, (Message{"unknown", "", "", "", "", "", "", "", ""}));
  EXPECT_EQ(calls[1].key, kCommandKeyText);
  const Message& sent = calls[1].values;
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_TRUE(IsSessionId(sent[2]));
  EXPECT_EQ(sent, (Message{"inspect", "", sent[2], "", "", "", "", "", "", "", ""}));

  // The event value is reset before the twin announces its request.
  const std::vector<std::string> progress = log().messages(kProgress);
  const auto reset = std::find(progress.begin(), progress.end(), "initializeZVREvent.\n");
  const auto announced =
      std::find(progress.begin(), progress.end(), "request RemoteObject inspect sync.\n");
  ASSERT_NE(reset, progress.end());
  ASSERT_NE(announced, progress.end());
  EXPECT_LT(reset, announced);
  EXPECT_EQ(log().count("request RemoteObject inspect sync.\n", kProgress), 1);
  EXPECT_EQ(log().count("enter  id:" + sent[2] + ", name:status\n", kProgress), 1);
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 1);
  EXPECT_EQ(log().count("zvr service alive: " + sent[2] + " - \n", kProgress), 1);
}

TEST_F(CommandChannelTest, InSyncModeTheTwinsLogInTheOrderOfTheRequests) {
  answerThroughSharedMemory();
  auto proxy = enterSyncMode();
  startRecording();
  manager()->requestRemoteObjectStart("obj-1", "u", 1);
  manager()->requestRemoteObjectStop("obj-1");
  manager()->requestRemoteObjectSeek("obj-1", 1.0, "t");
  manager()->requestRemoteObjectPreload("obj-1", 1.0, "a", "b", "c");
  manager()->requestRemoteObjectInspect();

  std::vector<std::string> lines;
  for (const std::string& message : log().messages(kProgress)) {
    if (message.rfind("request RemoteObject ", 0) == 0) lines.push_back(message);
  }
  EXPECT_THAT(lines, ::testing::ElementsAre("request RemoteObject Start sync.\n",
                                            "request RemoteObject Stop sync.\n",
                                            "request RemoteObject seek sync.\n",
                                            "request RemoteObject preload sync.\n",
                                            "request RemoteObject inspect sync.\n"));
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 5);
  EXPECT_EQ(recorder().commands().size(), 5u);
}

TEST_F(CommandChannelTest, OutsideSyncModeRequestsDoNotRunTheirTwins) {
  answerThroughSharedMemory();
  startRecording();
  manager()->requestRemoteObjectStart("obj-1", "u", 1);
  manager()->requestRemoteObjectStop("obj-1");
  manager()->requestRemoteObjectSeek("obj-1", 1.0, "t");
  manager()->requestRemoteObjectPreload("obj-1", 1.0, "a", "b", "c");
  manager()->requestRemoteObjectInspect();

  // Only the five command messages: no event-value reset, no wait, no dispatch by a wait.
  const std::vector<AccessCall> calls = recorder().calls();
  ASSERT_EQ(calls.size(), 5u);
  for (const AccessCall& call : calls) EXPECT_EQ(call.key, kCommandKeyText);
  EXPECT_TRUE(log().messages().empty());
}

// --- Pause -------------------------------------------------------------------------------------

// The pause report on standard output names the source file, the function and a line number.
void expectPauseReport(const std::string& output) {
  static const std::regex kLine(
      " NotImplemented zvr_media_proxy_manager\\.cpp,requestRemoteObjectPause,[1-9][0-9]*\n");
  EXPECT_TRUE(std::regex_match(output, kLine)) << "stdout: \"" << output << "\"";
}

TEST_F(CommandChannelTest, PauseWritesNotImplementedToStdoutLogsAndSendsNothing) {
  startRecording();
  testing::internal::CaptureStdout();
  manager()->requestRemoteObjectPause("obj-1");
  const std::string output = testing::internal::GetCapturedStdout();

  expectPauseReport(output);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"NotImplemented.\n"});
  EXPECT_EQ(log().count("NotImplemented.\n", kError), 1);
  EXPECT_TRUE(recorder().calls().empty());
}

TEST_F(CommandChannelTest, PauseInSyncModeWritesNotImplementedLogsAndSendsNothing) {
  answerThroughSharedMemory();
  auto proxy = enterSyncMode();
  startRecording();
  const auto start = Clock::now();
  testing::internal::CaptureStdout();
  manager()->requestRemoteObjectPause("obj-1");
  const std::string output = testing::internal::GetCapturedStdout();

  EXPECT_LT(millisecondsSince(start), 200);
  expectPauseReport(output);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"NotImplemented.\n"});
  EXPECT_EQ(log().count("NotImplemented.\n", kError), 1);
  EXPECT_TRUE(recorder().calls().empty());
  EXPECT_EQ(service_->answered(), 0);
}

TEST_F(CommandChannelTest, PauseWithoutAccessStillOnlyReportsNotImplemented) {
  recorder().setThrowFromConstructor(true);
  startRecording();
  testing::internal::CaptureStdout();
  manager()->requestRemoteObjectPause("obj-1");
  const std::string output = testing::internal::GetCapturedStdout();

  expectPauseReport(output);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"NotImplemented.\n"});
  EXPECT_TRUE(recorder().calls().empty());
}

// --- No model-access client --------------------------------------------------------------------

// Runs one request on a manager whose connection the platform refuses and checks that it
// logged "No Access" once, at the error severity, sent nothing and did not wait.
void expectNoAccess(const std::function<void(ZVRMediaProxyManager*)>& request) {
  ModelAccessRecorder::instance().clearCalls();
  CapturedLog::instance().clear();
  const auto start = Clock::now();
  request(ZVRMediaProxyManager::getInstance());
  EXPECT_LT(millisecondsSince(start), 200);
  EXPECT_EQ(CapturedLog::instance().messages(), std::vector<std::string>{"No Access\n"});
  EXPECT_EQ(CapturedLog::instance().count("No Access\n", kError), 1);
  EXPECT_TRUE(ModelAccessRecorder::instance().calls().empty());
}

TEST_F(CommandChannelTest, WithoutAccessStartLogsNoAccessOnceAndSendsNothing) {
  recorder().setThrowFromConstructor(true);
  manager();
  expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectStart("obj-1", "u", 1); });
}

TEST_F(CommandChannelTest, WithoutAccessStopLogsNoAccessOnceAndSendsNothing) {
  recorder().setThrowFromConstructor(true);
  manager();
  expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectStop("obj-1"); });
}

TEST_F(CommandChannelTest, WithoutAccessSeekLogsNoAccessOnceAndSendsNothing) {
  recorder().setThrowFromConstructor(true);
  manager();
  expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectSeek("obj-1", 1.0, "t"); });
}

TEST_F(CommandChannelTest, WithoutAccessPreloadLogsNoAccessOnceAndSendsNothing) {
  recorder().setThrowFromConstructor(true);
  manager();
  expectNoAccess(
      [](ZVRMediaProxyManager* m) { m->requestRemoteObjectPreload("obj-1", 1.0, "a", "b", "c"); });
}

TEST_F(CommandChannelTest, WithoutAccessInspectLogsNoAccessOnceAndSendsNothing) {
  recorder().setThrowFromConstructor(true);
  manager();
  expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectInspect(); });
}

TEST_F(CommandChannelTest, WithoutAccessEachRequestTriesToConnectAgain) {
  recorder().setThrowFromConstructor(true);
  manager();
  const int attempts = recorder().constructorAttempts();
  expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectStop("obj-1"); });
  EXPECT_EQ(recorder().constructorAttempts(), attempts + 1);
}

TEST_F(CommandChannelTest, WithoutAccessInSyncModeEveryRequestLogsNoAccessOnceWithoutWaiting) {
  recorder().setThrowFromConstructor(true);
  auto proxy = enterSyncMode();
  {
    SCOPED_TRACE("start");
    expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectStart("obj-1", "u", 1); });
  }
  {
    SCOPED_TRACE("stop");
    expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectStop("obj-1"); });
  }
  {
    SCOPED_TRACE("seek");
    expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectSeek("obj-1", 1.0, "t"); });
  }
  {
    SCOPED_TRACE("preload");
    expectNoAccess([](ZVRMediaProxyManager* m) {
      m->requestRemoteObjectPreload("obj-1", 1.0, "a", "b", "c");
    });
  }
  {
    SCOPED_TRACE("inspect");
    expectNoAccess([](ZVRMediaProxyManager* m) { m->requestRemoteObjectInspect(); });
  }
}

}  // namespace
