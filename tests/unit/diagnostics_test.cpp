// The diagnostics extension against the recording double: each outcome kind reaches the
// listeners with what the library knows, each counter counts, listeners may call the library,
// and listeners come and go while outcomes flow.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capturing_log.h"
#include "outcome_recorder.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "shm_writer.h"
#include "test_support.h"
#include "zvr_diagnostics.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_diagnostics.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using velmora::getZVRProcessCounters;
using velmora::getZVRProxyCounters;
using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManager;
using velmora::ZVROutcome;
using velmora::ZVRProcessCounters;
using velmora::ZVRProxyCounters;
using zvr_test::ModelAccessRecorder;
using zvr_test::OutcomeRecorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;

using Proxy = std::shared_ptr<ZVRMediaProxyInterface>;
using Record = std::vector<std::string>;
using Counts = std::map<std::string, uint64_t>;

constexpr std::chrono::milliseconds kTimeout(5000);
const char kId[] = "abc";

ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }

class DiagnosticsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager_ = ZVRMediaProxyManager::getInstance();
    zvr_test::CapturedLog::instance().enableOnly({});
  }

  // Waits until every answer the double sent has been handled by the listener thread.
  void settle(const ServiceDouble& service) {
    ASSERT_TRUE(recorder().waitDelivered(service.answered(), kTimeout));
  }

  ZVRMediaProxyManager* manager_ = nullptr;
};

// --- Outcomes ------------------------------------------------------------------------------------

TEST_F(DiagnosticsTest, AFailedStartReachesTheListenerWithCodeAndDetail) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setResultCode("start", "404");
  service.setDetail("start", "no such file");
  OutcomeRecorder outcomes;
  Proxy proxy = manager_->createNewZVRMediaProxy(kId);

  proxy->start("file:///missing.webm", 1);
  ASSERT_TRUE(outcomes.waitCount(1, kTimeout));
  const ZVROutcome o = outcomes.outcomes()[0];
  EXPECT_EQ(o.kind, ZVROutcome::kFailedAnswer);
  EXPECT_EQ(o.name, "started");
  EXPECT_EQ(o.proxyId, kId);
  EXPECT_EQ(o.sessionId, recorder().commands()[0][2]);
  EXPECT_EQ(o.code, "404");
  EXPECT_EQ(o.detail, "no such file");
  EXPECT_EQ(o.proxy, proxy.get());
  EXPECT_NE(outcomes.all()[0].thread, std::this_thread::get_id());
  EXPECT_EQ(proxy->getState(), 1);  // nothing the library does changes

  settle(service);
  const auto counters = getZVRProxyCounters(proxy);
  ASSERT_NE(counters, nullptr);
  EXPECT_EQ(counters->commandsSent, (Counts{{"start", 1}}));
  EXPECT_EQ(counters->eventsReceived, (Counts{{"started", 1}}));
  EXPECT_EQ(counters->failures, (Counts{{"started", 1}}));
  EXPECT_EQ(counters->lastFailureName, "started");
  EXPECT_EQ(counters->lastFailureCode, "404");
  EXPECT_EQ(counters->lastFailureDetail, "no such file");
  EXPECT_DOUBLE_EQ(counters->lastFailureTime, o.time);
  EXPECT_LE(o.time, outcomes.all()[0].deliveredAt);
}

TEST_F(DiagnosticsTest, FailedStopAndSeekAnswersAreReported) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setResultCode("seek", "416");
  service.setResultCode("stop", "500");
  OutcomeRecorder outcomes;
  Proxy proxy = manager_->createNewZVRMediaProxy(kId);
  proxy->start("file:///a.webm", 1);
  proxy->seek(99, "");
  settle(service);
  proxy->stop();
  ASSERT_TRUE(outcomes.waitCount(2, kTimeout));
  const auto list = outcomes.outcomes();
  EXPECT_EQ(list[0].name, "seeked");
  EXPECT_EQ(list[0].code, "416");
  EXPECT_EQ(list[1].name, "stopped");
  EXPECT_EQ(list[1].code, "500");
  settle(service);
  const auto counters = getZVRProxyCounters(proxy);
  EXPECT_EQ(counters->commandsSent, (Counts{{"seek", 1}, {"start", 1}, {"stop", 1}}));
  EXPECT_EQ(counters->failures, (Counts{{"seeked", 1}, {"stopped", 1}}));
  EXPECT_EQ(counters->lastFailureName, "stopped");
}

TEST_F(DiagnosticsTest, AnAnswerDispatchedTwiceInSynchronousModeIsReportedOnce) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kBoth);
  service.setResultCode("start", "415");
  OutcomeRecorder outcomes;
  Proxy proxy = manager_->createNewZVRMediaProxySync(kId);

  proxy->start("file:///a.txt", 1);  // the wait dispatches the answer, the listener again
  settle(service);
  ASSERT_TRUE(outcomes.waitCount(1, kTimeout));
  EXPECT_FALSE(outcomes.waitCount(2, std::chrono::milliseconds(300)));
  const auto counters = getZVRProxyCounters(proxy);
  EXPECT_EQ(counters->eventsReceived, (Counts{{"started", 2}}));
  EXPECT_EQ(counters->failures, (Counts{{"started", 1}}));
}

TEST_F(DiagnosticsTest, AFailedCreatedAnswerIsReportedWithItsSessionId) {
  OutcomeRecorder outcomes;
  Record record{"created", "503", "ses-9", "", "", "", "", "", "busy"};
  manager_->onZVREvent(record);
  ASSERT_TRUE(outcomes.waitCount(1, kTimeout));
  const ZVROutcome o = outcomes.outcomes()[0];
  EXPECT_EQ(o.kind, ZVROutcome::kFailedAnswer);
  EXPECT_EQ(o.name, "created");
  EXPECT_EQ(o.sessionId, "ses-9");
  EXPECT_EQ(o.code, "503");
  EXPECT_EQ(o.detail, "busy");
  EXPECT_EQ(o.proxy, nullptr);
}

TEST_F(DiagnosticsTest, AFailedAnswerForAProxyThatIsNotRegisteredIsReportedWithoutAHandle) {
  OutcomeRecorder outcomes;
  Record record{"stopped", "500", "ses-7", "nobody", "", "", "", "", "gone"};
  manager_->onZVREvent(record);
  ASSERT_TRUE(outcomes.waitCount(1, kTimeout));
  const ZVROutcome o = outcomes.outcomes()[0];
  EXPECT_EQ(o.kind, ZVROutcome::kFailedAnswer);
  EXPECT_EQ(o.name, "stopped");
  EXPECT_EQ(o.proxyId, "nobody");
  EXPECT_EQ(o.sessionId, "ses-7");
  EXPECT_EQ(o.code, "500");
  EXPECT_EQ(o.detail, "gone");
  EXPECT_EQ(o.proxy, nullptr);
  EXPECT_EQ(getZVRProcessCounters()->unroutedRecords, 1u);
  // A stray record that is no failed answer is only counted.
  Record definition{"definition", "415", "ses-8", "nobody"};
  manager_->onZVREvent(definition);
  EXPECT_FALSE(outcomes.waitCount(2, std::chrono::milliseconds(200)));
  EXPECT_EQ(getZVRProcessCounters()->unroutedRecords, 2u);
}

TEST_F(DiagnosticsTest, ASynchronousWaitThatRunsOutNamesItsCommandAndProxy) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kBoth);
  service.setSilent("stop");
  OutcomeRecorder outcomes;
  Proxy proxy = manager_->createNewZVRMediaProxySync(kId);
  proxy->stop();
  ASSERT_TRUE(outcomes.waitCount(1, kTimeout));
  const ZVROutcome o = outcomes.outcomes()[0];
  EXPECT_EQ(o.kind, ZVROutcome::kWaitTimedOut);
  EXPECT_EQ(o.name, "stop");
  EXPECT_EQ(o.proxyId, kId);
  EXPECT_EQ(o.sessionId, recorder().commands().back()[2]);
  EXPECT_EQ(o.proxy, proxy.get());
  EXPECT_EQ(getZVRProxyCounters(proxy)->waitsTimedOut, 1u);
}

// The restart happens while the creation holds the manager mutex; its outcome is handed over when
// the creation's wait releases the mutex, so a listener can use the manager while the creation
// still runs.
TEST_F(DiagnosticsTest, ASilentServiceGivesOneRestartThenAnEmptyCreationInOrder) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setAllSilent(true);
  std::atomic<bool> creating{false};
  std::atomic<bool> usedWhileCreating{false};
  struct Context {
    std::atomic<bool>* creating;
    std::atomic<bool>* usedWhileCreating;
  } context{&creating, &usedWhileCreating};
  auto listener = [](const ZVROutcome& o, void* data) {
    Context* c = static_cast<Context*>(data);
    if (o.kind != ZVROutcome::kServiceRestart) return;
    ZVRMediaProxyManager::getInstance()->createNewZVRMediaProxy("from-listener");
    if (c->creating->load()) c->usedWhileCreating->store(true);
  };
  ASSERT_TRUE(velmora::addZVROutcomeListener(listener, &context));
  OutcomeRecorder outcomes;

  creating = true;
  Proxy proxy = manager_->createNewZVRMediaProxy();
  creating = false;
  EXPECT_EQ(proxy->id(), "");
  ASSERT_TRUE(outcomes.waitCount(2, kTimeout));
  const auto list = outcomes.outcomes();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].kind, ZVROutcome::kServiceRestart);
  EXPECT_EQ(list[1].kind, ZVROutcome::kCreationEmpty);
  EXPECT_EQ(list[1].name, "create");
  EXPECT_TRUE(usedWhileCreating.load());
  EXPECT_TRUE(velmora::removeZVROutcomeListener(listener, &context));

  const auto process = getZVRProcessCounters();
  EXPECT_EQ(process->creationsTried, 1u);
  EXPECT_EQ(process->creationsEmpty, 1u);
  EXPECT_EQ(process->creationsSucceeded, 0u);
  EXPECT_EQ(process->serviceRestarts, 1u);
  EXPECT_EQ(process->creationAttempts, recorder().commands().size());
}

TEST_F(DiagnosticsTest, TheSynchronousCreationReportsItsRestartsAndTimeouts) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setAllSilent(true);
  OutcomeRecorder outcomes;
  Proxy proxy = manager_->createNewZVRMediaProxySync();
  EXPECT_EQ(proxy->id(), "");
  // No segment: a restart; three "create" waits that run out, the first followed by a restart;
  // then the empty creation.
  ASSERT_TRUE(outcomes.waitCount(6, kTimeout));
  std::vector<std::pair<ZVROutcome::Kind, std::string>> seen;
  for (const ZVROutcome& o : outcomes.outcomes()) seen.push_back({o.kind, o.name});
  EXPECT_THAT(seen, ::testing::ElementsAre(std::make_pair(ZVROutcome::kServiceRestart, "restart"),
                                           std::make_pair(ZVROutcome::kWaitTimedOut, "create"),
                                           std::make_pair(ZVROutcome::kServiceRestart, "restart"),
                                           std::make_pair(ZVROutcome::kWaitTimedOut, "create"),
                                           std::make_pair(ZVROutcome::kWaitTimedOut, "create"),
                                           std::make_pair(ZVROutcome::kCreationEmpty, "create")));
}

TEST_F(DiagnosticsTest, AListenerMayCreateAndDriveProxies) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setResultCode("start", "404");
  struct Context {
    std::mutex mutex;
    Proxy created;
  } context;
  auto listener = [](const ZVROutcome& o, void* data) {
    if (o.kind != ZVROutcome::kFailedAnswer) return;
    Context* c = static_cast<Context*>(data);
    Proxy p = requestZVRMediaProxy()->createNewZVRMediaProxy();
    p->seek(1, "");
    std::lock_guard<std::mutex> lock(c->mutex);
    c->created = p;
  };
  ASSERT_TRUE(velmora::addZVROutcomeListener(listener, &context));
  Proxy proxy = manager_->createNewZVRMediaProxy(kId);
  proxy->start("file:///missing.webm", 1);
  ASSERT_TRUE(zvr_test::eventually([&] {
    std::lock_guard<std::mutex> lock(context.mutex);
    return context.created != nullptr;
  }));
  EXPECT_TRUE(velmora::removeZVROutcomeListener(listener, &context));
  EXPECT_EQ(context.created->id(), "obj-1");
  EXPECT_EQ(getZVRProcessCounters()->creationsSucceeded, 1u);
}

std::atomic<int> gRemoveSelfCalls{0};
void removeSelf(const ZVROutcome&, void*) {
  ++gRemoveSelfCalls;
  EXPECT_TRUE(velmora::removeZVROutcomeListener(&removeSelf, nullptr));
}

TEST_F(DiagnosticsTest, AListenerMayRemoveItself) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setResultCode("start", "404");
  ASSERT_TRUE(velmora::addZVROutcomeListener(&removeSelf, nullptr));
  OutcomeRecorder outcomes;
  Proxy proxy = manager_->createNewZVRMediaProxy(kId);
  proxy->start("file:///a", 1);
  proxy->start("file:///b", 1);
  ASSERT_TRUE(outcomes.waitCount(2, kTimeout));
  EXPECT_EQ(gRemoveSelfCalls.load(), 1);
}

TEST_F(DiagnosticsTest, ListenersAddedAndRemovedWhileOutcomesFlowAreNeverCalledAfterRemoval) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setResultCode("seek", "500");
  struct Slot {
    std::atomic<bool> registered{false};
    std::atomic<int> callsWhileRemoved{0};
    std::atomic<int> calls{0};
  };
  static Slot slots[4];
  auto listener = [](const ZVROutcome&, void* data) {
    Slot* slot = static_cast<Slot*>(data);
    if (!slot->registered.load()) ++slot->callsWhileRemoved;
    ++slot->calls;
  };
  Proxy proxy = manager_->createNewZVRMediaProxy(kId);
  proxy->start("file:///a", 1);
  std::atomic<bool> stop{false};
  std::thread producer([&] {
    while (!stop) {
      proxy->seek(1, "");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::vector<std::thread> churn;
  for (Slot& slot : slots) {
    churn.emplace_back([&slot, &listener] {
      for (int i = 0; i < 200; ++i) {
        slot.registered = true;  // before it can be called
        ASSERT_TRUE(velmora::addZVROutcomeListener(listener, &slot));
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        ASSERT_TRUE(velmora::removeZVROutcomeListener(listener, &slot));
        slot.registered = false;  // after it can no longer be called
      }
    });
  }
  for (std::thread& t : churn) t.join();
  stop = true;
  producer.join();
  settle(service);
  int calls = 0;
  for (Slot& slot : slots) {
    EXPECT_EQ(slot.callsWhileRemoved.load(), 0);
    calls += slot.calls.load();
  }
  EXPECT_GT(calls, 0);
  EXPECT_GE(getZVRProcessCounters()->listenerDeliveries, static_cast<uint64_t>(calls));
}

// A listener that calls into a proxy runs while that proxy's "url" notification removes it: the
// removal must not wait for the listener, which waits for the mutex the notification holds.
struct RemovalFromNotification {
  std::atomic<bool> listenerEntered{false};
  std::atomic<bool> notificationEntered{false};
  std::atomic<bool> removed{false};
  std::atomic<bool> listenerDone{false};
  Proxy proxy;
};
RemovalFromNotification* gRemoval = nullptr;

void listenerCallingTheProxy(const ZVROutcome&, void*) {
  gRemoval->listenerEntered = true;
  zvr_test::eventually([] { return gRemoval->notificationEntered.load(); });
  gRemoval->proxy->getState();  // waits while the notification holds the proxy's mutex
  gRemoval->listenerDone = true;
}

void notificationRemovingTheListener(std::string, std::string what, std::string) {
  if (what != "url") return;
  gRemoval->notificationEntered = true;
  zvr_test::eventually([] { return gRemoval->listenerEntered.load(); });
  gRemoval->removed = velmora::removeZVROutcomeListener(&listenerCallingTheProxy, nullptr);
}

TEST_F(DiagnosticsTest, RemovingAListenerFromInsideTheUrlNotificationDoesNotWaitForIt) {
  RemovalFromNotification removal;
  gRemoval = &removal;
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  removal.proxy = manager_->createNewZVRMediaProxy(kId);
  manager_->setZVRCallback(&notificationRemovingTheListener);
  ASSERT_TRUE(velmora::addZVROutcomeListener(&listenerCallingTheProxy, nullptr));
  Record failed{"created", "503", "ses-1", "", "", "", "", "", "busy"};
  manager_->onZVREvent(failed);  // the listener starts and waits for the notification
  ASSERT_TRUE(zvr_test::eventually([&] { return removal.listenerEntered.load(); }));

  zvr_test::withWatchdog("the url notification", std::chrono::seconds(15), [&] {
    removal.proxy->start("file:///a.webm", 1);
    settle(service);
    return 0;
  });
  EXPECT_TRUE(removal.removed.load());
  EXPECT_EQ(removal.proxy->getState(), 2);
  manager_->setZVRCallback(nullptr);
  // The removal did not wait for the listener's call; it ends once the notification is over.
  EXPECT_TRUE(zvr_test::eventually([&] { return removal.listenerDone.load(); }));
}

// A copy is taken while commands and their answers flow: it never shows an answer without the
// command it answers.
TEST_F(DiagnosticsTest, ACopyNeverShowsAnAnswerWithoutItsCommand) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  Proxy proxy = manager_->createNewZVRMediaProxy(kId);
  std::atomic<bool> done{false};
  std::thread commands([&] {
    for (int i = 0; i < 3000; ++i) proxy->stop();
    done = true;
  });
  int copies = 0;
  while (!done) {
    const auto c = getZVRProxyCounters(proxy);
    const auto sent = c->commandsSent.find("stop");
    const auto answered = c->eventsReceived.find("stopped");
    const uint64_t stops = sent != c->commandsSent.end() ? sent->second : 0;
    const uint64_t answers = answered != c->eventsReceived.end() ? answered->second : 0;
    ASSERT_LE(answers, stops) << "after " << copies << " copies";
    ++copies;
    // Lets the commands run where threads share one core at a time (Valgrind serialises them).
    std::this_thread::yield();
  }
  commands.join();
  settle(service);
  EXPECT_EQ(getZVRProxyCounters(proxy)->eventsReceived, (Counts{{"stopped", 3000}}));
}

TEST_F(DiagnosticsTest, AListenerIsAddedOnce) {
  auto listener = [](const ZVROutcome&, void*) {};
  int data = 0;
  EXPECT_FALSE(velmora::addZVROutcomeListener(nullptr, &data));
  EXPECT_TRUE(velmora::addZVROutcomeListener(listener, &data));
  EXPECT_FALSE(velmora::addZVROutcomeListener(listener, &data));
  EXPECT_TRUE(velmora::addZVROutcomeListener(listener, nullptr));
  EXPECT_TRUE(velmora::removeZVROutcomeListener(listener, &data));
  EXPECT_FALSE(velmora::removeZVROutcomeListener(listener, &data));
  EXPECT_TRUE(velmora::removeZVROutcomeListener(listener, nullptr));
}

// --- Counters ------------------------------------------------------------------------------------

TEST_F(DiagnosticsTest, ProcessCountersCountCreationsMappingsParseFailuresAndStrayRecords) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  Proxy proxy = manager_->createNewZVRMediaProxy();
  EXPECT_EQ(proxy->id(), "obj-1");

  ShmWriter writer;
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  ASSERT_EQ(manager_->checkZVREventMemory(), 0);
  writer.writeText("{not json");
  manager_->readZVREventMemory();
  Record stray{"started", "200", "ses-1", "nobody"};
  manager_->onZVREvent(stray);

  const auto c = getZVRProcessCounters();
  EXPECT_TRUE(c->counting);
  EXPECT_EQ(c->creationsTried, 1u);
  EXPECT_EQ(c->creationsSucceeded, 1u);
  EXPECT_EQ(c->creationsEmpty, 0u);
  EXPECT_EQ(c->creationAttempts, 1u);
  EXPECT_EQ(c->serviceRestarts, 0u);
  EXPECT_EQ(c->segmentMappings, 2u);
  EXPECT_EQ(c->segmentParseFailures, 1u);
  EXPECT_EQ(c->unroutedRecords, 1u);
  EXPECT_EQ(c->listenerDeliveries, 0u);
}

TEST_F(DiagnosticsTest, ProxiesWithTheSameIdKeepCountersOfTheirOwn) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  Proxy first = manager_->createNewZVRMediaProxy(kId);
  first->start("file:///a", 1);
  settle(service);
  Proxy second = manager_->createNewZVRMediaProxy(kId);  // replaces the registry entry
  second->stop();
  settle(service);
  EXPECT_EQ(getZVRProxyCounters(first)->commandsSent, (Counts{{"start", 1}}));
  EXPECT_EQ(getZVRProxyCounters(first)->eventsReceived, (Counts{{"started", 1}}));
  EXPECT_EQ(getZVRProxyCounters(second)->commandsSent, (Counts{{"stop", 1}}));
  EXPECT_EQ(getZVRProxyCounters(second)->eventsReceived, (Counts{{"stopped", 1}}));
}

TEST_F(DiagnosticsTest, EventsOfAnyNameAndPreloadTakeOverAreCounted) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  Proxy proxy = manager_->createNewZVRMediaProxy(kId);
  Record definition{"definition", "200", "ses-1", kId, "", "", "", "{}"};
  Record odd{"buffering", "200", "ses-1", kId};
  manager_->onZVREvent(definition);
  manager_->onZVREvent(odd);
  proxy->preload(0, "", "", "");
  settle(service);
  const auto c = getZVRProxyCounters(proxy);
  EXPECT_EQ(c->eventsReceived, (Counts{{"buffering", 1}, {"definition", 1}, {"started", 1}}));
  EXPECT_EQ(c->commandsSent, (Counts{{"preload", 1}}));
}

TEST_F(DiagnosticsTest, CountersOfObjectsTheLibraryDidNotMakeAreEmpty) {
  EXPECT_EQ(getZVRProxyCounters(nullptr), nullptr);
  Proxy own = std::make_shared<velmora::ZVRMediaProxyObject>("own");
  EXPECT_EQ(getZVRProxyCounters(own), nullptr);
}

TEST_F(DiagnosticsTest, WithCountingOffOutcomesStillFlowAndCountersStayZero) {
  velmora::diagnostics::setCounting(false);
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setResultCode("start", "404");
  OutcomeRecorder outcomes;
  Proxy proxy = manager_->createNewZVRMediaProxy();
  proxy->start("file:///missing", 1);
  ASSERT_TRUE(outcomes.waitCount(1, kTimeout));
  settle(service);
  const auto c = getZVRProxyCounters(proxy);
  EXPECT_TRUE(c->commandsSent.empty());
  EXPECT_TRUE(c->eventsReceived.empty());
  EXPECT_TRUE(c->failures.empty());
  const auto p = getZVRProcessCounters();
  EXPECT_FALSE(p->counting);
  EXPECT_EQ(p->creationsTried, 0u);
  EXPECT_EQ(p->listenerDeliveries, 0u);
}

// Without a connection the library cannot ask the platform to restart the service: the creation
// still runs its course and ends empty, and no restart is reported or counted.
TEST(DiagnosticsWithoutConnectionTest, NoRestartIsReportedWhenThereIsNoConnectionToAskThrough) {
  zvr_test::CapturedLog::instance().enableOnly({});
  recorder().setThrowFromConstructor(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  OutcomeRecorder outcomes;
  Proxy proxy = manager->createNewZVRMediaProxy();
  EXPECT_EQ(proxy->id(), "");
  ASSERT_TRUE(outcomes.waitCount(1, kTimeout));
  EXPECT_FALSE(outcomes.waitCount(2, std::chrono::milliseconds(200)));
  EXPECT_EQ(outcomes.outcomes()[0].kind, ZVROutcome::kCreationEmpty);
  EXPECT_EQ(getZVRProcessCounters()->serviceRestarts, 0u);
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
  recorder().setThrowFromConstructor(false);
}

// Run once more by CTest with ZVR_COUNTERS=0 in the environment.
TEST(DiagnosticsSwitchTest, CountingFollowsTheEnvironment) {
  const char* value = std::getenv("ZVR_COUNTERS");
  const bool expected = value == nullptr || std::string(value) != "0";
  EXPECT_EQ(getZVRProcessCounters()->counting, expected);
}

}  // namespace
