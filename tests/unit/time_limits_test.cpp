// The library's pauses, waits and time limits, on the virtual clock (fake_clock.h): every pause
// and every condition wait is recorded with the duration the library asked for, and the clock
// moves only by them and by the steps a test takes, so each figure is compared exactly.
//
// - asynchronous creation without an id: the first-response limit (more than 0.2 s by
//   base::log_now), the restart, the 500 ms wait after it, the 200 ms wait of each attempt and
//   the total limit (more than 2.0 s after the restart);
// - synchronous creation without an id: the 800 ms pause after each restart and the 200 ms pause
//   before the third check of the segment;
// - the synchronous wait: five pauses of 50 ms, then it gives up at 250;
// - checkZVRServiceAlive: one wait of 200 ms, alive only when woken before its deadline;
// - the response ids forgotten on each restart path, and a failed "created" answer, which
//   neither adds an id nor wakes a creation.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "fake_clock.h"
#include "manager_test.h"
#include "service_double.h"
#include "shm_writer.h"
#include "test_support.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using namespace std::chrono_literals;

using ::testing::Each;
using velmora::logging::kError;
using velmora::logging::kProgress;
using zvr_test::FakeClock;
using zvr_test::log;
using zvr_test::nanoseconds;
using zvr_test::recorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;

using Record = std::vector<std::string>;
using Micros = std::vector<long long>;

FakeClock& fakeClock() { return FakeClock::instance(); }

long long micros(nanoseconds d) {
  return std::chrono::duration_cast<std::chrono::microseconds>(d).count();
}

long long nowMicros() { return micros(fakeClock().now()); }

// The durations the condition waits asked for, in microseconds, and which of them were woken.
Micros waitsAsked() {
  Micros result;
  for (const zvr_test::ConditionWait& wait : fakeClock().waits()) {
    result.push_back(micros(wait.requested));
  }
  return result;
}
std::vector<bool> waitsWoken() {
  std::vector<bool> result;
  for (const zvr_test::ConditionWait& wait : fakeClock().waits()) result.push_back(wait.woken);
  return result;
}

// The usleep arguments, in microseconds.
Micros pauses() {
  Micros result;
  for (useconds_t pause : fakeClock().sleeps()) result.push_back(pause);
  return result;
}

// `head`, then `count` copies of `value`.
Micros then(Micros head, int count, long long value) {
  head.insert(head.end(), count, value);
  return head;
}

Record created(const std::string& sessionId, const std::string& id,
               const std::string& code = "200") {
  return {"created", code, sessionId, id, "", "", "", "", "", "", ""};
}
Record status(const std::string& sessionId) {
  return {"status", "200", sessionId, "", "", "", "", "", "", "", ""};
}

// Calls `play(n, sessionId)` on the sending thread for the n-th "create" sent (from 1).
void onCreate(std::function<void(int n, const std::string& sessionId)> play) {
  auto sent = std::make_shared<std::atomic<int>>(0);
  recorder().setHook([play, sent](const std::string& key, const Record& values) {
    if (key == zvr_test::kCommandKey && values[0] == "create") play(++*sent, values[2]);
  });
}

std::vector<std::string> sessionIdsSent() {
  std::vector<std::string> result;
  for (const Record& command : recorder().commands()) result.push_back(command[2]);
  return result;
}

std::string restartLine(const std::string& sessionId) {
  return "Wait response timeout for id:" + sessionId + ", restart zvr service.\n";
}
std::string totalTimeoutLine(const std::string& sessionId) {
  return "Wait response total timeout for id:" + sessionId + ", just return.\n";
}
const char kServiceNotWork[] = "service not work,  restart zvr service.\n";
const char kAllocationFailure[] = "Failed to allocate shared memory\n\n";

// Every test starts on a clock at zero, with nothing recorded.
class TimeLimitsTest : public zvr_test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(fakeClock().now(), 0ns);
    fakeClock().clearRecords();
  }
  void TearDown() override {
    recorder().setHook(nullptr);
    fakeClock().setSleepHook(nullptr);
  }
};

// --- Asynchronous creation without an id ---------------------------------------------------------

// Attempts begin at 0, 0.2 and 0.4 s; the third, more than 0.2 s after the start, restarts the
// service, waits 500 ms and then its 200 ms; the attempts at 1.1, 1.3, ... 2.3 s each wait
// 200 ms; the one at 2.5 s, more than 2.0 s after the restart at 0.4 s, gives up.
TEST_F(TimeLimitsTest, SilentServiceCreationRestartsAfter200msWaits500msAndGivesUp2sLater) {
  auto object = manager_->createNewZVRMediaProxy();

  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(waitsAsked(), then({200000, 200000, 500000}, 8, 200000));
  EXPECT_THAT(waitsWoken(), Each(false));
  EXPECT_EQ(nowMicros(), micros(2500ms));
  EXPECT_EQ(fakeClock().logNowReadings(),
            (std::vector<double>{0, 0, 0.2, 0.4, 0.4, 1.1, 1.3, 1.5, 1.7, 1.9, 2.1, 2.3, 2.5}));
  EXPECT_TRUE(fakeClock().sleeps().empty());

  const auto sent = sessionIdsSent();
  ASSERT_EQ(sent.size(), 11u);
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
  EXPECT_EQ(log().messages(kError),
            (std::vector<std::string>{restartLine(sent[2]), totalTimeoutLine(sent[10])}));
}

TEST_F(TimeLimitsTest, AnswerToAFirstAttemptSentExactly200msAfterTheStartNeedsNoRestart) {
  onCreate([](int n, const std::string& sessionId) {
    if (n != 1) return;
    fakeClock().advance(200ms);
    recorder().deliver(created(sessionId, "obj-1"));
  });

  auto object = manager_->createNewZVRMediaProxy();

  EXPECT_EQ(object->id(), "obj-1");
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
  EXPECT_EQ(waitsAsked(), Micros({200000}));
  EXPECT_EQ(waitsWoken(), std::vector<bool>({true}));
  EXPECT_TRUE(log().messages(kError).empty());
}

// The restart comes in the first attempt; its attempts then begin at 0.9, 1.1, ... 2.3 s after
// the restart's 0.200001 s, and the one 2.1 s after the restart gives up.
TEST_F(TimeLimitsTest, FirstAttemptSentJustOver200msAfterTheStartRestartsTheService) {
  onCreate([](int n, const std::string&) {
    if (n == 1) fakeClock().advance(200001us);
  });

  auto object = manager_->createNewZVRMediaProxy();

  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(waitsAsked(), then({500000}, 8, 200000));
  EXPECT_EQ(nowMicros(), micros(2300001us));
  const auto sent = sessionIdsSent();
  ASSERT_EQ(sent.size(), 9u);
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
  EXPECT_EQ(log().messages(kError),
            (std::vector<std::string>{restartLine(sent[0]), totalTimeoutLine(sent[8])}));
}

// The restart at 0.25 s; the second attempt is sent at 2.25 s, exactly 2.0 s later, and still
// waits; the third, at 2.45 s, gives up.
TEST_F(TimeLimitsTest, AttemptsGoOnUntilMoreThan2sHavePassedSinceTheRestart) {
  onCreate([](int n, const std::string&) {
    if (n == 1) fakeClock().advance(250ms);
    if (n == 2) fakeClock().advance(1300ms);
  });

  auto object = manager_->createNewZVRMediaProxy();

  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(waitsAsked(), Micros({500000, 200000, 200000}));
  const auto sent = sessionIdsSent();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(log().messages(kError),
            (std::vector<std::string>{restartLine(sent[0]), totalTimeoutLine(sent[2])}));
}

TEST_F(TimeLimitsTest, AnswerSeenJustBefore200msIntoTheAttemptsWaitIsTaken) {
  onCreate([](int n, const std::string& sessionId) {
    if (n == 1) recorder().deliver(created(sessionId, "obj-1"));
  });
  fakeClock().setWakeLatency(200ms - 1ns);

  auto object = manager_->createNewZVRMediaProxy();

  EXPECT_EQ(object->id(), "obj-1");
  EXPECT_EQ(waitsWoken(), std::vector<bool>({true}));
  EXPECT_EQ(recorder().commands().size(), 1u);
}

TEST_F(TimeLimitsTest, AnswerSeen200msIntoTheAttemptsWaitIsTooLate) {
  onCreate([](int n, const std::string& sessionId) {
    if (n == 1) recorder().deliver(created(sessionId, "obj-1"));
  });
  fakeClock().setWakeLatency(200ms);

  auto object = manager_->createNewZVRMediaProxy();

  // The id the late answer listed is forgotten at the restart.
  EXPECT_EQ(object->id(), "");
  ASSERT_FALSE(fakeClock().waits().empty());
  EXPECT_TRUE(fakeClock().waits()[0].woken);
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
}

// --- The response ids ----------------------------------------------------------------------------

// The first creation leaves obj-1 listed. In the second, a "status" event wakes the first attempt
// after the restart; the list, emptied by the restart, gives no id.
TEST_F(TimeLimitsTest, RestartOfAnAsynchronousCreationForgetsTheIdsListedBefore) {
  onCreate([](int n, const std::string& sessionId) {
    if (n == 1) recorder().deliver(created(sessionId, "obj-1"));
    if (n == 5) recorder().deliver(status(sessionId));
  });
  ASSERT_EQ(manager_->createNewZVRMediaProxy()->id(), "obj-1");
  fakeClock().clearRecords();

  auto object = manager_->createNewZVRMediaProxy();

  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(waitsWoken(), (std::vector<bool>{false, false, false, false, true, false, false, false,
                                             false, false, false, false}));
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
}

// In sync mode each attempt's synchronous wait finds its "created" answer and lists the id
// before the attempt's condition wait begins, so no attempt is woken and the ids pile up until
// the total timeout empties the list. A synchronous creation whose answers fail then finds none.
TEST_F(TimeLimitsTest, TotalTimeoutOfAnAsynchronousCreationForgetsTheIdsListedDuringIt) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  manager_->createNewZVRMediaProxySync("x");

  auto timedOut = manager_->createNewZVRMediaProxy();
  EXPECT_EQ(timedOut->id(), "");
  EXPECT_EQ(waitsAsked(), then({200000, 200000, 500000}, 8, 200000));
  EXPECT_THAT(waitsWoken(), Each(false));
  EXPECT_EQ(log().count(totalTimeoutLine(sessionIdsSent().back()), kError), 1);

  service.setResultCode("create", "500");
  EXPECT_EQ(manager_->createNewZVRMediaProxySync()->id(), "");
}

TEST_F(TimeLimitsTest, ServiceNotWorkingInASyncCreationForgetsTheIdsListedBefore) {
  auto listening = std::make_unique<ServiceDouble>(nullptr, ServiceDouble::Delivery::kListener);
  ASSERT_EQ(manager_->createNewZVRMediaProxy()->id(), "obj-1");
  listening.reset();

  // No segment: the service brings it up during the pause after the restart, and answers every
  // "create" with a failure.
  std::unique_ptr<ShmWriter> writer;
  std::unique_ptr<ServiceDouble> service;
  fakeClock().setSleepHook([&](int n) {
    if (n != 1) return;
    writer.reset(new ShmWriter);
    service.reset(new ServiceDouble(writer.get(), ServiceDouble::Delivery::kSharedMemory));
    service->setResultCode("create", "500");
  });

  auto object = manager_->createNewZVRMediaProxySync();

  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(log().count(kServiceNotWork, kError), 1);
  EXPECT_EQ(pauses(), Micros({800000}));
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
}

TEST_F(TimeLimitsTest, FailedFirstCreateOfASyncCreationForgetsTheIdsListedBefore) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kListener);
  ASSERT_EQ(manager_->createNewZVRMediaProxy()->id(), "obj-1");

  // The first "create" goes unanswered; during the pause after the restart the service comes
  // back and answers every later one with a failure.
  service.setDelivery(ServiceDouble::Delivery::kSharedMemory);
  service.setAllSilent(true);
  fakeClock().setSleepHook([&](int n) {
    if (n != 6) return;
    service.setAllSilent(false);
    service.setResultCode("create", "500");
  });

  auto object = manager_->createNewZVRMediaProxySync();

  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(pauses(), then(then({}, 5, 50000), 1, 800000));
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
  EXPECT_EQ(log().count("Task timeout: 250/250\n", kError), 1);
}

// The first creation leaves obj-1 listed; every answer of the second fails.
TEST_F(TimeLimitsTest, FailedCreatedAnswerWhileAnIdIsListedDoesNotWakeTheCreation) {
  onCreate([](int n, const std::string& sessionId) {
    recorder().deliver(created(sessionId, "obj-" + std::to_string(n), n == 1 ? "200" : "500"));
  });
  ASSERT_EQ(manager_->createNewZVRMediaProxy()->id(), "obj-1");
  fakeClock().clearRecords();
  log().clear();

  auto object = manager_->createNewZVRMediaProxy();

  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(waitsAsked(), then({200000, 200000, 500000}, 8, 200000));
  EXPECT_THAT(waitsWoken(), Each(false));
  // The answer to the last attempt, which does not wait, may still be on its way.
  ASSERT_TRUE(zvr_test::eventually([] { return recorder().pendingDeliveries() == 0; }));
  int failures = 0;
  for (const std::string& sessionId : sessionIdsSent()) {
    failures += log().count("Create Failed: " + sessionId + "\n", kError);
  }
  EXPECT_EQ(failures, 11);
}

// The first creation leaves obj-1 listed; the two answers of the synchronous creation fail, and
// it returns the id still listed.
TEST_F(TimeLimitsTest, FailedCreatedAnswersWhileAnIdIsListedDoNotAddToTheList) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kListener);
  ASSERT_EQ(manager_->createNewZVRMediaProxy()->id(), "obj-1");
  service.setDelivery(ServiceDouble::Delivery::kSharedMemory);
  service.setResultCode("create", "500");

  auto object = manager_->createNewZVRMediaProxySync();

  EXPECT_EQ(object->id(), "obj-1");
  EXPECT_EQ(service.answered(), 3);
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 2);
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
}

// --- Synchronous creation without an id ----------------------------------------------------------

// Each pause, with the restarts requested and the failed checks of the segment before it.
struct Pause {
  long long micros;
  int restarts;
  int failedChecks;
  bool operator==(const Pause& o) const {
    return micros == o.micros && restarts == o.restarts && failedChecks == o.failedChecks;
  }
};

std::ostream& operator<<(std::ostream& os, const Pause& p) {
  return os << "{" << p.micros << " us, " << p.restarts << " restarts, " << p.failedChecks
            << " failed checks}";
}

TEST_F(TimeLimitsTest, SyncCreationWithoutTheSegmentPauses800msAfterRestartsAnd200msBeforeCheck) {
  std::vector<Pause> seen;
  fakeClock().setSleepHook([&seen](int n) {
    seen.push_back({static_cast<long long>(fakeClock().sleeps().at(n - 1)),
                    recorder().serviceStartRequests(), log().count(kAllocationFailure)});
  });

  auto object = manager_->createNewZVRMediaProxySync();

  EXPECT_EQ(object->id(), "");
  std::vector<Pause> expected{{800000, 1, 1}, {200000, 1, 2}};
  for (int i = 0; i < 5; ++i) expected.push_back({50000, 1, 3});
  expected.push_back({800000, 2, 3});
  for (int i = 0; i < 10; ++i) expected.push_back({50000, 2, 3});
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(nowMicros(), micros(2550ms));
  EXPECT_TRUE(fakeClock().waits().empty());
}

TEST_F(TimeLimitsTest,
       SyncCreationWhoseSegmentComesUpDuringThePauseAfterTheRestartSkipsThe200msPause) {
  std::unique_ptr<ShmWriter> writer;
  std::unique_ptr<ServiceDouble> service;
  fakeClock().setSleepHook([&](int n) {
    if (n != 1) return;
    writer.reset(new ShmWriter);
    service.reset(new ServiceDouble(writer.get(), ServiceDouble::Delivery::kSharedMemory));
  });

  auto object = manager_->createNewZVRMediaProxySync();

  EXPECT_EQ(object->id(), "obj-2");
  EXPECT_EQ(pauses(), Micros({800000}));
  EXPECT_EQ(log().count(kAllocationFailure), 1);
}

TEST_F(TimeLimitsTest, SyncCreationWhoseSegmentComesUpDuringThePauseBeforeTheThirdCheckUsesIt) {
  std::unique_ptr<ShmWriter> writer;
  std::unique_ptr<ServiceDouble> service;
  fakeClock().setSleepHook([&](int n) {
    if (n != 2) return;
    writer.reset(new ShmWriter);
    service.reset(new ServiceDouble(writer.get(), ServiceDouble::Delivery::kSharedMemory));
  });

  auto object = manager_->createNewZVRMediaProxySync();

  EXPECT_EQ(object->id(), "obj-2");
  EXPECT_EQ(pauses(), Micros({800000, 200000}));
  EXPECT_EQ(log().count(kAllocationFailure), 2);
}

TEST_F(TimeLimitsTest, SilentServiceSyncCreationPauses800msAfterTheRestartForItsFirstCreate) {
  ShmWriter writer;
  std::vector<int> restartsAtPause;
  fakeClock().setSleepHook(
      [&restartsAtPause](int) { restartsAtPause.push_back(recorder().serviceStartRequests()); });

  auto object = manager_->createNewZVRMediaProxySync();

  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(pauses(), then(then(then({}, 5, 50000), 1, 800000), 10, 50000));
  EXPECT_EQ(restartsAtPause, (std::vector<int>{0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(nowMicros(), micros(1550ms));
  EXPECT_EQ(log().count("Task timeout: 250/250\n", kError), 3);
}

// --- The synchronous wait ------------------------------------------------------------------------

TEST_F(TimeLimitsTest, SyncRequestToASilentServicePauses50msFiveTimesAndGivesUpAt250) {
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);

  EXPECT_EQ(manager_->requestRemoteObjectStopSync("obj-1"), -1);

  EXPECT_EQ(pauses(), Micros({50000, 50000, 50000, 50000, 50000}));
  EXPECT_EQ(nowMicros(), micros(250ms));
  EXPECT_EQ(log().count("Task timeout: 250/250\n", kError), 1);
}

// The answer is written into the segment during the n-th pause; the read after it finds it.
class SyncWaitAnswerTest : public TimeLimitsTest, public ::testing::WithParamInterface<int> {};

TEST_P(SyncWaitAnswerTest, AnswerWrittenDuringAPauseIsTakenUnlessItWasTheFifth) {
  const int answeredIn = GetParam();
  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  fakeClock().setSleepHook([&writer, answeredIn](int n) {
    if (n != answeredIn) return;
    const Record command = recorder().commands().at(0);
    writer.writeRecord({"stopped", "200", command[2], command[3]});
  });

  const int result = manager_->requestRemoteObjectStopSync("obj-1");

  EXPECT_EQ(pauses(), Micros(answeredIn, 50000));
  EXPECT_EQ(nowMicros(), micros(answeredIn * 50ms));
  if (answeredIn < 5) {
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log().count(" used time: " + std::to_string(answeredIn * 50) + "/250\n", kProgress),
              1);
  } else {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log().count("Task timeout: 250/250\n", kError), 1);
  }
}

INSTANTIATE_TEST_SUITE_P(EachPause, SyncWaitAnswerTest, ::testing::Range(1, 6),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return "Pause" + std::to_string(info.param);
                         });

// --- The liveness probe --------------------------------------------------------------------------

TEST_F(TimeLimitsTest, ServiceAliveWaitsOnce200msAndWithoutAnAnswerIsNotAlive) {
  EXPECT_FALSE(manager_->checkZVRServiceAlive());
  EXPECT_EQ(waitsAsked(), Micros({200000}));
  EXPECT_EQ(waitsWoken(), std::vector<bool>({false}));
  EXPECT_EQ(nowMicros(), micros(200ms));
}

TEST_F(TimeLimitsTest, ServiceAliveWokenJustBefore200msIsAlive) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  fakeClock().setWakeLatency(200ms - 1ns);
  EXPECT_TRUE(manager_->checkZVRServiceAlive());
  EXPECT_EQ(waitsAsked(), Micros({200000}));
  EXPECT_EQ(waitsWoken(), std::vector<bool>({true}));
}

TEST_F(TimeLimitsTest, ServiceAliveWokenAt200msIsNotAlive) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  fakeClock().setWakeLatency(200ms);
  EXPECT_FALSE(manager_->checkZVRServiceAlive());
  EXPECT_EQ(waitsAsked(), Micros({200000}));
  EXPECT_EQ(waitsWoken(), std::vector<bool>({true}));
  EXPECT_EQ(log().count("wait  timeout.\n", kProgress), 1);
}

}  // namespace
