// Proxy creation: the four creation operations of the manager, the two "create" requests, the
// retry and restart policy of the no-id creations, sync mode, and the two places where a
// synchronous wait dispatches its answer on a thread that already holds the manager mutex.
//
// uuid_generate is defined below, so every session id drawn in this executable is known: the
// n-th one is "ses-ABABABAB-ABAB-ABAB-" followed by n as 16 hexadecimal digits.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <uuid/uuid.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <set>
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

std::atomic<unsigned long long> gUuidsDrawn{0};

}  // namespace

// Bytes 0..7 are 0xAB, bytes 8..15 the number of this draw, big-endian.
extern "C" void uuid_generate(uuid_t out) {
  const unsigned long long n = ++gUuidsDrawn;
  for (int i = 0; i < 8; ++i) out[i] = 0xAB;
  for (int i = 0; i < 8; ++i) out[8 + i] = static_cast<unsigned char>(n >> (8 * (7 - i)));
}

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

constexpr auto kWatchdog = std::chrono::seconds(15);

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

unsigned long long uuidsDrawn() { return gUuidsDrawn.load(); }

// The session id of the n-th draw.
std::string sessionIdOfDraw(unsigned long long n) {
  char text[64];
  std::snprintf(text, sizeof text, "ses-ABABABAB-ABAB-ABAB-%016llX", n);
  return text;
}

Record createCommand(const std::string& sessionId) {
  return {"create", "", sessionId, "", "", "", "", "", "", "", ""};
}

const Record kResetRecord{"unknown", "", "", "", "", "", "", "", ""};

// The number of lines with this message at this severity written by `function`.
int countIn(const std::string& function, const std::string& message, unsigned int severity) {
  int n = 0;
  for (const LogLine& line : log().lines()) {
    n += line.function == function && line.message == message && line.severity == severity;
  }
  return n;
}

std::string restartLine(const std::string& sessionId) {
  return "Wait response timeout for id:" + sessionId + ", restart zvr service.\n";
}
std::string totalTimeoutLine(const std::string& sessionId) {
  return "Wait response total timeout for id:" + sessionId + ", just return.\n";
}

// A hook that answers every "create" through the listener thread with a record built from its
// session id.
void answerCreateThroughListener(std::function<Record(const std::string& sessionId)> build) {
  recorder().setHook([build](const std::string& key, const Record& values) {
    if (key == zvr_test::kCommandKey && values[0] == "create") recorder().deliver(build(values[2]));
  });
}

class CreationTest : public zvr_test::ManagerTest {
 protected:
  void TearDown() override { recorder().setHook(nullptr); }
};

// --- Asynchronous creation without an id ---------------------------------------------------------

TEST_F(CreationTest, SilentServiceGetsOneRestartAndAnEmptyIdObjectAfterTheTotalTimeout) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setAllSilent(true);
  const unsigned long long drawnBefore = uuidsDrawn();

  const auto start = Clock::now();
  auto object = manager_->createNewZVRMediaProxy();
  const double elapsed = secondsSince(start);
  EXPECT_GT(elapsed, 2.2);
  EXPECT_LT(elapsed, 5.0);

  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(manager_->findObjectById(""), object);
  EXPECT_EQ(recorder().serviceStartRequests(), 1);

  // One attempt per "enter\n", each with one command of its own session id.
  const auto commands = recorder().commands();
  const int attempts = countIn("createNewZVRMediaProxy", "enter\n", kProgress);
  ASSERT_GE(commands.size(), 3u);
  EXPECT_EQ(static_cast<int>(commands.size()), attempts);
  EXPECT_EQ(countIn("requestCreateRemoteObject", "Create   RemoteObject.\n", kProgress), attempts);
  std::set<std::string> sessionIds;
  for (const Record& command : commands) {
    EXPECT_EQ(command, createCommand(command[2]));
    sessionIds.insert(command[2]);
  }
  EXPECT_EQ(sessionIds.size(), commands.size());

  // The first draw is never sent; every later draw is sent once, in order.
  EXPECT_EQ(uuidsDrawn() - drawnBefore, commands.size() + 1);
  EXPECT_EQ(sessionIds.count(sessionIdOfDraw(drawnBefore + 1)), 0u);
  for (std::size_t i = 0; i < commands.size(); ++i) {
    EXPECT_EQ(commands[i][2], sessionIdOfDraw(drawnBefore + 2 + i));
  }

  // The restart comes in the second attempt, the total timeout in the last.
  EXPECT_EQ(log().count(restartLine(commands[1][2]), kError), 1);
  EXPECT_EQ(log().count(totalTimeoutLine(commands.back()[2]), kError), 1);
  EXPECT_EQ(log().messages(kError),
            (std::vector<std::string>{restartLine(commands[1][2]),
                                      totalTimeoutLine(commands.back()[2])}));
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "Enter\n", kProgress), 1);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "wait done.\n", kProgress), 0);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "id :\n", kProgress), 1);
}

TEST_F(CreationTest, CreatedAnswerWithinTheFirstAttemptGivesAnObjectWithThatId) {
  answerCreateThroughListener([](const std::string& sessionId) {
    return Record{"created", "200", sessionId, "abc"};
  });

  const auto start = Clock::now();
  auto object = manager_->createNewZVRMediaProxy();
  EXPECT_LT(secondsSince(start), 2.0);

  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "abc");
  EXPECT_EQ(manager_->findObjectById("abc"), object);
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0], createCommand(commands[0][2]));
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "wait done.\n", kProgress), 1);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "id :abc\n", kProgress), 1);
  EXPECT_EQ(log().count("New Created Object: " + commands[0][2] + " - abc\n", kHeadline), 1);
  EXPECT_TRUE(log().messages(kError).empty());
}

TEST_F(CreationTest, SecondCreationWokenEarlyReturnsTheFirstIdAndTheRegistryKeepsTheFirstObject) {
  answerCreateThroughListener([](const std::string& sessionId) {
    return Record{"created", "200", sessionId, "abc"};
  });
  auto first = manager_->createNewZVRMediaProxy();
  ASSERT_EQ(first->id(), "abc");

  // The second creation is woken by a "status" event only; the list still holds abc.
  answerCreateThroughListener([](const std::string& sessionId) {
    return Record{"status", "200", sessionId, ""};
  });
  auto second = manager_->createNewZVRMediaProxy();

  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(second->id(), "abc");
  EXPECT_EQ(manager_->findObjectById("abc"), first);
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_NE(commands[0][2], commands[1][2]);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "wait done.\n", kProgress), 2);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "id :abc\n", kProgress), 2);
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
}

// --- Synchronous creation without an id ----------------------------------------------------------

TEST_F(CreationTest, SyncCreationAgainstAHealthyServiceSendsTwoCreatesWithOneSessionId) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  const unsigned long long drawnBefore = uuidsDrawn();

  auto object = manager_->createNewZVRMediaProxySync();

  const std::string sessionId = sessionIdOfDraw(drawnBefore + 1);
  EXPECT_EQ(uuidsDrawn(), drawnBefore + 1);
  const auto calls = recorder().calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].key, zvr_test::kEventKey);
  EXPECT_EQ(calls[0].values, kResetRecord);
  EXPECT_EQ(calls[1].key, zvr_test::kCommandKey);
  EXPECT_EQ(calls[1].values, createCommand(sessionId));
  EXPECT_EQ(calls[2].key, zvr_test::kEventKey);
  EXPECT_EQ(calls[2].values, kResetRecord);
  EXPECT_EQ(calls[3].key, zvr_test::kCommandKey);
  EXPECT_EQ(calls[3].values, createCommand(sessionId));

  // The double answered obj-1, then obj-2; the object takes the last listed id.
  EXPECT_EQ(log().count("New Created Object: " + sessionId + " - obj-1\n", kHeadline), 1);
  EXPECT_EQ(log().count("New Created Object: " + sessionId + " - obj-2\n", kHeadline), 1);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "obj-2");
  EXPECT_EQ(manager_->findObjectById("obj-2"), object);
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
  EXPECT_EQ(countIn("createNewZVRMediaProxySync", "Enter.\n", kProgress), 1);
  EXPECT_EQ(countIn("createNewZVRMediaProxySync", "id :obj-2\n", kProgress), 1);
  EXPECT_EQ(countIn("requestCreateRemoteObjectSync", "Create  RemoteObject sync.\n", kProgress), 2);
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 2);
  EXPECT_TRUE(log().messages(kError).empty());
}

TEST_F(CreationTest, SyncCreationWithAFailedCreatedAnswerNeitherRestartsNorDrawsAThirdId) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  service.setResultCode("create", "500");
  const unsigned long long drawnBefore = uuidsDrawn();

  auto object = manager_->createNewZVRMediaProxySync();

  const std::string sessionId = sessionIdOfDraw(drawnBefore + 1);
  EXPECT_EQ(uuidsDrawn(), drawnBefore + 1);
  EXPECT_THAT(recorder().commands(),
              ElementsAre(createCommand(sessionId), createCommand(sessionId)));
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
  EXPECT_EQ(log().messages(kError),
            (std::vector<std::string>{"Create Failed: " + sessionId + "\n",
                                      "Create Failed: " + sessionId + "\n"}));
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 2);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(manager_->findObjectById(""), object);
  EXPECT_EQ(countIn("createNewZVRMediaProxySync", "id :\n", kProgress), 1);
}

TEST_F(CreationTest, SyncCreationWithoutTheSegmentRestartsTheServiceAndPauses) {
  ShmWriter::remove();
  // The service brings the segment up when it is started, and then answers.
  std::unique_ptr<ShmWriter> writer;
  std::unique_ptr<ServiceDouble> service;
  std::thread serviceStart([&] {
    if (zvr_test::eventually([] { return recorder().serviceStartRequests() >= 1; },
                             std::chrono::milliseconds(10000))) {
      writer.reset(new ShmWriter);
      service.reset(new ServiceDouble(writer.get(), ServiceDouble::Delivery::kSharedMemory));
    }
  });
  const unsigned long long drawnBefore = uuidsDrawn();

  const auto start = Clock::now();
  auto object = manager_->createNewZVRMediaProxySync();
  const double elapsed = secondsSince(start);
  serviceStart.join();

  EXPECT_GT(elapsed, 0.7);
  EXPECT_LT(elapsed, 5.0);
  EXPECT_EQ(log().count("service not work,  restart zvr service.\n", kError), 1);
  EXPECT_EQ(log().count("Failed to allocate shared memory\n\n", kProgress), 1);
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
  const std::string sessionId = sessionIdOfDraw(drawnBefore + 1);
  EXPECT_THAT(recorder().commands(),
              ElementsAre(createCommand(sessionId), createCommand(sessionId)));
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "obj-2");
  EXPECT_EQ(manager_->findObjectById("obj-2"), object);

  service.reset();
  writer.reset();
}

TEST_F(CreationTest, SyncCreationAgainstASilentServiceRestartsOnceAndSendsAThirdCreate) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  service.setAllSilent(true);
  const unsigned long long drawnBefore = uuidsDrawn();

  const auto start = Clock::now();
  auto object = manager_->createNewZVRMediaProxySync();
  const double elapsed = secondsSince(start);

  // Three waits of 250 ms and one pause of 800 ms.
  EXPECT_GT(elapsed, 1.4);
  EXPECT_LT(elapsed, 5.0);
  const std::string first = sessionIdOfDraw(drawnBefore + 1);
  const std::string third = sessionIdOfDraw(drawnBefore + 2);
  EXPECT_EQ(uuidsDrawn(), drawnBefore + 2);
  EXPECT_THAT(recorder().commands(),
              ElementsAre(createCommand(first), createCommand(first), createCommand(third)));
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
  EXPECT_EQ(log().count(restartLine(first), kError), 1);
  EXPECT_EQ(log().count("Task timeout: 250/250\n", kError), 3);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(manager_->findObjectById(""), object);
}

// --- Sync mode ----------------------------------------------------------------------------------

TEST_F(CreationTest, AfterASyncCreationWithIdTheAsynchronousCreateRequestWaits) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  service.setAllSilent(true);

  auto object = manager_->createNewZVRMediaProxySync("x");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "x");
  EXPECT_EQ(manager_->findObjectById("x"), object);
  EXPECT_EQ(countIn("createNewZVRMediaProxySync", "Enter, id:x\n", kProgress), 1);
  EXPECT_TRUE(recorder().calls().empty());

  log().clear();
  const auto start = Clock::now();
  manager_->requestCreateRemoteObject("ses-manual");
  const double elapsed = secondsSince(start);
  EXPECT_GT(elapsed, 0.2);
  EXPECT_LT(elapsed, 2.0);

  EXPECT_EQ(log().count("Create  RemoteObject sync.\n", kProgress), 1);
  EXPECT_EQ(log().count("Create   RemoteObject.\n"), 0);
  EXPECT_EQ(log().count("enter  id:ses-manual, name:created\n", kProgress), 1);
  EXPECT_EQ(log().count("Task timeout: 250/250\n", kError), 1);
  const auto calls = recorder().calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].key, zvr_test::kEventKey);
  EXPECT_EQ(calls[0].values, kResetRecord);
  EXPECT_EQ(calls[1].key, zvr_test::kCommandKey);
  EXPECT_EQ(calls[1].values, createCommand("ses-manual"));
}

TEST_F(CreationTest, AfterASyncCreationWithoutIdTheAsynchronousCreateRequestWaits) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  manager_->createNewZVRMediaProxySync();
  service.setAllSilent(true);

  log().clear();
  recorder().clearCalls();
  const auto start = Clock::now();
  manager_->requestCreateRemoteObject("ses-manual");
  const double elapsed = secondsSince(start);
  EXPECT_GT(elapsed, 0.2);
  EXPECT_LT(elapsed, 2.0);
  EXPECT_EQ(log().count("Create  RemoteObject sync.\n", kProgress), 1);
  EXPECT_EQ(log().count("Create   RemoteObject.\n"), 0);
  EXPECT_EQ(log().count("Task timeout: 250/250\n", kError), 1);
  EXPECT_THAT(recorder().commands(), ElementsAre(createCommand("ses-manual")));
}

TEST_F(CreationTest, AsynchronousCreateRequestSendsAndReturnsOutsideSyncMode) {
  manager_->requestCreateRemoteObject("ses-manual");
  EXPECT_EQ(log().messages(), std::vector<std::string>{"Create   RemoteObject.\n"});
  EXPECT_EQ(log().count("Create   RemoteObject.\n", kProgress), 1);
  const auto calls = recorder().calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].key, zvr_test::kCommandKey);
  EXPECT_EQ(calls[0].values, createCommand("ses-manual"));
}

// --- Creation with a known id
// ---------------------------------------------------------------------

TEST_F(CreationTest, CreationWithTheEmptyIdRegistersItAndSendsNothing) {
  auto object = manager_->createNewZVRMediaProxy("");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(manager_->findObjectById(""), object);
  EXPECT_TRUE(recorder().calls().empty());
  // Only the new object's own construction line.
  EXPECT_EQ(log().messages(), std::vector<std::string>{"new ProxyObject id:\n"});
}

TEST_F(CreationTest, CreatingTheSameIdTwiceRegistersTheNewerAndKeepsTheOlderHandleValid) {
  auto older = manager_->createNewZVRMediaProxy("abc");
  auto newer = manager_->createNewZVRMediaProxy("abc");
  ASSERT_NE(older, nullptr);
  ASSERT_NE(newer, nullptr);
  EXPECT_NE(older, newer);
  EXPECT_EQ(manager_->findObjectById("abc"), newer);
  EXPECT_EQ(older->id(), "abc");
  EXPECT_EQ(older.use_count(), 1);  // the registry let it go
  EXPECT_EQ(log().messages(), (std::vector<std::string>{"new ProxyObject id:abc\n",
                                                        "find in cache and remove proxy, id:abc\n",
                                                        "new ProxyObject id:abc\n"}));
  EXPECT_TRUE(recorder().calls().empty());
}

// --- Without model access ------------------------------------------------------------------------

TEST(CreationWithoutAccessTest, SyncCreateRequestReturnsMinusOneWithoutSending) {
  recorder().setThrowFromConstructor(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  log().clear();
  const auto start = Clock::now();
  EXPECT_EQ(manager->requestCreateRemoteObjectSync("ses-x"), -1);
  EXPECT_LT(secondsSince(start), 0.2);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"No Access\n"});
  EXPECT_EQ(log().count("No Access\n", kError), 1);
  EXPECT_TRUE(recorder().calls().empty());
}

TEST(CreationWithoutAccessTest, CreateRequestLogsNoAccessAndSendsNothing) {
  recorder().setThrowFromConstructor(true);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  log().clear();
  manager->requestCreateRemoteObject("ses-x");
  EXPECT_EQ(log().messages(), std::vector<std::string>{"No Access\n"});
  EXPECT_EQ(log().count("No Access\n", kError), 1);
  EXPECT_TRUE(recorder().calls().empty());
}

// --- Dispatch on a thread that holds the manager mutex
// ---------------------------------------------

// In sync mode each attempt's send waits synchronously and dispatches the "created" answer on the
// creating thread, before the attempt's 200 ms wait begins: that wait sees no notification, so
// the attempts go on to the total timeout.
TEST_F(CreationTest, SyncModeAsyncCreationWithSharedMemoryAnswersDoesNotDeadlockAndTimesOut) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  manager_->createNewZVRMediaProxySync("x");
  log().clear();
  recorder().clearCalls();

  const auto start = Clock::now();
  auto object = zvr_test::withWatchdog("the creation", kWatchdog,
                                       [this] { return manager_->createNewZVRMediaProxy(); });
  const double elapsed = secondsSince(start);
  EXPECT_GT(elapsed, 2.2);
  EXPECT_LT(elapsed, 5.0);

  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(manager_->findObjectById(""), object);
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
  const auto commands = recorder().commands();
  const int attempts = countIn("createNewZVRMediaProxy", "enter\n", kProgress);
  ASSERT_GE(commands.size(), 3u);
  EXPECT_EQ(static_cast<int>(commands.size()), attempts);
  // Every attempt went through the synchronous request and found its answer at once.
  EXPECT_EQ(countIn("requestCreateRemoteObjectSync", "Create  RemoteObject sync.\n", kProgress),
            attempts);
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), attempts);
  EXPECT_EQ(log().messages(kHeadline).size(), commands.size());
  EXPECT_EQ(log().count(restartLine(commands[1][2]), kError), 1);
  EXPECT_EQ(log().count(totalTimeoutLine(commands.back()[2]), kError), 1);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "wait done.\n", kProgress), 0);

  // The total timeout emptied the list that the answers had filled: a synchronous creation whose
  // answers all fail now finds no id at all.
  service.setResultCode("create", "500");
  auto after = manager_->createNewZVRMediaProxySync();
  EXPECT_EQ(after->id(), "");
}

// With the listener as well, the listener's copy of the answer waits for the manager mutex until
// the creator waits, and then wakes it.
TEST_F(CreationTest, SyncModeAsyncCreationWithSharedMemoryAndListenerDoesNotDeadlockAndSucceeds) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kBoth);
  manager_->createNewZVRMediaProxySync("x");
  log().clear();
  recorder().clearCalls();

  const auto start = Clock::now();
  auto object = zvr_test::withWatchdog("the creation", kWatchdog,
                                       [this] { return manager_->createNewZVRMediaProxy(); });
  EXPECT_LT(secondsSince(start), 2.0);
  ASSERT_TRUE(recorder().waitDelivered(1, std::chrono::milliseconds(5000)));

  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "obj-1");
  EXPECT_EQ(manager_->findObjectById("obj-1"), object);
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0], createCommand(commands[0][2]));
  EXPECT_EQ(recorder().serviceStartRequests(), 0);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "wait done.\n", kProgress), 1);
  EXPECT_EQ(countIn("createNewZVRMediaProxy", "id :obj-1\n", kProgress), 1);
  // Handled twice: by the synchronous wait and by the listener.
  EXPECT_EQ(log().count("New Created Object: " + commands[0][2] + " - obj-1\n", kHeadline), 2);
  EXPECT_TRUE(log().messages(kError).empty());
}

TEST_F(CreationTest, SyncModeServiceAliveWithSharedMemoryAnswerDoesNotDeadlockAndTimesOut) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  manager_->createNewZVRMediaProxySync("x");
  log().clear();
  recorder().clearCalls();

  const auto start = Clock::now();
  const bool alive = zvr_test::withWatchdog("the liveness probe", kWatchdog,
                                            [this] { return manager_->checkZVRServiceAlive(); });
  const double elapsed = secondsSince(start);
  EXPECT_FALSE(alive);
  EXPECT_GT(elapsed, 0.15);
  EXPECT_LT(elapsed, 2.0);

  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0], Record({"inspect", "", commands[0][2], "", "", "", "", "", "", "", ""}));
  EXPECT_EQ(log().count(" used time: 0/250\n", kProgress), 1);
  EXPECT_EQ(log().count("zvr service alive: " + commands[0][2] + " - \n", kProgress), 1);
  EXPECT_EQ(countIn("checkZVRServiceAlive", "wait  timeout.\n", kProgress), 1);
  EXPECT_EQ(countIn("checkZVRServiceAlive", "wait done.\n", kProgress), 0);
}

TEST_F(CreationTest, SyncModeServiceAliveWithSharedMemoryAndListenerDoesNotDeadlockAndIsAlive) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kBoth);
  manager_->createNewZVRMediaProxySync("x");
  log().clear();
  recorder().clearCalls();

  const auto start = Clock::now();
  const bool alive = zvr_test::withWatchdog("the liveness probe", kWatchdog,
                                            [this] { return manager_->checkZVRServiceAlive(); });
  EXPECT_TRUE(alive);
  EXPECT_LT(secondsSince(start), 2.0);
  ASSERT_TRUE(recorder().waitDelivered(1, std::chrono::milliseconds(5000)));

  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(log().count("zvr service alive: " + commands[0][2] + " - \n", kProgress), 2);
  EXPECT_EQ(countIn("checkZVRServiceAlive", "wait done.\n", kProgress), 1);
  EXPECT_EQ(countIn("checkZVRServiceAlive", "wait  timeout.\n", kProgress), 0);
}

}  // namespace
