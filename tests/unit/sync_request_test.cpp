// Synchronous requests: each sends its command, then polls "/ZVR_PROXY" every 50 ms for up to
// 250 ms for the answer that carries the command's session id, and dispatches a found answer to
// the manager's onZVREvent on the calling thread. Also the liveness probe checkZVRServiceAlive.
//
// Where an answer must appear at a chosen point of a wait, a helper thread watches the wait's own
// poll lines (" id:%s, name:%s\n") and writes the segment right after the n-th of them, so the
// outcome follows the logged schedule rather than the wall clock.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capturing_log.h"
#include "manager_test.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "shm_writer.h"
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
using zvr_test::log;
using zvr_test::LogLine;
using zvr_test::recorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;

using Record = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

constexpr char kWaitFunction[] = "waitRequestRemoteObjectCompleted";
constexpr char kOldSession[] = "ses-00000000-0000-0000-0000000000000000";

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A logged line reduced to what the tests compare: severity and message.
struct Logged {
  unsigned int severity;
  std::string message;
  bool operator==(const Logged& o) const { return severity == o.severity && message == o.message; }
};

std::ostream& operator<<(std::ostream& os, const Logged& l) {
  return os << "{" << l.severity << ", \"" << l.message << "\"}";
}

// The lines written by one function, in order.
std::vector<Logged> linesOf(const std::string& function) {
  std::vector<Logged> result;
  for (const LogLine& line : log().lines()) {
    if (line.function == function) result.push_back({line.severity, line.message});
  }
  return result;
}

// The wait's poll lines so far: one per read after a pause.
int pollLines() {
  int n = 0;
  for (const LogLine& line : log().lines()) {
    n += line.function == kWaitFunction && line.message.rfind(" id:", 0) == 0 ? 1 : 0;
  }
  return n;
}

Logged enterLine(const std::string& sessionId, const std::string& name) {
  return {kProgress, "enter  id:" + sessionId + ", name:" + name + "\n"};
}
Logged pollLine(const std::string& sessionId, const std::string& name) {
  return {kProgress, " id:" + sessionId + ", name:" + name + "\n"};
}
Logged usedTimeLine(int elapsed) {
  return {kProgress, " used time: " + std::to_string(elapsed) + "/250\n"};
}
const Logged kTaskTimeout{kError, "Task timeout: 250/250\n"};

// Plays the service for one command: builds an answer from the command message and writes it
// into the segment, either at once on the sending thread (afterPolls == 0) or from a thread of its
// own right after the wait has logged its afterPolls-th poll line.
class ScheduledAnswer {
 public:
  using Build = std::function<void(ShmWriter&, const Record& command)>;

  ScheduledAnswer(ShmWriter& writer, int afterPolls, Build build)
      : writer_(writer), afterPolls_(afterPolls), build_(std::move(build)) {
    recorder().setHook([this](const std::string& key, const Record& values) {
      if (key != zvr_test::kCommandKey) return;
      if (afterPolls_ == 0) {
        build_(writer_, values);
        return;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      if (thread_.joinable()) return;  // one answer only
      thread_ = std::thread([this, values] {
        if (zvr_test::eventually([this] { return pollLines() >= afterPolls_; })) {
          build_(writer_, values);
        }
      });
    });
  }
  ~ScheduledAnswer() {
    recorder().setHook(nullptr);
    std::lock_guard<std::mutex> lock(mutex_);
    if (thread_.joinable()) thread_.join();
  }
  ScheduledAnswer(const ScheduledAnswer&) = delete;
  ScheduledAnswer& operator=(const ScheduledAnswer&) = delete;

 private:
  ShmWriter& writer_;
  const int afterPolls_;
  const Build build_;
  std::mutex mutex_;
  std::thread thread_;
};

// Writes {name, code, the command's session id, the command's object id}.
ScheduledAnswer::Build answerWith(const std::string& name, const std::string& code = "200") {
  return [name, code](ShmWriter& writer, const Record& command) {
    writer.writeRecord({name, code, command[2], command[3]});
  };
}

// An application callback that also records the thread it ran on.
struct ThreadedNotification {
  std::string id;
  std::string kind;
  std::string value;
  std::thread::id thread;
};
std::mutex gNotificationMutex;
std::vector<ThreadedNotification> gNotifications;

void threadRecordingCallback(std::string id, std::string kind, std::string value) {
  std::lock_guard<std::mutex> lock(gNotificationMutex);
  gNotifications.push_back(
      {std::move(id), std::move(kind), std::move(value), std::this_thread::get_id()});
}

std::vector<ThreadedNotification> notifications() {
  std::lock_guard<std::mutex> lock(gNotificationMutex);
  return gNotifications;
}

bool isTimestamp(const std::string& text) {
  return std::regex_match(text, std::regex("[0-9]+\\.[0-9]{6}"));
}

class SyncRequestTest : public zvr_test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(manager_->checkZVREventMemory(), 0);
    log().clear();
  }

  // A registered proxy for obj-1 in state 1, as start(url, 1) leaves it. Its start message is
  // sent before any service is installed and then forgotten.
  std::shared_ptr<ZVRMediaProxyObject> startingProxy() {
    auto object = manager_->createNewZVRMediaProxy("obj-1");
    object->start("http://host/a", 1);
    EXPECT_EQ(object->getState(), ZVRMediaProxyObject::STATE_STARTING);
    recorder().clearCalls();
    log().clear();
    return object;
  }

  ShmWriter writer_;
};

// --- Each twin: log line, command, awaited answer ------------------------------------------------

struct Twin {
  const char* function;
  std::function<int(ZVRMediaProxyManager*)> call;
  const char* line;
  const char* awaited;
  // The command expected, with "S" standing for the session id and "T" for the timestamp.
  Record command;
  bool resetsEventValue;
};

std::ostream& operator<<(std::ostream& os, const Twin& twin) { return os << twin.function; }

class SyncTwinTest : public SyncRequestTest, public ::testing::WithParamInterface<Twin> {};

TEST_P(SyncTwinTest, LogsItsLineSendsItsCommandAndTakesItsAnswerAtTheFirstRead) {
  const Twin& twin = GetParam();
  ServiceDouble service(&writer_, ServiceDouble::Delivery::kSharedMemory);

  EXPECT_EQ(twin.call(manager_), 0);

  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  const std::string sessionId = commands[0][2];
  Record expected = twin.command;
  for (std::string& text : expected) {
    if (text == "S") text = sessionId;
    if (text == "T") {
      EXPECT_TRUE(isTimestamp(commands[0][4])) << commands[0][4];
      text = commands[0][4];
    }
  }
  EXPECT_EQ(commands[0], expected);
  EXPECT_EQ(sessionId.size(), 39u);

  // The request's own line, at 4000, then the wait with the awaited name.
  EXPECT_EQ(linesOf(twin.function), (std::vector<Logged>{{kProgress, twin.line}}));
  EXPECT_EQ(log().count(twin.line, kProgress), 1);
  EXPECT_EQ(linesOf(kWaitFunction),
            (std::vector<Logged>{enterLine(sessionId, twin.awaited), usedTimeLine(0)}));

  // Only inspect resets the event value, and it does so before sending.
  const auto calls = recorder().calls();
  if (twin.resetsEventValue) {
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].key, zvr_test::kEventKey);
    EXPECT_EQ(calls[0].values, Record({"unknown", "", "", "", "", "", "", "", ""}));
    EXPECT_EQ(calls[1].key, zvr_test::kCommandKey);
  } else {
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].key, zvr_test::kCommandKey);
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllTwins, SyncTwinTest,
    ::testing::Values(
        Twin{"requestRemoteObjectStartSync",
             [](ZVRMediaProxyManager* m) {
               return m->requestRemoteObjectStartSync("obj-1", "http://host/a", 1);
             },
             "request RemoteObject Start sync.\n",
             "started",
             {"start", "", "S", "obj-1", "T", "", "http://host/a", "", "", "1", ""},
             false},
        Twin{"requestRemoteObjectStopSync",
             [](ZVRMediaProxyManager* m) { return m->requestRemoteObjectStopSync("obj-1"); },
             "request RemoteObject Stop sync.\n",
             "stopped",
             {"stop", "", "S", "obj-1", "T", "", "", "", "", "", ""},
             false},
        Twin{"requestRemoteObjectSeekSync",
             [](ZVRMediaProxyManager* m) {
               return m->requestRemoteObjectSeekSync("obj-1", 12.5, "text");
             },
             "request RemoteObject seek sync.\n",
             "seeked",
             {"seek", "", "S", "obj-1", "T", "12.500000", "text", "", "", "", ""},
             false},
        Twin{"requestRemoteObjectPreloadSync",
             [](ZVRMediaProxyManager* m) {
               return m->requestRemoteObjectPreloadSync("obj-1", 3, "t1", "t2", "t3");
             },
             "request RemoteObject preload sync.\n",
             "started",
             {"preload", "", "S", "obj-1", "T", "3.000000", "t1", "t2", "t3", "", ""},
             false},
        Twin{"requestRemoteObjectInspectSync",
             [](ZVRMediaProxyManager* m) { return m->requestRemoteObjectInspectSync(); },
             "request RemoteObject inspect sync.\n",
             "status",
             {"inspect", "", "S", "", "", "", "", "", "", "", ""},
             true}),
    [](const ::testing::TestParamInfo<Twin>& info) {
      std::string name = info.param.function;
      return name.substr(std::string("requestRemoteObject").size());
    });

TEST_F(SyncRequestTest, InspectSyncResetsTheEventValueBeforeItLogsAndSends) {
  ServiceDouble service(&writer_, ServiceDouble::Delivery::kSharedMemory);
  EXPECT_EQ(manager_->requestRemoteObjectInspectSync(), 0);

  std::vector<std::string> order;
  for (const LogLine& line : log().lines()) {
    if (line.message == "initializeZVREvent.\n" ||
        line.message == "request RemoteObject inspect sync.\n" ||
        line.message.rfind("enter  id:", 0) == 0) {
      order.push_back(line.message.substr(0, 10));
    }
  }
  EXPECT_THAT(order, ElementsAre("initialize", "request Re", "enter  id:"));
  const auto calls = recorder().calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].key, zvr_test::kEventKey);
  EXPECT_EQ(calls[0].values, Record({"unknown", "", "", "", "", "", "", "", ""}));
  EXPECT_EQ(calls[1].values,
            Record({"inspect", "", calls[1].values[2], "", "", "", "", "", "", "", ""}));
}

// --- The wait's schedule -------------------------------------------------------------------------

TEST_F(SyncRequestTest, AnswerPresentAtTheFirstReadReturnsAtOnceWithUsedTimeZero) {
  ScheduledAnswer answer(writer_, 0, answerWith("stopped"));
  const auto start = Clock::now();
  EXPECT_EQ(manager_->requestRemoteObjectStopSync("obj-1"), 0);
  EXPECT_LT(secondsSince(start), 0.2);
  const std::string sessionId = recorder().commands().at(0)[2];
  // No poll line: the wait never slept.
  EXPECT_EQ(linesOf(kWaitFunction),
            (std::vector<Logged>{enterLine(sessionId, "stopped"), usedTimeLine(0)}));
}

TEST_F(SyncRequestTest, AnswerArrivingBetween150And200msIsTakenAtTheFifthComparison) {
  writer_.writeRecord({"stopped", "200", kOldSession, "obj-1"});
  ScheduledAnswer answer(writer_, 3, answerWith("stopped"));
  EXPECT_EQ(manager_->requestRemoteObjectStopSync("obj-1"), 0);
  const std::string sessionId = recorder().commands().at(0)[2];
  EXPECT_EQ(linesOf(kWaitFunction),
            (std::vector<Logged>{enterLine(sessionId, "stopped"), pollLine(kOldSession, "stopped"),
                                 pollLine(kOldSession, "stopped"), pollLine(kOldSession, "stopped"),
                                 pollLine(sessionId, "stopped"), usedTimeLine(200)}));
}

TEST_F(SyncRequestTest, AnswerArrivingBetween200And250msIsLoggedButNotTaken) {
  auto object = startingProxy();
  manager_->setZVRCallback(&threadRecordingCallback);
  writer_.writeRecord({"started", "200", kOldSession, "obj-1"});
  ScheduledAnswer answer(writer_, 4, answerWith("started"));

  const auto start = Clock::now();
  EXPECT_EQ(manager_->requestRemoteObjectStartSync("obj-1", "http://host/a", 1), -1);
  const double elapsed = secondsSince(start);
  EXPECT_GT(elapsed, 0.2);
  EXPECT_LT(elapsed, 2.0);

  const std::string sessionId = recorder().commands().at(0)[2];
  EXPECT_EQ(linesOf(kWaitFunction),
            (std::vector<Logged>{enterLine(sessionId, "started"), pollLine(kOldSession, "started"),
                                 pollLine(kOldSession, "started"), pollLine(kOldSession, "started"),
                                 pollLine(kOldSession, "started"), pollLine(sessionId, "started"),
                                 kTaskTimeout}));
  EXPECT_EQ(pollLines(), 5);
  // The answer read last was not dispatched: the proxy is still starting and nobody was told.
  EXPECT_EQ(object->getState(), ZVRMediaProxyObject::STATE_STARTING);
  EXPECT_EQ(object->localURL(), "");
  EXPECT_TRUE(notifications().empty());
  EXPECT_TRUE(log().messages(kHeadline).empty());
}

TEST_F(SyncRequestTest, TimedOutWaitDispatchesNothing) {
  // The right session id under another name: never taken, and never handed to the proxy, which
  // would log "Seek Done. obj-1" for it.
  auto object = startingProxy();
  ScheduledAnswer answer(writer_, 0, answerWith("seeked"));
  EXPECT_EQ(manager_->requestRemoteObjectStartSync("obj-1", "http://host/a", 1), -1);
  const std::string sessionId = recorder().commands().at(0)[2];
  std::vector<Logged> expected{enterLine(sessionId, "started")};
  for (int i = 0; i < 5; ++i) expected.push_back(pollLine(sessionId, "seeked"));
  expected.push_back(kTaskTimeout);
  EXPECT_EQ(linesOf(kWaitFunction), expected);
  EXPECT_EQ(log().count("Seek Done. obj-1\n"), 0);
  EXPECT_EQ(object->getState(), ZVRMediaProxyObject::STATE_STARTING);
  EXPECT_EQ(recorder().commands().size(), 1u);  // no retry
}

// --- What matches
// ---------------------------------------------------------------------------------

TEST_F(SyncRequestTest, PreloadSyncIsAcknowledgedByStarted) {
  ScheduledAnswer answer(writer_, 0, answerWith("started"));
  EXPECT_EQ(manager_->requestRemoteObjectPreloadSync("obj-1", 0, "a", "b", "c"), 0);
  const std::string sessionId = recorder().commands().at(0)[2];
  EXPECT_EQ(linesOf(kWaitFunction),
            (std::vector<Logged>{enterLine(sessionId, "started"), usedTimeLine(0)}));
}

TEST_F(SyncRequestTest, PreloadSyncDoesNotTakeACreatedAnswer) {
  ScheduledAnswer answer(writer_, 0, answerWith("created"));
  EXPECT_EQ(manager_->requestRemoteObjectPreloadSync("obj-1", 0, "a", "b", "c"), -1);
  const std::string sessionId = recorder().commands().at(0)[2];
  std::vector<Logged> expected{enterLine(sessionId, "started")};
  for (int i = 0; i < 5; ++i) expected.push_back(pollLine(sessionId, "created"));
  expected.push_back(kTaskTimeout);
  EXPECT_EQ(linesOf(kWaitFunction), expected);
  EXPECT_EQ(log().count("New Created Object: " + sessionId + " - obj-1\n"), 0);
}

TEST_F(SyncRequestTest, StopSyncIgnoresAStoppedAnswerWithAnotherRequestsSessionId) {
  const std::string other = manager_->getNextSessionId();
  ScheduledAnswer answer(writer_, 0, [other](ShmWriter& writer, const Record& command) {
    writer.writeRecord({"stopped", "200", other, command[3]});
  });
  EXPECT_EQ(manager_->requestRemoteObjectStopSync("obj-1"), -1);
  const std::string sessionId = recorder().commands().at(0)[2];
  ASSERT_NE(sessionId, other);
  std::vector<Logged> expected{enterLine(sessionId, "stopped")};
  for (int i = 0; i < 5; ++i) expected.push_back(pollLine(other, "stopped"));
  expected.push_back(kTaskTimeout);
  EXPECT_EQ(linesOf(kWaitFunction), expected);
}

TEST_F(SyncRequestTest, RecordWithOnlyTwoFieldsNeverMatches) {
  ScheduledAnswer answer(writer_, 0, [](ShmWriter& writer, const Record&) {
    writer.writeText(R"({"0":"stopped","1":"200"})");
  });
  EXPECT_EQ(manager_->requestRemoteObjectStopSync("obj-1"), -1);
  const std::string sessionId = recorder().commands().at(0)[2];
  std::vector<Logged> expected{enterLine(sessionId, "stopped")};
  for (int i = 0; i < 5; ++i) expected.push_back(pollLine("", "stopped"));
  expected.push_back(kTaskTimeout);
  EXPECT_EQ(linesOf(kWaitFunction), expected);
}

TEST_F(SyncRequestTest, EarlierStatusAnswerInTheBufferDoesNotSatisfyInspectSync) {
  writer_.writeRecord({"status", "200", kOldSession, ""});
  ServiceDouble service(&writer_, ServiceDouble::Delivery::kSharedMemory);
  service.setSilent("inspect");
  const auto start = Clock::now();
  EXPECT_EQ(manager_->requestRemoteObjectInspectSync(), -1);
  const double elapsed = secondsSince(start);
  EXPECT_GT(elapsed, 0.2);
  EXPECT_LT(elapsed, 2.0);
  const std::string sessionId = recorder().commands().at(0)[2];
  ASSERT_NE(sessionId, kOldSession);
  std::vector<Logged> expected{enterLine(sessionId, "status")};
  for (int i = 0; i < 5; ++i) expected.push_back(pollLine(kOldSession, "status"));
  expected.push_back(kTaskTimeout);
  EXPECT_EQ(linesOf(kWaitFunction), expected);
  EXPECT_EQ(log().count("zvr service alive: " + std::string(kOldSession) + " - \n"), 0);
}

// --- Dispatch of the found answer ----------------------------------------------------------------

TEST_F(SyncRequestTest, FoundAnswerIsDispatchedOnTheCallingThreadBeforeTheRequestReturns) {
  auto object = startingProxy();
  manager_->setZVRCallback(&threadRecordingCallback);
  ServiceDouble service(&writer_, ServiceDouble::Delivery::kSharedMemory);

  EXPECT_EQ(manager_->requestRemoteObjectStartSync("obj-1", "http://host/a", 1), 0);

  // Checked at once, without waiting for anything.
  EXPECT_EQ(object->getState(), ZVRMediaProxyObject::STATE_STARTED);
  EXPECT_EQ(object->localURL(), ServiceDouble::kLocalURL);
  const auto calls = notifications();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].id, "obj-1");
  EXPECT_EQ(calls[0].kind, "url");
  EXPECT_EQ(calls[0].value, ServiceDouble::kLocalURL);
  EXPECT_EQ(calls[0].thread, std::this_thread::get_id());
  EXPECT_EQ(log().count(std::string("ZVR Media Proxy stated : 200 ( ) ,  ") +
                            ServiceDouble::kLocalURL + "\n",
                        kHeadline),
            1);
}

TEST_F(SyncRequestTest, FailedAnswerStillReturnsZeroAndReachesTheProxy) {
  auto object = manager_->createNewZVRMediaProxy("obj-1");
  log().clear();
  ServiceDouble service(&writer_, ServiceDouble::Delivery::kSharedMemory);
  service.setResultCode("stop", "500");

  EXPECT_EQ(manager_->requestRemoteObjectStopSync("obj-1"), 0);
  const std::string sessionId = recorder().commands().at(0)[2];
  EXPECT_EQ(linesOf(kWaitFunction),
            (std::vector<Logged>{enterLine(sessionId, "stopped"), usedTimeLine(0)}));
  EXPECT_EQ(log().count("Stopped Failed:  obj-1, 500 ,\n", kError), 1);
}

// --- Pause and missing access
// ----------------------------------------------------------------------

TEST_F(SyncRequestTest, PauseSyncReturnsZeroAndSendsAndLogsNothing) {
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(manager_->requestRemoteObjectPauseSync("obj-1"), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(recorder().calls().empty());
  EXPECT_TRUE(log().lines().empty());
}

TEST(SyncRequestWithoutAccessTest, EveryRequestReturnsMinusOneWithoutWaitingAndLogsNoAccess) {
  recorder().setThrowFromConstructor(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  log().clear();

  const auto start = Clock::now();
  EXPECT_EQ(manager->requestRemoteObjectStartSync("obj-1", "http://host/a", 1), -1);
  EXPECT_EQ(manager->requestRemoteObjectStopSync("obj-1"), -1);
  EXPECT_EQ(manager->requestRemoteObjectSeekSync("obj-1", 1, "t"), -1);
  EXPECT_EQ(manager->requestRemoteObjectPreloadSync("obj-1", 1, "a", "b", "c"), -1);
  EXPECT_EQ(manager->requestRemoteObjectInspectSync(), -1);
  EXPECT_LT(secondsSince(start), 0.25);  // five waits would take well over a second

  EXPECT_EQ(log().messages(), std::vector<std::string>(5, "No Access\n"));
  EXPECT_EQ(log().count("No Access\n", kError), 5);
  EXPECT_TRUE(recorder().calls().empty());
}

// --- The liveness probe
// ---------------------------------------------------------------------------

TEST_F(SyncRequestTest, ServiceAliveWithoutAnyEventReturnsFalseAfterWaitTimeout) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setAllSilent(true);
  const auto start = Clock::now();
  EXPECT_FALSE(manager_->checkZVRServiceAlive());
  const double elapsed = secondsSince(start);
  EXPECT_GT(elapsed, 0.15);
  EXPECT_LT(elapsed, 2.0);

  EXPECT_EQ(linesOf("checkZVRServiceAlive"),
            (std::vector<Logged>{{kProgress, "Enter \n"}, {kProgress, "wait  timeout.\n"}}));
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0], Record({"inspect", "", commands[0][2], "", "", "", "", "", "", "", ""}));
}

TEST_F(SyncRequestTest, ServiceAliveReturnsTrueWhenAStatusEventSignalsWithin200ms) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  const auto start = Clock::now();
  EXPECT_TRUE(manager_->checkZVRServiceAlive());
  EXPECT_LT(secondsSince(start), 2.0);

  EXPECT_EQ(linesOf("checkZVRServiceAlive"),
            (std::vector<Logged>{{kProgress, "Enter \n"}, {kProgress, "wait done.\n"}}));
  const std::string sessionId = recorder().commands().at(0)[2];
  EXPECT_EQ(log().count("zvr service alive: " + sessionId + " - \n", kProgress), 1);
}

}  // namespace
