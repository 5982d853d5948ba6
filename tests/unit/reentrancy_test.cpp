// Calls that an application makes from inside the "url" notification, which the library delivers
// while it holds the notified proxy's mutex: on the listener thread in asynchronous mode, and on
// the thread that called start() in synchronous mode. None may hang; calls on the notified proxy
// are deferred until the notification's handler has released the mutex, calls on other proxies
// run at once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "shm_writer.h"
#include "test_support.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManager;
using zvr_test::CapturedLog;
using zvr_test::ModelAccessRecorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;
using zvr_test::withWatchdog;

using Strings = std::vector<std::string>;
using Proxy = std::shared_ptr<ZVRMediaProxyInterface>;

constexpr std::chrono::seconds kWatchdog(15);
constexpr std::chrono::milliseconds kTimeout(5000);
const char kId[] = "abc";
const char kOtherId[] = "other";

ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }

// What the application's callback does inside the first "url" notification, and what it saw.
struct Inside {
  std::mutex mutex;
  std::function<void(const Proxy& notified)> action;
  bool ran = false;
  std::string id;
  std::string url;
  int state = -1;
  int otherStateAfterStop = -1;
};

Inside& inside() {
  static Inside* const i = new Inside;
  return *i;
}

void reentrantCallback(std::string id, std::string kind, std::string /*value*/) {
  if (kind != "url") return;
  std::function<void(const Proxy&)> action;
  {
    std::lock_guard<std::mutex> lock(inside().mutex);
    if (inside().ran) return;  // a start or preload from inside would notify again
    inside().ran = true;
    action = inside().action;
  }
  if (action) action(ZVRMediaProxyInterface::getObjectById(id));
}

enum class Mode { kAsynchronous, kSynchronous };

std::string modeName(Mode mode) {
  return mode == Mode::kAsynchronous ? "Asynchronous" : "Synchronous";
}

// One registered proxy in the mode under test, with the re-entrant callback installed. In
// asynchronous mode the double answers through the listener; in synchronous mode through
// "/ZVR_PROXY" and the listener, as the service does.
class ReentrancyTest : public ::testing::TestWithParam<Mode> {
 protected:
  void SetUp() override {
    manager_ = ZVRMediaProxyManager::getInstance();
    manager_->setZVRCallback(&reentrantCallback);
    if (GetParam() == Mode::kSynchronous) {
      writer_.reset(new ShmWriter);
      service_.reset(new ServiceDouble(writer_.get(), ServiceDouble::Delivery::kBoth));
      proxy_ = manager_->createNewZVRMediaProxySync(kId);
    } else {
      service_.reset(new ServiceDouble(nullptr, ServiceDouble::Delivery::kListener));
      proxy_ = manager_->createNewZVRMediaProxy(kId);
    }
    ASSERT_NE(proxy_, nullptr);
    recorder().clearCalls();
  }
  void TearDown() override {
    service_.reset();
    writer_.reset();
  }

  void setAction(std::function<void(const Proxy&)> action) {
    std::lock_guard<std::mutex> lock(inside().mutex);
    inside().action = std::move(action);
  }

  // Starts the proxy and waits, under the watchdog, until the listener has handled the
  // "started" answer (its notification and the calls deferred there included) and then every
  // answer the service has sent.
  void startAndSettle() {
    withWatchdog("start and the url notification", kWatchdog, [this] {
      const int before = recorder().delivered();
      proxy_->start("file:///clip.webm", 1);
      EXPECT_TRUE(recorder().waitDelivered(before + 1, kTimeout));
      EXPECT_TRUE(recorder().waitDelivered(service_->answered(), kTimeout));
      return 0;
    });
  }

  std::vector<std::string> commandWords() {
    std::vector<std::string> words;
    for (const Strings& c : recorder().commands()) words.push_back(c[0]);
    return words;
  }

  ZVRMediaProxyManager* manager_ = nullptr;
  std::unique_ptr<ShmWriter> writer_;
  std::unique_ptr<ServiceDouble> service_;
  Proxy proxy_;
};

TEST_P(ReentrancyTest, IdFromInsideTheUrlNotificationAnswersAtOnce) {
  setAction([](const Proxy& p) { inside().id = p->id(); });
  startAndSettle();
  EXPECT_EQ(inside().id, kId);
}

TEST_P(ReentrancyTest, LocalURLFromInsideTheUrlNotificationIsTheNewURL) {
  setAction([](const Proxy& p) { inside().url = p->localURL(); });
  startAndSettle();
  EXPECT_EQ(inside().url, ServiceDouble::kLocalURL);
}

TEST_P(ReentrancyTest, GetStateFromInsideTheUrlNotificationIsStillStarting) {
  setAction([](const Proxy& p) { inside().state = p->getState(); });
  startAndSettle();
  EXPECT_EQ(inside().state, 1);
  EXPECT_EQ(proxy_->getState(), 2);
}

TEST_P(ReentrancyTest, StopFromInsideTheUrlNotificationRunsAfterTheMoveToStarted) {
  setAction([](const Proxy& p) { p->stop(); });
  startAndSettle();
  EXPECT_THAT(commandWords(), ::testing::ElementsAre("start", "stop"));
  if (GetParam() == Mode::kAsynchronous) {
    EXPECT_EQ(proxy_->getState(), 0);
    EXPECT_EQ(proxy_->localURL(), "");
  }
}

TEST_P(ReentrancyTest, SeekFromInsideTheUrlNotificationIsSent) {
  setAction([](const Proxy& p) { p->seek(1.5, "fast"); });
  startAndSettle();
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[1][0], "seek");
  EXPECT_EQ(commands[1][5], "1.500000");
  EXPECT_EQ(proxy_->getState(), 2);
}

TEST_P(ReentrancyTest, PauseFromInsideTheUrlNotificationSendsNothing) {
  setAction([](const Proxy& p) { p->pause(); });
  startAndSettle();
  EXPECT_THAT(commandWords(), ::testing::ElementsAre("start"));
  EXPECT_EQ(CapturedLog::instance().count("NotImplemented.\n"), 1);
}

TEST_P(ReentrancyTest, StartFromInsideTheUrlNotificationStartsAgain) {
  setAction([](const Proxy& p) { p->start("file:///second.webm", 1); });
  startAndSettle();
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[1][0], "start");
  EXPECT_EQ(commands[1][6], "file:///second.webm");
  EXPECT_EQ(proxy_->getState(), 2);
}

TEST_P(ReentrancyTest, PreloadFromInsideTheUrlNotificationIsSent) {
  setAction([](const Proxy& p) { p->preload(0, "one", "two", "three"); });
  startAndSettle();
  const auto commands = recorder().commands();
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[1][0], "preload");
  EXPECT_EQ(commands[1][6], "one");
}

TEST_P(ReentrancyTest, ACallOnAnotherProxyRunsAtOnce) {
  Proxy other = GetParam() == Mode::kSynchronous ? manager_->createNewZVRMediaProxySync(kOtherId)
                                                 : manager_->createNewZVRMediaProxy(kOtherId);
  other->start("file:///other.webm", 1);  // answered: its notification is the first one
  ASSERT_TRUE(recorder().waitDelivered(service_->answered(), kTimeout));
  {
    std::lock_guard<std::mutex> lock(inside().mutex);
    inside().ran = false;
  }
  recorder().clearCalls();
  setAction([other](const Proxy&) {
    other->stop();
    inside().otherStateAfterStop = other->getState();
  });
  startAndSettle();
  EXPECT_EQ(inside().otherStateAfterStop, 0);
  EXPECT_THAT(commandWords(), ::testing::ElementsAre("start", "stop"));
  EXPECT_EQ(recorder().commands()[1][3], kOtherId);
}

INSTANTIATE_TEST_SUITE_P(BothDeliveryModes, ReentrancyTest,
                         ::testing::Values(Mode::kAsynchronous, Mode::kSynchronous),
                         [](const ::testing::TestParamInfo<Mode>& info) {
                           return modeName(info.param);
                         });

// In asynchronous mode the url notification runs on the listener thread, which is also the only
// way a "created" answer arrives: a creation called there cannot be answered and ends after its
// bounded wait with one restart of the service, as it would against a silent service.
TEST(ReentrantCreationTest, CreationFromInsideTheAsynchronousUrlNotificationReturnsAfterItsLimit) {
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  manager->setZVRCallback(&reentrantCallback);
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  Proxy proxy = manager->createNewZVRMediaProxy(kId);
  Proxy created;
  {
    std::lock_guard<std::mutex> lock(inside().mutex);
    inside().action = [&created](const Proxy&) {
      created = requestZVRMediaProxy()->createNewZVRMediaProxy();
    };
  }
  withWatchdog("a creation inside the url notification", kWatchdog, [&] {
    proxy->start("file:///clip.webm", 1);
    // The notification, and the creation in it, end before the "started" delivery returns; the
    // creation's own "created" answers were queued behind it.
    EXPECT_TRUE(recorder().waitDelivered(1, std::chrono::seconds(10)));
    EXPECT_TRUE(recorder().waitDelivered(service.answered(), kTimeout));
    return 0;
  });
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(created->id(), "");
  EXPECT_EQ(recorder().serviceStartRequests(), 1);
  EXPECT_EQ(proxy->getState(), 2);
}

}  // namespace
