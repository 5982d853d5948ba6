// The manager's event dispatch: "created" and "status" records are the manager's own, every
// other record goes to the proxy registered under the id at position 3.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capturing_log.h"
#include "manager_test.h"
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
using zvr_test::CallbackRecorder;
using zvr_test::eventually;
using zvr_test::log;
using zvr_test::Notification;
using zvr_test::recorder;

using Record = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTimeout(5000);

// The number of command messages sent so far whose command word is `word`.
std::size_t commandsWithWord(const std::string& word) {
  std::size_t n = 0;
  for (const Record& command : recorder().commands()) n += command.at(0) == word ? 1 : 0;
  return n;
}

// One liveness probe on a thread of its own: its result and how long it took.
class Probe {
 public:
  explicit Probe(ZVRMediaProxyManager* manager)
      : started_(Clock::now()), thread_([this, manager] {
          alive_ = manager->checkZVRServiceAlive();
          elapsed_ = Clock::now() - started_;
        }) {}
  ~Probe() {
    if (thread_.joinable()) thread_.join();
  }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;

  bool join() {
    thread_.join();
    return alive_;
  }
  Clock::duration elapsed() const { return elapsed_; }

 private:
  const Clock::time_point started_;
  bool alive_ = false;
  Clock::duration elapsed_{};
  std::thread thread_;
};

// One asynchronous creation without an id, on a thread of its own.
class Creation {
 public:
  explicit Creation(ZVRMediaProxyManager* manager)
      : future_(std::async(std::launch::async,
                           [manager] { return manager->createNewZVRMediaProxy(); })) {}
  std::shared_ptr<ZVRMediaProxyObject> result() { return future_.get(); }

 private:
  std::future<std::shared_ptr<ZVRMediaProxyObject>> future_;
};

// What the application callback saw about the manager's locks while a proxy's handler ran.
std::atomic<int> lookupsOnCallbackThread{0};
std::atomic<int> lookupsOnOtherThread{0};
std::atomic<int> lookupsTimedOut{0};

// An application callback that looks its proxy up in the registry, once on its own thread and
// once on a second thread that it waits for, before recording the call. Both lookups take the
// manager mutex, so both complete only if the dispatch holds no manager lock around the handler.
void registryProbingCallback(std::string id, std::string kind, std::string value) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  if (manager->findObjectById(id) != nullptr) ++lookupsOnCallbackThread;
  auto found = std::make_shared<std::promise<bool>>();
  std::future<bool> result = found->get_future();
  std::thread other(
      [found, manager, id] { found->set_value(manager->findObjectById(id) != nullptr); });
  if (result.wait_for(std::chrono::seconds(2)) == std::future_status::ready) {
    other.join();
    if (result.get()) ++lookupsOnOtherThread;
  } else {
    other.detach();  // stuck at the manager mutex; the test reports it
    ++lookupsTimedOut;
  }
  CallbackRecorder::callback(std::move(id), std::move(kind), std::move(value));
}

class EventDispatchTest : public zvr_test::ManagerTest {
 protected:
  // Hands a record to the listener thread and waits until the manager has handled it.
  void deliverAndWait(Record record) {
    const int before = recorder().delivered();
    recorder().deliver(std::move(record));
    ASSERT_TRUE(recorder().waitDelivered(before + 1, kTimeout));
  }
};

// --- "created" ---------------------------------------------------------------------------------

TEST_F(EventDispatchTest, SuccessfulCreatedLogsNewCreatedObjectOnceAtHeadlineSeverity) {
  Record record{"created", "200", "ses-3", "abc"};
  manager_->onZVREvent(record);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"New Created Object: ses-3 - abc\n"});
  EXPECT_EQ(log().count("New Created Object: ses-3 - abc\n", kHeadline), 1);
  EXPECT_EQ(record, (Record{"created", "200", "ses-3", "abc"}));
  EXPECT_TRUE(recorder().calls().empty());
}

TEST_F(EventDispatchTest, SuccessfulCreatedHandsItsObjectIdToTheWaitingCreation) {
  Creation creation(manager_);
  ASSERT_TRUE(recorder().waitCommands(1, kTimeout));
  recorder().deliver({"created", "200", "ses-3", "abc"});
  const std::shared_ptr<ZVRMediaProxyObject> object = creation.result();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "abc");
  EXPECT_EQ(manager_->findObjectById("abc"), object);
  EXPECT_EQ(log().count("New Created Object: ses-3 - abc\n", kHeadline), 1);
  EXPECT_EQ(commandsWithWord("create"), 1u);
}

TEST_F(EventDispatchTest, SuccessfulCreatedAppendsSoTheNewestIdIsTaken) {
  Record first{"created", "200", "ses-1", "abc"};
  Record second{"created", "200", "ses-2", "def"};
  manager_->onZVREvent(first);
  manager_->onZVREvent(second);
  // A creation woken by a sign of life takes the newest response id.
  Creation creation(manager_);
  ASSERT_TRUE(recorder().waitCommands(1, kTimeout));
  recorder().deliver({"status", "200", "ses-9", ""});
  const std::shared_ptr<ZVRMediaProxyObject> object = creation.result();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "def");
  EXPECT_EQ(commandsWithWord("create"), 1u);
}

TEST_F(EventDispatchTest, SuccessfulCreatedWakesEveryWaiter) {
  Probe first(manager_);
  Probe second(manager_);
  // Each probe sends its inspect while it holds the manager mutex and then waits, so both wait
  // once both inspects are out; the listener's dispatch gets the mutex only then.
  ASSERT_TRUE(eventually([] { return commandsWithWord("inspect") == 2; }));
  recorder().deliver({"created", "200", "ses-3", "abc"});
  EXPECT_TRUE(first.join());
  EXPECT_TRUE(second.join());
  EXPECT_EQ(log().count("wait done.\n", kProgress), 2);
  EXPECT_EQ(log().count("New Created Object: ses-3 - abc\n", kHeadline), 1);
}

TEST_F(EventDispatchTest, SuccessfulCreatedDeliveredDuringAProbesWaitEndsItAsAlive) {
  Probe probe(manager_);
  ASSERT_TRUE(eventually([] { return commandsWithWord("inspect") == 1; }));
  recorder().deliver({"created", "200", "ses-3", "abc"});
  EXPECT_TRUE(probe.join());
  EXPECT_LT(probe.elapsed(), std::chrono::seconds(2));
  EXPECT_EQ(log().count("wait done.\n", kProgress), 1);
  EXPECT_EQ(log().count("wait  timeout.\n"), 0);
}

TEST_F(EventDispatchTest, FailedCreatedLogsOnlyCreateFailedAtErrorSeverity) {
  Record record{"created", "500", "ses-3", "abc"};
  manager_->onZVREvent(record);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"Create Failed: ses-3\n"});
  EXPECT_EQ(log().count("Create Failed: ses-3\n", kError), 1);
  EXPECT_EQ(record, (Record{"created", "500", "ses-3", "abc"}));
  EXPECT_TRUE(recorder().calls().empty());
}

TEST_F(EventDispatchTest, FailedCreatedLeavesTheResponseIdsUntouched) {
  Record success{"created", "200", "ses-1", "abc"};
  Record failure{"created", "500", "ses-3", "xyz"};
  manager_->onZVREvent(success);
  manager_->onZVREvent(failure);
  Creation creation(manager_);
  ASSERT_TRUE(recorder().waitCommands(1, kTimeout));
  recorder().deliver({"status", "200", "ses-9", ""});
  const std::shared_ptr<ZVRMediaProxyObject> object = creation.result();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "abc");
  EXPECT_EQ(manager_->findObjectById("xyz"), nullptr);
}

TEST_F(EventDispatchTest, FailedCreatedWakesNoWaiterAndIsNotTakenForStatus) {
  Probe probe(manager_);
  ASSERT_TRUE(eventually([] { return commandsWithWord("inspect") == 1; }));
  deliverAndWait({"created", "500", "ses-3", "abc"});
  EXPECT_FALSE(probe.join());
  EXPECT_GT(probe.elapsed(), std::chrono::milliseconds(150));
  EXPECT_LT(probe.elapsed(), std::chrono::seconds(2));
  EXPECT_EQ(log().count("Create Failed: ses-3\n", kError), 1);
  EXPECT_EQ(log().count("wait  timeout.\n", kProgress), 1);
  EXPECT_EQ(log().count("New Created Object: ses-3 - abc\n"), 0);
  EXPECT_EQ(log().count("zvr service alive: ses-3 - abc\n"), 0);
}

TEST_F(EventDispatchTest, CreatedWithOnlyTheEventNameIsAFailedCreationWithEmptySessionId) {
  Record record{"created"};
  manager_->onZVREvent(record);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"Create Failed: \n"});
  EXPECT_EQ(log().count("Create Failed: \n", kError), 1);
  EXPECT_EQ(record, Record{"created"});
}

TEST_F(EventDispatchTest, CreatedWithOnlyTheEventNameWakesNoWaiter) {
  Probe probe(manager_);
  ASSERT_TRUE(eventually([] { return commandsWithWord("inspect") == 1; }));
  deliverAndWait({"created"});
  EXPECT_FALSE(probe.join());
  EXPECT_EQ(log().count("Create Failed: \n", kError), 1);
}

TEST_F(EventDispatchTest, CreatedWithAnEmptyIdIsStillASuccessfulCreation) {
  Creation creation(manager_);
  ASSERT_TRUE(recorder().waitCommands(1, kTimeout));
  recorder().deliver({"created", "200", "ses-3"});
  const std::shared_ptr<ZVRMediaProxyObject> object = creation.result();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "");
  EXPECT_EQ(log().count("New Created Object: ses-3 - \n", kHeadline), 1);
  EXPECT_EQ(commandsWithWord("create"), 1u);
}

// --- "status" ----------------------------------------------------------------------------------

TEST_F(EventDispatchTest, StatusLogsServiceAliveAtProgressSeverity) {
  Record record{"status", "200", "x", "y"};
  manager_->onZVREvent(record);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"zvr service alive: x - y\n"});
  EXPECT_EQ(log().count("zvr service alive: x - y\n", kProgress), 1);
  EXPECT_EQ(record, (Record{"status", "200", "x", "y"}));
  EXPECT_TRUE(recorder().calls().empty());
}

TEST_F(EventDispatchTest, StatusWakesEveryWaiter) {
  Probe first(manager_);
  Probe second(manager_);
  ASSERT_TRUE(eventually([] { return commandsWithWord("inspect") == 2; }));
  recorder().deliver({"status", "200", "x", "y"});
  EXPECT_TRUE(first.join());
  EXPECT_TRUE(second.join());
  EXPECT_LT(first.elapsed(), std::chrono::seconds(2));
  EXPECT_EQ(log().count("wait done.\n", kProgress), 2);
  EXPECT_EQ(log().count("zvr service alive: x - y\n", kProgress), 1);
}

TEST_F(EventDispatchTest, StatusStoresNoResponseId) {
  Record status{"status", "200", "x", "y"};
  manager_->onZVREvent(status);
  // Had "y" been stored, the creation woken by the next sign of life would take it; instead it
  // sends another "create" and takes the id that the following "created" brings.
  Creation creation(manager_);
  ASSERT_TRUE(recorder().waitCommands(1, kTimeout));
  recorder().deliver({"status", "200", "x", "y"});
  ASSERT_TRUE(recorder().waitCommands(2, kTimeout));
  recorder().deliver({"created", "200", "ses-3", "abc"});
  const std::shared_ptr<ZVRMediaProxyObject> object = creation.result();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "abc");
  EXPECT_EQ(manager_->findObjectById("y"), nullptr);
  EXPECT_EQ(commandsWithWord("create"), 2u);
}

TEST_F(EventDispatchTest, StatusWithOnlyTheEventNameLogsEmptyTexts) {
  Record record{"status"};
  manager_->onZVREvent(record);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"zvr service alive:  - \n"});
  EXPECT_EQ(log().count("zvr service alive:  - \n", kProgress), 1);
}

// --- Names --------------------------------------------------------------------------------------

TEST_F(EventDispatchTest, EventNamesAreComparedWholeAndCaseSensitively) {
  for (const char* name : {"Created", "CREATED", "created ", "create", "createdx", "Status",
                           "status ", "statuses", "stat"}) {
    Record record{name, "200", "ses-1", "abc"};
    manager_->onZVREvent(record);
  }
  EXPECT_EQ(log().messages(kError),
            (std::vector<std::string>{"unable to find object for event: Created, 200,abc\n",
                                      "unable to find object for event: CREATED, 200,abc\n",
                                      "unable to find object for event: created , 200,abc\n",
                                      "unable to find object for event: create, 200,abc\n",
                                      "unable to find object for event: createdx, 200,abc\n",
                                      "unable to find object for event: Status, 200,abc\n",
                                      "unable to find object for event: status , 200,abc\n",
                                      "unable to find object for event: statuses, 200,abc\n",
                                      "unable to find object for event: stat, 200,abc\n"}));
  EXPECT_EQ(log().messages().size(), 9u);
}

TEST_F(EventDispatchTest, CreatedIsRecognisedBeforeStatusAndOtherNames) {
  // A "created" record that carries a registered id at position 3 is the manager's own: the
  // proxy registered under that id does not see it.
  std::shared_ptr<ZVRMediaProxyObject> proxy = manager_->createNewZVRMediaProxy("abc");
  manager_->setZVRCallback(&CallbackRecorder::callback);
  proxy->start("u", 1);
  log().clear();
  Record created{"created", "200", "ses-3", "abc", "", "", "http://127.0.0.1:1/c"};
  manager_->onZVREvent(created);
  Record status{"status", "200", "ses-4", "abc", "", "", "http://127.0.0.1:1/s"};
  manager_->onZVREvent(status);
  EXPECT_EQ(log().messages(), (std::vector<std::string>{"New Created Object: ses-3 - abc\n",
                                                        "zvr service alive: ses-4 - abc\n"}));
  EXPECT_EQ(proxy->getState(), ZVRMediaProxyObject::STATE_STARTING);
  EXPECT_EQ(proxy->localURL(), "");
  EXPECT_TRUE(CallbackRecorder::calls().empty());
}

// --- Object events ------------------------------------------------------------------------------

TEST_F(EventDispatchTest, RecordForAnUnregisteredIdLogsUnableToFindObjectAndNothingElse) {
  std::shared_ptr<ZVRMediaProxyObject> other = manager_->createNewZVRMediaProxy("other");
  manager_->setZVRCallback(&CallbackRecorder::callback);
  other->start("u", 1);
  log().clear();
  recorder().clearCalls();
  Record record{"started", "200", "ses-5", "nobody", "", "", "http://127.0.0.1:1/n"};
  manager_->onZVREvent(record);
  EXPECT_EQ(log().messages(),
            std::vector<std::string>{"unable to find object for event: started, 200,nobody\n"});
  EXPECT_EQ(log().count("unable to find object for event: started, 200,nobody\n", kError), 1);
  EXPECT_EQ(record, (Record{"started", "200", "ses-5", "nobody", "", "", "http://127.0.0.1:1/n"}));
  EXPECT_TRUE(recorder().calls().empty());
  EXPECT_TRUE(CallbackRecorder::calls().empty());
  EXPECT_EQ(other->getState(), ZVRMediaProxyObject::STATE_STARTING);
  EXPECT_EQ(other->localURL(), "");
}

TEST_F(EventDispatchTest, RecordForAnUnregisteredIdFromTheListenerIsDroppedWithOneLine) {
  deliverAndWait({"stopped", "500", "ses-5", "nobody"});
  EXPECT_EQ(log().messages(),
            std::vector<std::string>{"unable to find object for event: stopped, 500,nobody\n"});
  EXPECT_EQ(log().count("unable to find object for event: stopped, 500,nobody\n", kError), 1);
}

TEST_F(EventDispatchTest, StartedRecordFromTheListenerReachesTheRegisteredProxy) {
  std::shared_ptr<ZVRMediaProxyObject> proxy = manager_->createNewZVRMediaProxy("abc");
  manager_->setZVRCallback(&CallbackRecorder::callback);
  proxy->start("u", 1);
  ASSERT_EQ(proxy->getState(), ZVRMediaProxyObject::STATE_STARTING);
  log().clear();
  deliverAndWait({"started", "200", "ses-7", "abc", "p4", "p5", "http://127.0.0.1:8099/abc",
                  "SD,HD", "ok", "p9", "p10"});
  EXPECT_EQ(proxy->getState(), ZVRMediaProxyObject::STATE_STARTED);
  EXPECT_EQ(proxy->localURL(), "http://127.0.0.1:8099/abc");
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{"abc", "url", "http://127.0.0.1:8099/abc"}));
  EXPECT_EQ(log().count("unable to find object for event: started, 200,abc\n"), 0);
}

TEST_F(EventDispatchTest, ObjectRecordsFromTheListenerReachTheProxyWithAllPositions) {
  std::shared_ptr<ZVRMediaProxyObject> proxy = manager_->createNewZVRMediaProxy("abc");
  manager_->setZVRCallback(&CallbackRecorder::callback);
  proxy->start("u", 1);
  log().clear();
  // Position 6 of "started", position 7 of "definition" and position 8 of a failed "stopped"
  // each reach the proxy, whose reactions show them.
  deliverAndWait({"started", "200", "ses-7", "abc", "p4", "p5", "http://127.0.0.1:8099/abc", "", "",
                  "p9", "p10"});
  deliverAndWait(
      {"definition", "200", "ses-8", "abc", "p4", "p5", "", "SD,HD,UHD", "", "p9", "p10"});
  deliverAndWait({"stopped", "503", "ses-9", "abc", "p4", "p5", "", "", "busy", "p9", "p10"});
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{"abc", "url", "http://127.0.0.1:8099/abc"},
                          Notification{"abc", "definitions", "SD,HD,UHD"}));
  EXPECT_EQ(log().count("Stopped Failed:  abc, 503 ,busy\n", kError), 1);
  EXPECT_EQ(log().messages(kError), std::vector<std::string>{"Stopped Failed:  abc, 503 ,busy\n"});
}

TEST_F(EventDispatchTest, RecordGoesOnlyToTheProxyRegisteredUnderItsId) {
  std::shared_ptr<ZVRMediaProxyObject> abc = manager_->createNewZVRMediaProxy("abc");
  std::shared_ptr<ZVRMediaProxyObject> def = manager_->createNewZVRMediaProxy("def");
  manager_->setZVRCallback(&CallbackRecorder::callback);
  abc->start("u", 1);
  def->start("v", 1);
  deliverAndWait({"started", "200", "ses-7", "def", "", "", "http://127.0.0.1:8099/def"});
  EXPECT_EQ(def->getState(), ZVRMediaProxyObject::STATE_STARTED);
  EXPECT_EQ(abc->getState(), ZVRMediaProxyObject::STATE_STARTING);
  EXPECT_EQ(abc->localURL(), "");
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{"def", "url", "http://127.0.0.1:8099/def"}));
}

TEST_F(EventDispatchTest, ProxyHandlerRunsWithNoManagerLockHeld) {
  // The "definitions" notification is sent after the proxy released its own mutex, so the only
  // lock the callback could meet is one the dispatch kept. (The "url" notification runs under the
  // proxy's mutex, and a registry lookup from there would order the proxy's mutex before the
  // manager's, against the order that registration uses.)
  std::shared_ptr<ZVRMediaProxyObject> proxy = manager_->createNewZVRMediaProxy("abc");
  manager_->setZVRCallback(&registryProbingCallback);
  proxy->start("u", 1);
  recorder().deliver({"definition", "200", "ses-7", "abc", "", "", "", "SD,HD"});
  ASSERT_TRUE(CallbackRecorder::waitCalls(1, kTimeout));
  ASSERT_TRUE(recorder().waitDelivered(1, kTimeout));
  EXPECT_EQ(lookupsOnCallbackThread.load(), 1);
  EXPECT_EQ(lookupsOnOtherThread.load(), 1);
  EXPECT_EQ(lookupsTimedOut.load(), 0);
  EXPECT_THAT(CallbackRecorder::calls(), ElementsAre(Notification{"abc", "definitions", "SD,HD"}));
  EXPECT_EQ(proxy->getState(), ZVRMediaProxyObject::STATE_STARTING);
}

// --- Empty names and ids -----------------------------------------------------------------------

TEST_F(EventDispatchTest, EmptyRecordWithoutAnEmptyIdObjectLogsUnableToFindObject) {
  Record record;
  manager_->onZVREvent(record);
  EXPECT_EQ(log().messages(), std::vector<std::string>{"unable to find object for event: , ,\n"});
  EXPECT_EQ(log().count("unable to find object for event: , ,\n", kError), 1);
  EXPECT_TRUE(record.empty());
}

TEST_F(EventDispatchTest, RecordWithAnEmptyNameWithoutAnEmptyIdObjectLogsUnableToFindObject) {
  deliverAndWait({"", "", "ses-1", ""});
  EXPECT_EQ(log().messages(), std::vector<std::string>{"unable to find object for event: , ,\n"});
  EXPECT_EQ(log().count("unable to find object for event: , ,\n", kError), 1);
}

TEST_F(EventDispatchTest, EmptyRecordGoesToTheObjectRegisteredUnderTheEmptyId) {
  std::shared_ptr<ZVRMediaProxyObject> empty = manager_->createNewZVRMediaProxy("");
  log().clear();
  deliverAndWait({});
  // The object ignores a record without a name; no line says that nobody took it.
  EXPECT_EQ(log().count("unable to find object for event: , ,\n"), 0);
  EXPECT_TRUE(log().messages().empty());
  EXPECT_EQ(empty->getState(), ZVRMediaProxyObject::STATE_IDLE);
}

TEST_F(EventDispatchTest, RecordWithAnEmptyNameGoesToTheObjectRegisteredUnderTheEmptyId) {
  std::shared_ptr<ZVRMediaProxyObject> empty = manager_->createNewZVRMediaProxy("");
  log().clear();
  deliverAndWait({"", "200", "ses-1", ""});
  EXPECT_TRUE(log().messages().empty());
  EXPECT_EQ(empty->getState(), ZVRMediaProxyObject::STATE_IDLE);
}

TEST_F(EventDispatchTest, EmptyIdObjectReceivesAStartedRecordWithoutAnId) {
  std::shared_ptr<ZVRMediaProxyObject> empty = manager_->createNewZVRMediaProxy("");
  manager_->setZVRCallback(&CallbackRecorder::callback);
  empty->start("u", 1);
  deliverAndWait({"started", "200", "ses-1", "", "", "", "http://127.0.0.1:8099/e"});
  EXPECT_EQ(empty->getState(), ZVRMediaProxyObject::STATE_STARTED);
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{"", "url", "http://127.0.0.1:8099/e"}));
}

TEST_F(EventDispatchTest, RecordWithAnEmptyNameForAnUnregisteredIdNamesTheIdInTheLine) {
  Record record{"", "200", "", "abc"};
  manager_->onZVREvent(record);
  EXPECT_EQ(log().messages(),
            std::vector<std::string>{"unable to find object for event: , 200,abc\n"});
  EXPECT_EQ(log().count("unable to find object for event: , 200,abc\n", kError), 1);
}

// --- Blocking at the manager mutex --------------------------------------------------------------

TEST_F(EventDispatchTest, CreatedDeliveredWhileACreationHoldsTheMutexIsNotLost) {
  // The creation holds the manager mutex from before it sends until it waits; a "created" handed
  // to the listener at once after the send is delivered when the creation waits.
  recorder().setHook([](const std::string& key, const std::vector<std::string>& values) {
    if (key == zvr_test::kCommandKey && values.at(0) == "create") {
      recorder().deliver({"created", "200", values.at(2), "abc"});
    }
  });
  Creation creation(manager_);
  const std::shared_ptr<ZVRMediaProxyObject> object = creation.result();
  recorder().setHook(nullptr);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "abc");
  EXPECT_EQ(commandsWithWord("create"), 1u);
  const Record command = recorder().commands().at(0);
  EXPECT_EQ(log().count("New Created Object: " + command.at(2) + " - abc\n", kHeadline), 1);
}

}  // namespace
