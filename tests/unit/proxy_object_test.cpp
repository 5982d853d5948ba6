// The proxy object on its own: its state machine, the command each operation sends, the trace
// frame of every command, and its reaction to event records handed to it directly or through the
// manager's dispatch. No service answers here; every record is built by the test.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "test_support.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using ::testing::ElementsAre;
using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyObject;
using velmora::logging::kError;
using velmora::logging::kHeadline;
using velmora::logging::kProgress;
using velmora::logging::kVerbose;
using zvr_test::AccessCall;
using zvr_test::CallbackRecorder;
using zvr_test::CapturedLog;
using zvr_test::LogLine;
using zvr_test::ModelAccessRecorder;
using zvr_test::Notification;

using Strings = std::vector<std::string>;
// One B-LOG line as (severity, message).
using Entry = std::pair<unsigned int, std::string>;

const char kId[] = "abc";
const char kURL[] = "http://127.0.0.1:8099/media/7";

ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }
CapturedLog& log() { return CapturedLog::instance(); }

// The B-LOG lines written so far, in order; trace lines are left out.
std::vector<Entry> blogLines() {
  std::vector<Entry> result;
  for (const LogLine& line : log().lines()) {
    if (line.text.compare(0, 8, "[B-LOG] ") == 0) result.emplace_back(line.severity, line.message);
  }
  return result;
}

bool isTraceLine(const LogLine& line) { return line.text.compare(0, 7, "[TRACE ") == 0; }

// An event record of 11 positions as the service sends it.
Strings record(const std::string& name, const std::string& code, const std::string& target,
               const std::string& url = "", const std::string& definitions = "",
               const std::string& detail = "") {
  return {name, code, "ses-0", target, "", "", url, definitions, detail, "", ""};
}

void expectSessionIdShape(const std::string& text) {
  static const std::regex kShape("ses-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{16}");
  EXPECT_TRUE(std::regex_match(text, kShape)) << "session id: " << text;
}

void expectTimestampShape(const std::string& text) {
  static const std::regex kShape("-?[0-9]+\\.[0-9]{6}");
  EXPECT_TRUE(std::regex_match(text, kShape)) << "timestamp: " << text;
}

// Checks the shapes of the session id and timestamp of a recorded command, so that the caller
// can take both from the record into its expected list.
void expectCommandShape(const Strings& command) {
  ASSERT_EQ(command.size(), 11u);
  expectSessionIdShape(command[2]);
  expectTimestampShape(command[4]);
}

std::regex traceLine(const std::string& arrow, const std::string& direction,
                     const std::string& name) {
  return std::regex("\\[TRACE " + arrow + " " + name + "\\(" + direction +
                    "\\)\\] zvr_media_proxy_object\\.cpp:[0-9]+:" + name + "\\(\\) \n");
}

// The captured lines start with the entry trace line of `name` and end with its exit trace
// line, both verbose, and hold no other trace line.
void expectFramedByTrace(const std::vector<LogLine>& lines, const std::string& name) {
  ASSERT_GE(lines.size(), 2u);
  EXPECT_TRUE(std::regex_match(lines.front().text, traceLine("->", "IN", name)))
      << lines.front().text;
  EXPECT_EQ(lines.front().severity, kVerbose);
  EXPECT_TRUE(std::regex_match(lines.back().text, traceLine("<-", "OUT", name)))
      << lines.back().text;
  EXPECT_EQ(lines.back().severity, kVerbose);
  int traces = 0;
  for (const LogLine& line : lines) traces += isTraceLine(line) ? 1 : 0;
  EXPECT_EQ(traces, 2);
}

// Records the thread of every callback before passing the call on to CallbackRecorder.
// From inside the first notification of kind `kind`, starts a thread that calls getState() on
// `target` and waits up to `wait` for it to return, while the callback is still running. Shows
// whether the object's mutex is held across that notification.
struct MutexProbe {
  std::shared_ptr<ZVRMediaProxyObject> target;
  std::string kind;
  std::chrono::milliseconds wait{0};
  bool launched = false;
  bool returnedInsideCallback = false;
  std::future<int> state;
  std::thread thread;
};

MutexProbe& probe() {
  static MutexProbe* const p = new MutexProbe;
  return *p;
}

void probingCallback(std::string id, std::string kind, std::string value) {
  MutexProbe& p = probe();
  if (kind == p.kind && !p.launched) {
    p.launched = true;
    std::shared_ptr<ZVRMediaProxyObject> target = p.target;
    std::packaged_task<int()> task([target] { return target->getState(); });
    p.state = task.get_future();
    p.thread = std::thread(std::move(task));
    p.returnedInsideCallback = p.state.wait_for(p.wait) == std::future_status::ready;
  }
  CallbackRecorder::callback(std::move(id), std::move(kind), std::move(value));
}

class ProxyObjectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager_ = ZVRMediaProxyManager::getInstance();
    manager_->setZVRCallback(&CallbackRecorder::callback);
    object_ = manager_->createNewZVRMediaProxy(kId);
    ASSERT_NE(object_, nullptr);
    log().clear();
  }

  void feed(Strings r) { object_->onZVREvent(r); }

  // STATE_STARTED with `url` stored, reached through a preload and its "started" answer, so that
  // no notification was sent; the commands and log lines of the way there are forgotten.
  void bringToStartedSilently(const std::string& url) {
    object_->preload(0, "", "", "");
    feed(record("started", "200", kId, url));
    ASSERT_EQ(object_->getState(), 2);
    ASSERT_EQ(object_->localURL(), url);
    ASSERT_TRUE(CallbackRecorder::calls().empty());
    recorder().clearCalls();
    log().clear();
  }

  // STATE_STARTING with `url` still stored from an earlier "started" answer.
  void bringToStartingWithURL(const std::string& url) {
    bringToStartedSilently(url);
    object_->start("file:///again.ts", 1);
    ASSERT_EQ(object_->getState(), 1);
    recorder().clearCalls();
    log().clear();
  }

  ZVRMediaProxyManager* manager_ = nullptr;
  std::shared_ptr<ZVRMediaProxyObject> object_;
};

// --- Construction ------------------------------------------------------------------------------

TEST_F(ProxyObjectTest, ConstructorLogsNewProxyObjectWithItsIdAtProgress) {
  auto other = ZVRMediaProxyObject::create("xyz-1");
  EXPECT_THAT(blogLines(), ElementsAre(Entry{kProgress, "new ProxyObject id:xyz-1\n"}));
}

TEST_F(ProxyObjectTest, CreateSendsNothingAndRegistersNothing) {
  auto other = ZVRMediaProxyObject::create("xyz-1");
  EXPECT_TRUE(recorder().calls().empty());
  EXPECT_EQ(manager_->findProxyObjectFromCache("xyz-1"), nullptr);
  EXPECT_EQ(other.use_count(), 1);
}

TEST_F(ProxyObjectTest, NewObjectIsIdleWithEmptyLocalURLAndItsId) {
  auto other = ZVRMediaProxyObject::create("xyz-1");
  EXPECT_EQ(other->getState(), 0);
  EXPECT_EQ(other->localURL(), "");
  EXPECT_EQ(other->id(), "xyz-1");
  EXPECT_EQ(object_->getState(), 0);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_EQ(object_->id(), kId);
}

// --- Commands ----------------------------------------------------------------------------------

TEST_F(ProxyObjectTest, StartSendsOneStartCommandAndEntersStarting) {
  object_->start("file:///a.ts", 3);
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  const Strings& c = commands[0];
  expectCommandShape(c);
  EXPECT_EQ(c, (Strings{"start", "", c[2], kId, c[4], "", "file:///a.ts", "", "", "3", ""}));
  EXPECT_EQ(object_->getState(), 1);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
}

TEST_F(ProxyObjectTest, StartWithNonZeroModeAlwaysSendsStartWhateverTheState) {
  object_->start("file:///a.ts", -1);  // from idle
  EXPECT_EQ(object_->getState(), 1);
  object_->start("file:///b.ts", 2);  // while a start is under way
  EXPECT_EQ(object_->getState(), 1);
  feed(record("started", "200", kId, kURL));
  ASSERT_EQ(object_->getState(), 2);
  object_->start("file:///c.ts", 5);  // from started
  EXPECT_EQ(object_->getState(), 1);

  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 3u);
  for (const Strings& c : commands) expectCommandShape(c);
  EXPECT_EQ(commands[0], (Strings{"start", "", commands[0][2], kId, commands[0][4], "",
                                  "file:///a.ts", "", "", "-1", ""}));
  EXPECT_EQ(commands[1], (Strings{"start", "", commands[1][2], kId, commands[1][4], "",
                                  "file:///b.ts", "", "", "2", ""}));
  EXPECT_EQ(commands[2], (Strings{"start", "", commands[2][2], kId, commands[2][4], "",
                                  "file:///c.ts", "", "", "5", ""}));
  EXPECT_NE(commands[0][2], commands[1][2]);
  EXPECT_NE(commands[1][2], commands[2][2]);
}

TEST_F(ProxyObjectTest, SeekBeforeAnyStartSendsNothing) {
  object_->seek(12.5, "fast");
  EXPECT_TRUE(recorder().calls().empty());
  EXPECT_EQ(object_->getState(), 0);
}

TEST_F(ProxyObjectTest, SeekAfterStartBeforeTheStartedEventSendsSeek) {
  object_->start("file:///a.ts", 1);
  object_->seek(12.5, "fast");
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 2u);
  const Strings& c = commands[1];
  expectCommandShape(c);
  EXPECT_EQ(c, (Strings{"seek", "", c[2], kId, c[4], "12.500000", "fast", "", "", "", ""}));
  EXPECT_EQ(object_->getState(), 1);
}

TEST_F(ProxyObjectTest, SeekInStartedSendsSeekAndKeepsTheState) {
  bringToStartedSilently(kURL);
  object_->seek(0, "");
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  const Strings& c = commands[0];
  expectCommandShape(c);
  EXPECT_EQ(c, (Strings{"seek", "", c[2], kId, c[4], "0.000000", "", "", "", "", ""}));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
}

TEST_F(ProxyObjectTest, PauseNeverChangesTheStateAndSendsNothing) {
  object_->pause();
  EXPECT_EQ(object_->getState(), 0);
  object_->start("file:///a.ts", 1);
  object_->pause();
  EXPECT_EQ(object_->getState(), 1);
  feed(record("started", "200", kId, kURL));
  object_->pause();
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  const auto calls = recorder().calls();
  ASSERT_EQ(calls.size(), 1u);  // only the start command
  EXPECT_EQ(calls[0].values[0], "start");
  EXPECT_EQ(log().count("NotImplemented.\n", kError), 3);
}

TEST_F(ProxyObjectTest, StopInAnyStateYieldsIdleAndEmptyURLAndAlwaysSendsStop) {
  object_->stop();  // idle
  EXPECT_EQ(object_->getState(), 0);
  EXPECT_EQ(object_->localURL(), "");

  object_->start("file:///a.ts", 1);  // starting
  object_->stop();
  EXPECT_EQ(object_->getState(), 0);
  EXPECT_EQ(object_->localURL(), "");

  object_->start("file:///a.ts", 1);
  feed(record("started", "200", kId, kURL));  // started, with a URL
  ASSERT_EQ(object_->localURL(), kURL);
  object_->stop();
  EXPECT_EQ(object_->getState(), 0);
  EXPECT_EQ(object_->localURL(), "");

  std::vector<Strings> stops;
  for (const Strings& c : recorder().commands()) {
    if (c[0] == "stop") stops.push_back(c);
  }
  ASSERT_EQ(stops.size(), 3u);
  for (const Strings& c : stops) {
    expectCommandShape(c);
    EXPECT_EQ(c, (Strings{"stop", "", c[2], kId, c[4], "", "", "", "", "", ""}));
  }
}

TEST_F(ProxyObjectTest, StopKeepsTheDefinitionsForALaterTakeOver) {
  object_->start("file:///a.ts", 1);
  feed(record("definition", "200", kId, "", "hd,sd"));
  object_->stop();
  object_->preload(0, "", "", "");
  feed(record("started", "200", kId, kURL));
  object_->start("", 0);
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{kId, "definitions", "hd,sd"}, Notification{kId, "url", kURL},
                          Notification{kId, "definitions", "hd,sd"}));
}

TEST_F(ProxyObjectTest, PreloadSendsPositionAndTheThreeTextsInOrder) {
  object_->preload(5, "first", "second", "third");
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  const Strings& c = commands[0];
  expectCommandShape(c);
  EXPECT_EQ(
      c, (Strings{"preload", "", c[2], kId, c[4], "5.000000", "first", "second", "third", "", ""}));
  EXPECT_EQ(object_->getState(), 0);
}

TEST_F(ProxyObjectTest, PreloadResetsTheEventValueBeforeItSendsItsCommand) {
  object_->preload(5, "first", "second", "third");
  const std::vector<AccessCall> calls = recorder().calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].key, zvr_test::kEventKey);
  EXPECT_EQ(calls[0].values, (Strings{"unknown", "", "", "", "", "", "", "", ""}));
  EXPECT_EQ(calls[1].key, zvr_test::kCommandKey);
  EXPECT_EQ(calls[1].values[0], "preload");
  EXPECT_EQ(log().count("initializeZVREvent.\n", kProgress), 1);
}

TEST_F(ProxyObjectTest, PreloadEmptiesALocalURLThatAnEarlierStartDelivered) {
  object_->start("file:///a.ts", 1);
  feed(record("started", "200", kId, kURL));
  ASSERT_EQ(object_->localURL(), kURL);
  object_->preload(1.5, "a", "b", "c");
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_EQ(object_->getState(), 2);  // preload leaves the state alone
}

TEST_F(ProxyObjectTest, PreloadLeavesTheStartingStateAlone) {
  object_->start("file:///a.ts", 1);
  object_->preload(1.5, "a", "b", "c");
  EXPECT_EQ(object_->getState(), 1);
}

TEST_F(ProxyObjectTest, StartIsFramedByTraceLines) {
  object_->start("file:///a.ts", 3);
  expectFramedByTrace(log().lines(), "start");
}

TEST_F(ProxyObjectTest, StartWithModeZeroIsFramedByTraceLines) {
  object_->start("", 0);
  expectFramedByTrace(log().lines(), "start");
}

TEST_F(ProxyObjectTest, StopIsFramedByTraceLines) {
  object_->stop();
  expectFramedByTrace(log().lines(), "stop");
}

TEST_F(ProxyObjectTest, PauseIsFramedByTraceLines) {
  object_->pause();
  expectFramedByTrace(log().lines(), "pause");
}

TEST_F(ProxyObjectTest, SeekIsFramedByTraceLines) {
  object_->start("file:///a.ts", 1);
  log().clear();
  object_->seek(3, "t");
  expectFramedByTrace(log().lines(), "seek");
}

TEST_F(ProxyObjectTest, SeekInIdleWritesOnlyItsTwoTraceLines) {
  object_->seek(3, "t");
  const auto lines = log().lines();
  EXPECT_EQ(lines.size(), 2u);
  expectFramedByTrace(lines, "seek");
}

TEST_F(ProxyObjectTest, PreloadIsFramedByTraceLines) {
  object_->preload(5, "a", "b", "c");
  expectFramedByTrace(log().lines(), "preload");
}

// --- "started" -----------------------------------------------------------------------------

TEST_F(ProxyObjectTest, StartedInStartingStoresTheURLNotifiesOnceAndMovesToStarted) {
  object_->start("file:///a.ts", 1);
  log().clear();
  feed(record("started", "200", kId, kURL, "", "ok"));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "url", kURL}));
  EXPECT_THAT(
      blogLines(),
      ElementsAre(
          Entry{kHeadline, std::string("ZVR Media Proxy stated : 200 ( ok) ,  ") + kURL + "\n"},
          Entry{kProgress, "the current state : 1\n"}, Entry{kProgress, "notify\n"}));
}

TEST_F(ProxyObjectTest, StartedInIdleAfterPreloadStoresTheURLSilently) {
  object_->preload(0, "a", "b", "c");
  log().clear();
  feed(record("started", "200", kId, kURL, "", "ok"));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_THAT(blogLines(),
              ElementsAre(Entry{kHeadline, std::string("ZVR Media Proxy stated : 200 ( ok) ,  ") +
                                               kURL + "\n"},
                          Entry{kProgress, "the current state : 0\n"}));
}

TEST_F(ProxyObjectTest, SecondStartedInStartedStoresTheNewURLSilently) {
  bringToStartedSilently(kURL);
  feed(record("started", "200", kId, "http://127.0.0.1:8099/media/8"));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), "http://127.0.0.1:8099/media/8");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_EQ(log().count("the current state : 2\n", kProgress), 1);
  EXPECT_EQ(log().count("notify\n"), 0);
}

TEST_F(ProxyObjectTest, FailedStartedLogsStatedAndStartFailureAndChangesNothing) {
  bringToStartingWithURL(kURL);
  feed(record("started", "500", kId, "http://127.0.0.1:8099/other", "", "busy"));
  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_THAT(
      blogLines(),
      ElementsAre(
          Entry{kHeadline, "ZVR Media Proxy stated : 500 ( busy) ,  http://127.0.0.1:8099/other\n"},
          Entry{kError, "Start failed when current state is :1 \n"}));
}

TEST_F(ProxyObjectTest, StartedRecordShorterThanSevenFieldsStoresAnEmptyURL) {
  bringToStartingWithURL(kURL);
  feed(Strings{"started", "200", "ses-0", kId});
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "url", ""}));
  EXPECT_THAT(blogLines(), ElementsAre(Entry{kHeadline, "ZVR Media Proxy stated : 200 ( ) ,  \n"},
                                       Entry{kProgress, "the current state : 1\n"},
                                       Entry{kProgress, "notify\n"}));
}

TEST_F(ProxyObjectTest, HandlingARecordLeavesTheRecordUnchanged) {
  object_->start("file:///a.ts", 1);
  Strings r = record("started", "200", kId, kURL, "", "ok");
  const Strings copy = r;
  object_->onZVREvent(r);
  EXPECT_EQ(r, copy);
}

// --- "stopped" and "seeked" --------------------------------------------------------------------

TEST_F(ProxyObjectTest, SuccessfulStoppedChangesNothingObservable) {
  bringToStartedSilently(kURL);
  feed(record("stopped", "200", kId, "", "", "done"));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(ProxyObjectTest, FailedStoppedIsLoggedAndChangesNothing) {
  bringToStartedSilently(kURL);
  object_->stop();
  log().clear();
  feed(record("stopped", "500", kId, "", "", "gone"));
  EXPECT_EQ(object_->getState(), 0);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_THAT(blogLines(), ElementsAre(Entry{kError, "Stopped Failed:  abc, 500 ,gone\n"}));
}

TEST_F(ProxyObjectTest, SuccessfulSeekedLogsSeekDone) {
  bringToStartedSilently(kURL);
  feed(record("seeked", "200", kId));
  EXPECT_THAT(blogLines(), ElementsAre(Entry{kHeadline, "Seek Done. abc\n"}));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
}

TEST_F(ProxyObjectTest, FailedSeekedIsLoggedAndChangesNothing) {
  bringToStartedSilently(kURL);
  feed(record("seeked", "404", kId, "", "", "out of range"));
  EXPECT_THAT(blogLines(), ElementsAre(Entry{kError, "Seek failed : abc\n"}));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
}

// --- "definition" ------------------------------------------------------------------------------

TEST_F(ProxyObjectTest, DefinitionInIdleIsStoredLoggedAsInvalidStateAndNotNotified) {
  feed(record("definition", "200", kId, "", "hd,sd"));
  EXPECT_EQ(object_->getState(), 0);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_THAT(blogLines(), ElementsAre(Entry{kError, "Invalid state:0.\n"},
                                       Entry{kProgress, "definitions : hd,sd\n"}));
  // Stored: a later take-over of a preload announces it.
  object_->preload(0, "", "", "");
  feed(record("started", "200", kId, kURL));
  object_->start("", 0);
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "url", kURL},
                                                     Notification{kId, "definitions", "hd,sd"}));
}

TEST_F(ProxyObjectTest, DefinitionInStartingIsNotified) {
  object_->start("file:///a.ts", 1);
  log().clear();
  feed(record("definition", "200", kId, "", "hd,sd"));
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "definitions", "hd,sd"}));
  EXPECT_THAT(blogLines(),
              ElementsAre(Entry{kProgress, "notify\n"}, Entry{kProgress, "definitions : hd,sd\n"}));
  EXPECT_EQ(object_->getState(), 1);
}

TEST_F(ProxyObjectTest, DefinitionInStartedIsNotified) {
  bringToStartedSilently(kURL);
  feed(record("definition", "200", kId, "", "4k"));
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "definitions", "4k"}));
  EXPECT_THAT(blogLines(),
              ElementsAre(Entry{kProgress, "notify\n"}, Entry{kProgress, "definitions : 4k\n"}));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
}

TEST_F(ProxyObjectTest, DefinitionResultCodeIsNotLookedAt) {
  object_->start("file:///a.ts", 1);
  feed(record("definition", "500", kId, "", "hd", "broken"));
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "definitions", "hd"}));
  EXPECT_EQ(log().count("definitions : hd\n", kProgress), 1);
}

TEST_F(ProxyObjectTest, PluralDefinitionsRecordIsIgnored) {
  object_->start("file:///a.ts", 1);
  log().clear();
  feed(record("definitions", "200", kId, "", "hd"));
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(log().lines().empty());
  EXPECT_EQ(object_->getState(), 1);
}

// --- Records that are not for this object ----------------------------------------------------

TEST_F(ProxyObjectTest, RecordForAnotherIdChangesNothing) {
  object_->start("file:///a.ts", 1);
  log().clear();
  feed(record("started", "200", "abd", kURL));
  feed(record("started", "200", "ab", kURL));
  feed(record("started", "200", "abc ", kURL));
  feed(record("definition", "200", "abd", "", "hd"));
  feed(record("seeked", "500", "xyz"));
  feed(record("stopped", "500", "xyz"));
  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(ProxyObjectTest, RecordWithFewerThanFourFieldsChangesNothing) {
  object_->start("file:///a.ts", 1);
  log().clear();
  feed(Strings{"started", "200", "ses-0"});
  feed(Strings{"definition", "200"});
  feed(Strings{"seeked"});
  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(ProxyObjectTest, EmptyRecordIsIgnored) {
  object_->start("file:///a.ts", 1);
  log().clear();
  feed(Strings{});
  EXPECT_EQ(object_->getState(), 1);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(ProxyObjectTest, NamesThatDifferInCaseAreIgnored) {
  object_->start("file:///a.ts", 1);
  log().clear();
  feed(record("Started", "200", kId, kURL));
  feed(record("STOPPED", "500", kId));
  feed(record("Seeked", "200", kId));
  feed(record("Definition", "200", kId, "", "hd"));
  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(ProxyObjectTest, UnknownEventNamesAreIgnored) {
  bringToStartedSilently(kURL);
  feed(record("paused", "200", kId));
  feed(record("unknown", "", kId));
  feed(record("created", "200", kId));
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(ProxyObjectTest, ManagerDispatchHandsStartedToTheRegisteredObject) {
  object_->start("file:///a.ts", 1);
  Strings r = record("started", "200", kId, kURL, "", "ok");
  manager_->onZVREvent(r);
  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "url", kURL}));
}

TEST_F(ProxyObjectTest, ManagerDispatchHandsSeekedAndStoppedFailuresToTheRegisteredObject) {
  bringToStartedSilently(kURL);
  Strings seeked = record("seeked", "500", kId);
  manager_->onZVREvent(seeked);
  Strings stopped = record("stopped", "500", kId, "", "", "gone");
  manager_->onZVREvent(stopped);
  EXPECT_THAT(blogLines(), ElementsAre(Entry{kError, "Seek failed : abc\n"},
                                       Entry{kError, "Stopped Failed:  abc, 500 ,gone\n"}));
  EXPECT_EQ(object_->getState(), 2);
}

// --- Locking around the notifications ----------------------------------------------------------

TEST_F(ProxyObjectTest, URLNotificationRunsWithTheObjectMutexHeld) {
  MutexProbe& p = probe();
  p.target = object_;
  p.kind = "url";
  p.wait = std::chrono::milliseconds(100);
  manager_->setZVRCallback(&probingCallback);
  object_->start("file:///a.ts", 1);

  feed(record("started", "200", kId, kURL));

  ASSERT_TRUE(p.launched);
  EXPECT_FALSE(p.returnedInsideCallback);  // getState() waited for the mutex
  ASSERT_EQ(p.state.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(p.state.get(), 2);
  p.thread.join();
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "url", kURL}));
}

TEST_F(ProxyObjectTest, DefinitionsNotificationRunsWithTheObjectMutexReleased) {
  MutexProbe& p = probe();
  p.target = object_;
  p.kind = "definitions";
  p.wait = std::chrono::seconds(5);
  manager_->setZVRCallback(&probingCallback);
  object_->start("file:///a.ts", 1);

  feed(record("definition", "200", kId, "", "hd"));

  ASSERT_TRUE(p.launched);
  EXPECT_TRUE(p.returnedInsideCallback);  // getState() returned while the callback ran
  ASSERT_EQ(p.state.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(p.state.get(), 1);
  p.thread.join();
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "definitions", "hd"}));
}

// --- start with mode 0 -------------------------------------------------------------------------

TEST_F(ProxyObjectTest, StartModeZeroAfterPreloadStartedNotifiesURLThenEmptyDefinitions) {
  object_->preload(0, "a", "b", "c");
  feed(record("started", "200", kId, kURL));
  recorder().clearCalls();
  log().clear();

  object_->start("file:///ignored.ts", 0);

  EXPECT_TRUE(recorder().calls().empty());  // no start command
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{kId, "url", kURL}, Notification{kId, "definitions", ""}));
  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_THAT(blogLines(),
              ElementsAre(Entry{kProgress, "notification from preload has been received\n"}));
}

TEST_F(ProxyObjectTest, StartModeZeroAfterPreloadStartedNotifiesStoredDefinitions) {
  object_->preload(0, "a", "b", "c");
  feed(record("definition", "200", kId, "", "hd,sd"));  // idle: stored only
  feed(record("started", "200", kId, kURL));
  ASSERT_TRUE(CallbackRecorder::calls().empty());
  recorder().clearCalls();

  object_->start("", 0);

  EXPECT_TRUE(recorder().commands().empty());
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "url", kURL},
                                                     Notification{kId, "definitions", "hd,sd"}));
  EXPECT_EQ(object_->getState(), 1);
}

TEST_F(ProxyObjectTest, StartModeZeroBeforePreloadStartedReadsTheEventValueAndHandlesIt) {
  manager_->setZVRCallback(&CallbackRecorder::callback);
  const Strings pending = record("started", "200", kId, kURL, "", "ok");
  recorder().setValue(zvr_test::kEventKey, pending);
  object_->preload(0, "a", "b", "c");
  recorder().clearCalls();
  log().clear();

  object_->start("", 0);

  EXPECT_EQ(object_->getState(), 2);
  EXPECT_EQ(object_->localURL(), kURL);
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{kId, "url", kURL}));
  EXPECT_THAT(CallbackRecorder::threads(), ElementsAre(std::this_thread::get_id()));
  EXPECT_TRUE(recorder().calls().empty());  // no start command
  EXPECT_EQ(recorder().getCalls(), 1);

  std::vector<Entry> expected = {
      {kProgress, "notification from preload is not received, and will read it first\n"},
      {kProgress, "memory NULL.\n"}};
  for (std::size_t i = 0; i < pending.size(); ++i) {
    expected.push_back({kVerbose, "parameter " + std::to_string(i) + ": " + pending[i] + " \n"});
  }
  expected.push_back(
      {kHeadline, std::string("ZVR Media Proxy stated : 200 ( ok) ,  ") + kURL + "\n"});
  expected.push_back({kProgress, "the current state : 1\n"});
  expected.push_back({kProgress, "notify\n"});
  EXPECT_EQ(blogLines(), expected);
}

TEST_F(ProxyObjectTest, StartModeZeroBeforePreloadStartedIgnoresARecordForAnotherId) {
  recorder().setValue(zvr_test::kEventKey, record("started", "200", "other", kURL));
  object_->preload(0, "a", "b", "c");
  recorder().clearCalls();
  log().clear();

  object_->start("", 0);

  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(recorder().calls().empty());
  EXPECT_EQ(
      log().count("notification from preload is not received, and will read it first\n", kProgress),
      1);
  EXPECT_EQ(log().count("notify\n"), 0);
}

TEST_F(ProxyObjectTest, StartModeZeroBeforePreloadStartedLeavesStartingForTheResetRecord) {
  recorder().setValue(zvr_test::kEventKey, Strings{"unknown", "", "", "", "", "", "", "", ""});
  object_->preload(0, "a", "b", "c");
  recorder().clearCalls();

  object_->start("", 0);

  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_TRUE(recorder().calls().empty());
}

TEST_F(ProxyObjectTest, StartModeZeroBeforePreloadStartedHandlesAFailedStartedAsAFailure) {
  recorder().setValue(zvr_test::kEventKey, record("started", "500", kId, kURL, "", "busy"));
  object_->preload(0, "a", "b", "c");
  log().clear();

  object_->start("", 0);

  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_EQ(
      log().count(std::string("ZVR Media Proxy stated : 500 ( busy) ,  ") + kURL + "\n", kHeadline),
      1);
  EXPECT_EQ(log().count("Start failed when current state is :1 \n", kError), 1);
}

TEST_F(ProxyObjectTest, StartModeZeroWithNothingToReadSendsNothingAndStaysStarting) {
  object_->start("file:///a.ts", 0);
  EXPECT_EQ(object_->getState(), 1);
  EXPECT_EQ(object_->localURL(), "");
  EXPECT_TRUE(recorder().calls().empty());
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_EQ(recorder().getCalls(), 1);
}

}  // namespace
