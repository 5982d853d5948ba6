#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capturing_log.h"
#include "manager_test.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "test_support.h"
#include "zvr_log.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_manager_interface_impl.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using ::testing::ElementsAre;
using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyManagerInterface;
using velmora::logging::kError;
using velmora::logging::kProgress;
using zvr_test::CallbackRecorder;
using zvr_test::log;
using zvr_test::LogLine;
using zvr_test::Notification;
using zvr_test::recorder;
using zvr_test::ServiceDouble;

constexpr char kGetInterface[] = "Get proxy manager interface.\n";
constexpr char kCalled[] = "called.\n";
constexpr char kManagerNull[] = "manager is NULL.\n";

// One B-LOG line reduced to what the facade tests compare: the message, its severity and the
// function that wrote it.
struct Logged {
  std::string message;
  unsigned int severity;
  std::string function;
  bool operator==(const Logged& o) const {
    return message == o.message && severity == o.severity && function == o.function;
  }
};

void PrintTo(const Logged& l, std::ostream* os) {
  *os << "{" << ::testing::PrintToString(l.message) << ", " << l.severity << ", " << l.function
      << "}";
}

std::vector<Logged> loggedLines() {
  std::vector<Logged> result;
  for (const LogLine& line : log().lines()) {
    result.push_back({line.message, line.severity, line.function});
  }
  return result;
}

// The lines written by functions of one name, in order.
std::vector<Logged> linesOf(const std::string& function) {
  std::vector<Logged> result;
  for (const Logged& line : loggedLines()) {
    if (line.function == function) result.push_back(line);
  }
  return result;
}

// Holds the interface lock on a thread of its own until release() or destruction. The lock is
// recursive, so it has to be held by a thread other than the one whose call is observed.
class InterfaceLockHolder {
 public:
  InterfaceLockHolder() : releaseSignal_(release_.get_future()), thread_([this] { hold(); }) {
    locked_.get_future().wait();
  }
  ~InterfaceLockHolder() {
    release();
    thread_.join();
  }
  InterfaceLockHolder(const InterfaceLockHolder&) = delete;
  InterfaceLockHolder& operator=(const InterfaceLockHolder&) = delete;

  void release() {
    if (released_) return;
    released_ = true;
    release_.set_value();
  }

 private:
  void hold() {
    boost::lock_guard<boost::recursive_mutex> lock(velmora::interfaceLock());
    locked_.set_value();
    releaseSignal_.wait();
  }

  std::promise<void> locked_;
  std::promise<void> release_;
  std::future<void> releaseSignal_;
  bool released_ = false;
  std::thread thread_;
};

// --- requestZVRMediaProxy -------------------------------------------------------------------

TEST(RequestZVRMediaProxyTest, TwoCallsReturnTheSameInterface) {
  ZVRMediaProxyManagerInterface* first = requestZVRMediaProxy();
  ZVRMediaProxyManagerInterface* second = requestZVRMediaProxy();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(second, first);
}

TEST(RequestZVRMediaProxyTest, EveryCallLogsGetProxyManagerInterfaceAlsoOnTheFastPath) {
  requestZVRMediaProxy();
  EXPECT_THAT(loggedLines(), ElementsAre(Logged{kGetInterface, kProgress, "requestZVRMediaProxy"}));

  log().clear();
  requestZVRMediaProxy();  // the interface exists now: fast path
  EXPECT_THAT(loggedLines(), ElementsAre(Logged{kGetInterface, kProgress, "requestZVRMediaProxy"}));
}

TEST(RequestZVRMediaProxyTest, FirstCallWaitsForTheInterfaceLock) {
  InterfaceLockHolder holder;
  std::future<ZVRMediaProxyManagerInterface*> call =
      std::async(std::launch::async, [] { return requestZVRMediaProxy(); });

  // The call has started (it logs before it looks for the interface) and then stays blocked.
  EXPECT_TRUE(zvr_test::eventually([] { return log().count(kGetInterface, kProgress) == 1; }));
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);

  holder.release();
  ASSERT_EQ(call.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  ZVRMediaProxyManagerInterface* created = call.get();
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(requestZVRMediaProxy(), created);
}

TEST(RequestZVRMediaProxyTest, SecondCallReturnsWhileAnotherThreadHoldsTheInterfaceLock) {
  ZVRMediaProxyManagerInterface* first = requestZVRMediaProxy();
  ASSERT_NE(first, nullptr);

  InterfaceLockHolder holder;
  std::future<ZVRMediaProxyManagerInterface*> call =
      std::async(std::launch::async, [] { return requestZVRMediaProxy(); });
  const std::future_status status = call.wait_for(std::chrono::seconds(2));
  holder.release();  // lets a wrongly blocked call finish, so that the future can be destroyed
  EXPECT_EQ(status, std::future_status::ready);
  EXPECT_EQ(call.get(), first);
}

// --- The manager facade ------------------------------------------------------------------------

class ManagerInterfaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    facade_ = requestZVRMediaProxy();
    ASSERT_NE(facade_, nullptr);
  }

  // Builds the manager before the operation under test, so that its construction lines do not
  // mix with the operation's own.
  ZVRMediaProxyManager* startManager() {
    ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
    log().clear();
    recorder().clearCalls();
    return manager;
  }

  // Makes the manager impossible to build: its construction fails when the listener is
  // started, so getInstance() throws on every use.
  void refuseManager() {
    recorder().setThrowFromStartEventListener(true);
    log().clear();
  }

  ZVRMediaProxyManagerInterface* facade_ = nullptr;
};

TEST_F(ManagerInterfaceTest, CreateWithIdLogsCalledAndReturnsARegisteredObjectWithThatId) {
  ZVRMediaProxyManager* manager = startManager();
  std::shared_ptr<ZVRMediaProxyInterface> object = facade_->createNewZVRMediaProxy("abc");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "abc");
  EXPECT_EQ(manager->findObjectById("abc").get(), object.get());
  EXPECT_THAT(loggedLines(),
              ElementsAre(Logged{kCalled, kProgress, "createNewZVRMediaProxy"},
                          Logged{"new ProxyObject id:abc\n", kProgress, "ZVRMediaProxyObject"}));
  EXPECT_TRUE(recorder().commands().empty());
}

TEST_F(ManagerInterfaceTest, CreateSyncWithIdLogsCalledThenForwardsToTheManager) {
  ZVRMediaProxyManager* manager = startManager();
  std::shared_ptr<ZVRMediaProxyInterface> object = facade_->createNewZVRMediaProxySync("abc");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "abc");
  EXPECT_EQ(manager->findObjectById("abc").get(), object.get());
  const std::vector<Logged> lines = loggedLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], (Logged{kCalled, kProgress, "createNewZVRMediaProxySync"}));
  // The manager's operation of the same name writes the next line.
  EXPECT_EQ(lines[1], (Logged{"Enter, id:abc\n", kProgress, "createNewZVRMediaProxySync"}));
  EXPECT_TRUE(recorder().commands().empty());
}

TEST_F(ManagerInterfaceTest, CreateWithoutIdLogsCalledAndReturnsTheObjectTheServiceCreated) {
  ZVRMediaProxyManager* manager = startManager();
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  std::shared_ptr<ZVRMediaProxyInterface> object = facade_->createNewZVRMediaProxy();
  ASSERT_NE(object, nullptr);
  // The double names its first remote player obj-1.
  EXPECT_EQ(object->id(), "obj-1");
  EXPECT_EQ(manager->findObjectById("obj-1").get(), object.get());
  const std::vector<Logged> lines = linesOf("createNewZVRMediaProxy");
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], (Logged{kCalled, kProgress, "createNewZVRMediaProxy"}));
  EXPECT_EQ(lines[1], (Logged{"Enter\n", kProgress, "createNewZVRMediaProxy"}));
  EXPECT_EQ(loggedLines().front(), (Logged{kCalled, kProgress, "createNewZVRMediaProxy"}));
}

TEST_F(ManagerInterfaceTest, CreateSyncWithoutIdLogsCalledThenForwardsToTheManager) {
  ZVRMediaProxyManager* manager = startManager();
  // Answers through the listener only: none of the synchronous waits sees them, so all three
  // "create" commands go out, and the newest answer's id is the result.
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  std::shared_ptr<ZVRMediaProxyInterface> object = facade_->createNewZVRMediaProxySync();
  ASSERT_NE(object, nullptr);
  const std::string lastCreated = "obj-" + std::to_string(service.answered());
  EXPECT_EQ(object->id(), lastCreated);
  EXPECT_EQ(manager->findObjectById(lastCreated).get(), object.get());
  const std::vector<Logged> lines = loggedLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], (Logged{kCalled, kProgress, "createNewZVRMediaProxySync"}));
  EXPECT_EQ(lines[1], (Logged{"Enter.\n", kProgress, "createNewZVRMediaProxySync"}));
}

TEST_F(ManagerInterfaceTest, SetZVRCallbackLogsCalledAtErrorSeverityAndForwards) {
  ZVRMediaProxyManager* manager = startManager();
  facade_->setZVRCallback(&CallbackRecorder::callback);
  EXPECT_THAT(loggedLines(), ElementsAre(Logged{kCalled, kError, "setZVRCallback"}));
  EXPECT_EQ(log().count(kCalled, kProgress), 0);

  manager->notifyURLChanged("abc", "http://127.0.0.1:8099/media/7");
  EXPECT_THAT(CallbackRecorder::calls(),
              ElementsAre(Notification{"abc", "url", "http://127.0.0.1:8099/media/7"}));
}

TEST_F(ManagerInterfaceTest, CreateWithoutIdReturnsEmptyWhenTheManagerCannotBeBuilt) {
  refuseManager();
  std::shared_ptr<ZVRMediaProxyInterface> object;
  EXPECT_NO_THROW(object = facade_->createNewZVRMediaProxy());
  EXPECT_EQ(object, nullptr);
  EXPECT_THAT(linesOf("createNewZVRMediaProxy"),
              ElementsAre(Logged{kCalled, kProgress, "createNewZVRMediaProxy"},
                          Logged{kManagerNull, kError, "createNewZVRMediaProxy"}));
  EXPECT_EQ(loggedLines().back(), (Logged{kManagerNull, kError, "createNewZVRMediaProxy"}));
  EXPECT_TRUE(recorder().commands().empty());
}

TEST_F(ManagerInterfaceTest, CreateWithIdReturnsEmptyWhenTheManagerCannotBeBuilt) {
  refuseManager();
  std::shared_ptr<ZVRMediaProxyInterface> object;
  EXPECT_NO_THROW(object = facade_->createNewZVRMediaProxy("abc"));
  EXPECT_EQ(object, nullptr);
  EXPECT_THAT(linesOf("createNewZVRMediaProxy"),
              ElementsAre(Logged{kCalled, kProgress, "createNewZVRMediaProxy"},
                          Logged{kManagerNull, kError, "createNewZVRMediaProxy"}));
  EXPECT_EQ(loggedLines().back(), (Logged{kManagerNull, kError, "createNewZVRMediaProxy"}));
}

TEST_F(ManagerInterfaceTest, CreateSyncWithoutIdReturnsEmptyWhenTheManagerCannotBeBuilt) {
  refuseManager();
  std::shared_ptr<ZVRMediaProxyInterface> object;
  EXPECT_NO_THROW(object = facade_->createNewZVRMediaProxySync());
  EXPECT_EQ(object, nullptr);
  EXPECT_THAT(linesOf("createNewZVRMediaProxySync"),
              ElementsAre(Logged{kCalled, kProgress, "createNewZVRMediaProxySync"},
                          Logged{kManagerNull, kError, "createNewZVRMediaProxySync"}));
  EXPECT_EQ(loggedLines().back(), (Logged{kManagerNull, kError, "createNewZVRMediaProxySync"}));
  EXPECT_TRUE(recorder().commands().empty());
}

TEST_F(ManagerInterfaceTest, CreateSyncWithIdReturnsEmptyWhenTheManagerCannotBeBuilt) {
  refuseManager();
  std::shared_ptr<ZVRMediaProxyInterface> object;
  EXPECT_NO_THROW(object = facade_->createNewZVRMediaProxySync("abc"));
  EXPECT_EQ(object, nullptr);
  EXPECT_THAT(linesOf("createNewZVRMediaProxySync"),
              ElementsAre(Logged{kCalled, kProgress, "createNewZVRMediaProxySync"},
                          Logged{kManagerNull, kError, "createNewZVRMediaProxySync"}));
  EXPECT_EQ(loggedLines().back(), (Logged{kManagerNull, kError, "createNewZVRMediaProxySync"}));
}

TEST_F(ManagerInterfaceTest, SetZVRCallbackReturnsWhenTheManagerCannotBeBuilt) {
  refuseManager();
  EXPECT_NO_THROW(facade_->setZVRCallback(&CallbackRecorder::callback));
  EXPECT_THAT(linesOf("setZVRCallback"),
              ElementsAre(Logged{kCalled, kError, "setZVRCallback"},
                          Logged{kManagerNull, kError, "setZVRCallback"}));
  EXPECT_EQ(loggedLines().back(), (Logged{kManagerNull, kError, "setZVRCallback"}));
  EXPECT_TRUE(CallbackRecorder::calls().empty());
}

TEST_F(ManagerInterfaceTest, EveryOperationTriesToBuildTheManagerAgain) {
  refuseManager();
  facade_->createNewZVRMediaProxy("abc");
  facade_->setZVRCallback(&CallbackRecorder::callback);
  EXPECT_EQ(recorder().constructorAttempts(), 2);
  EXPECT_EQ(log().count(kManagerNull, kError), 2);

  // Once the platform accepts, the next operation gets a manager and forwards.
  recorder().setThrowFromStartEventListener(false);
  std::shared_ptr<ZVRMediaProxyInterface> object = facade_->createNewZVRMediaProxy("abc");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "abc");
  EXPECT_EQ(log().count(kManagerNull, kError), 2);
}

// --- Static entry points of the proxy handle ---------------------------------------------------

class ProxyInterfaceStaticTest : public zvr_test::ManagerTest {};

TEST_F(ProxyInterfaceStaticTest, CreateReturnsTheObjectTheServiceCreatedWithoutLogsOfItsOwn) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  const auto begin = std::chrono::steady_clock::now();
  std::shared_ptr<ZVRMediaProxyInterface> object = ZVRMediaProxyInterface::create();
  const auto elapsed = std::chrono::steady_clock::now() - begin;
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->id(), "obj-1");
  EXPECT_EQ(manager_->findObjectById("obj-1").get(), object.get());
  // Answered in the first attempts, far from the 2.2 s give-up of a silent service.
  EXPECT_LT(elapsed, std::chrono::seconds(2));

  EXPECT_EQ(log().count(kCalled), 0);
  EXPECT_TRUE(linesOf("create").empty());
  // What is logged comes from the manager's creation.
  const std::vector<Logged> lines = loggedLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), (Logged{"Enter\n", kProgress, "createNewZVRMediaProxy"}));
}

TEST_F(ProxyInterfaceStaticTest, GetObjectByIdOfANeverCreatedIdReturnsEmptyAndLogsNothing) {
  EXPECT_EQ(ZVRMediaProxyInterface::getObjectById("never-created"), nullptr);
  EXPECT_EQ(ZVRMediaProxyInterface::getObjectById(""), nullptr);
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(ProxyInterfaceStaticTest, GetObjectByIdReturnsTheVeryObjectThatCreationReturned) {
  std::shared_ptr<ZVRMediaProxyInterface> created =
      requestZVRMediaProxy()->createNewZVRMediaProxy("abc");
  ASSERT_NE(created, nullptr);
  log().clear();
  std::shared_ptr<ZVRMediaProxyInterface> found = ZVRMediaProxyInterface::getObjectById("abc");
  EXPECT_EQ(found.get(), created.get());
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(ProxyInterfaceStaticTest, GetObjectByIdReturnsTheObjectThatCreateReturned) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  std::shared_ptr<ZVRMediaProxyInterface> created = ZVRMediaProxyInterface::create();
  ASSERT_NE(created, nullptr);
  ASSERT_FALSE(created->id().empty());
  log().clear();
  std::shared_ptr<ZVRMediaProxyInterface> found =
      ZVRMediaProxyInterface::getObjectById(created->id());
  EXPECT_EQ(found.get(), created.get());
  EXPECT_TRUE(log().lines().empty());
}

}  // namespace
