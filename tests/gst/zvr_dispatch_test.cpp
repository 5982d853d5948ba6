// The plugin's dispatch and creation queue (gst/zvr_dispatch.cpp) against a fake of the library's
// entry points: the hooks are set again at a later start when the library had no manager yet,
// creations run one at a time, a cancelled or abandoned session's creation is skipped or
// discarded, a repeated id is a failed creation, and deliveries reach only the owner of an id.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zvr_dispatch.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_diagnostics.h"

GST_DEBUG_CATEGORY(zvr_src_debug);

namespace {

using namespace std::chrono_literals;
using zvr_gst::Creation;
using zvr_gst::Session;

// What the fake library does and saw. Creations take the next id of `ids` ("" once they run out),
// and wait while `hold` is set.
struct Library {
  std::mutex mutex;
  std::condition_variable changed;
  bool managerAvailable = true;
  velmora::ZVRCallback callback = nullptr;
  std::vector<std::string> ids;
  bool hold = false;
  int running = 0;
  int mostRunning = 0;
  int creations = 0;
};

Library& library() {
  static Library* const l = new Library;
  return *l;
}

class FakeProxy : public velmora::ZVRMediaProxyInterface {
 public:
  explicit FakeProxy(std::string id) : id_(std::move(id)) {}
  std::string id() override { return id_; }
  std::string localURL() override { return ""; }
  int getState() override { return 0; }
  void start(std::string, int) override {}
  void stop() override {}
  void pause() override {}
  void seek(double, std::string) override {}
  void preload(double, std::string, std::string, std::string) override {}

 private:
  std::string id_;
};

class FakeManager : public velmora::ZVRMediaProxyManagerInterface {
 public:
  std::shared_ptr<velmora::ZVRMediaProxyInterface> createNewZVRMediaProxy() override {
    Library& l = library();
    std::unique_lock<std::mutex> lock(l.mutex);
    ++l.creations;
    ++l.running;
    l.mostRunning = std::max(l.mostRunning, l.running);
    l.changed.notify_all();
    l.changed.wait(lock, [&l] { return !l.hold; });
    const std::size_t index = static_cast<std::size_t>(l.creations - 1);
    const std::string id = index < l.ids.size() ? l.ids[index] : std::string();
    --l.running;
    return std::make_shared<FakeProxy>(id);
  }
  std::shared_ptr<velmora::ZVRMediaProxyInterface> createNewZVRMediaProxy(std::string) override {
    return nullptr;
  }
  std::shared_ptr<velmora::ZVRMediaProxyInterface> createNewZVRMediaProxySync() override {
    return nullptr;
  }
  std::shared_ptr<velmora::ZVRMediaProxyInterface> createNewZVRMediaProxySync(
      std::string) override {
    return nullptr;
  }
  void setZVRCallback(velmora::ZVRCallback callback) override {
    std::lock_guard<std::mutex> lock(library().mutex);
    library().callback = callback;
  }
};

}  // namespace

// The library's entry points, as zvr_dispatch.cpp calls them.
extern "C" velmora::ZVRMediaProxyManagerInterface* requestZVRMediaProxy() {
  static FakeManager* const manager = new FakeManager;
  std::lock_guard<std::mutex> lock(library().mutex);
  return library().managerAvailable ? manager : nullptr;
}

namespace velmora {
bool addZVROutcomeListener(ZVROutcomeListener, void*) { return true; }
}  // namespace velmora

namespace {

class ZvrDispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    Library& l = library();
    std::lock_guard<std::mutex> lock(l.mutex);
    l.managerAvailable = true;
    l.ids.clear();
    l.hold = false;
    l.running = l.mostRunning = l.creations = 0;
  }

  // Ids of this test only: the plugin's registry lives as long as the process.
  static std::string id(const std::string& name) {
    return std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "-" +
           name;
  }

  static void handOut(const std::vector<std::string>& ids) {
    std::lock_guard<std::mutex> lock(library().mutex);
    library().ids = ids;
  }

  static void hold(bool on) {
    Library& l = library();
    std::lock_guard<std::mutex> lock(l.mutex);
    l.hold = on;
    l.changed.notify_all();
  }

  static bool creationsStarted(int count) {
    Library& l = library();
    std::unique_lock<std::mutex> lock(l.mutex);
    return l.changed.wait_for(lock, 5s, [&l, count] { return l.creations >= count; });
  }

  static int creations() {
    std::lock_guard<std::mutex> lock(library().mutex);
    return library().creations;
  }

  // Waits for the session's creation to end; kCancelled after 5 s without a result.
  static Creation result(const std::shared_ptr<Session>& session) {
    std::unique_lock<std::mutex> lock(session->mutex);
    if (!session->changed.wait_for(lock, 5s, [&session] { return session->creationDone; })) {
      ADD_FAILURE() << "the creation did not end";
    }
    return session->creation;
  }

  static void deliver(const std::string& proxyId, const std::string& kind,
                      const std::string& value) {
    velmora::ZVRCallback callback;
    {
      std::lock_guard<std::mutex> lock(library().mutex);
      callback = library().callback;
    }
    ASSERT_NE(callback, nullptr);
    callback(proxyId, kind, value);
  }
};

TEST_F(ZvrDispatch, HooksAreSetAtALaterStartWhenTheLibraryHadNoManagerYet) {
  {
    std::lock_guard<std::mutex> lock(library().mutex);
    if (library().callback != nullptr) GTEST_SKIP() << "an earlier test of this process set them";
    library().managerAvailable = false;
  }
  EXPECT_FALSE(zvr_gst::installHooks());
  {
    std::lock_guard<std::mutex> lock(library().mutex);
    EXPECT_EQ(library().callback, nullptr);
    library().managerAvailable = true;
  }
  EXPECT_TRUE(zvr_gst::installHooks());
  std::lock_guard<std::mutex> lock(library().mutex);
  EXPECT_NE(library().callback, nullptr);
}

TEST_F(ZvrDispatch, CreationsRunOneAtATimeInTheOrderRequested) {
  handOut({id("a"), id("b"), id("c"), id("d")});
  hold(true);
  std::vector<std::shared_ptr<Session>> sessions;
  for (int i = 0; i < 4; ++i) {
    sessions.push_back(std::make_shared<Session>());
    ASSERT_TRUE(zvr_gst::requestCreation(sessions.back()));
  }
  ASSERT_TRUE(creationsStarted(1));
  hold(false);
  const char* names[] = {"a", "b", "c", "d"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(result(sessions[i]), Creation::kCreated);
    EXPECT_EQ(sessions[i]->proxyId, id(names[i]));
    zvr_gst::unregisterSession(sessions[i]);
  }
  std::lock_guard<std::mutex> lock(library().mutex);
  EXPECT_EQ(library().mostRunning, 1);
}

TEST_F(ZvrDispatch, AQueuedCreationOfACancelledSessionIsNeverRun) {
  handOut({id("running"), id("never")});
  hold(true);
  auto running = std::make_shared<Session>();
  auto queued = std::make_shared<Session>();
  ASSERT_TRUE(zvr_gst::requestCreation(running));
  ASSERT_TRUE(creationsStarted(1));
  ASSERT_TRUE(zvr_gst::requestCreation(queued));
  {
    std::lock_guard<std::mutex> lock(queued->mutex);
    queued->cancelled = true;
  }
  hold(false);
  EXPECT_EQ(result(running), Creation::kCreated);
  EXPECT_EQ(result(queued), Creation::kCancelled);
  EXPECT_EQ(creations(), 1);
  zvr_gst::unregisterSession(running);
}

TEST_F(ZvrDispatch, ACreationThatEndsAfterItsSessionGaveUpIsDiscardedAndNotRouted) {
  handOut({id("late")});
  hold(true);
  auto session = std::make_shared<Session>();
  ASSERT_TRUE(zvr_gst::installHooks());
  ASSERT_TRUE(zvr_gst::requestCreation(session));
  ASSERT_TRUE(creationsStarted(1));
  {
    std::lock_guard<std::mutex> lock(session->mutex);
    session->creationAbandoned = true;
  }
  hold(false);
  EXPECT_EQ(result(session), Creation::kCancelled);
  deliver(id("late"), "url", "http://127.0.0.1:1/late");
  std::lock_guard<std::mutex> lock(session->mutex);
  EXPECT_FALSE(session->proxy);
  EXPECT_EQ(session->url, "");
}

TEST_F(ZvrDispatch, AnIdSeenBeforeIsAFailedCreation) {
  handOut({id("same"), id("same")});
  auto first = std::make_shared<Session>();
  auto second = std::make_shared<Session>();
  ASSERT_TRUE(zvr_gst::requestCreation(first));
  EXPECT_EQ(result(first), Creation::kCreated);
  // Also once the first session is gone.
  zvr_gst::unregisterSession(first);
  ASSERT_TRUE(zvr_gst::requestCreation(second));
  EXPECT_EQ(result(second), Creation::kReusedId);
  std::lock_guard<std::mutex> lock(second->mutex);
  EXPECT_FALSE(second->proxy);
}

TEST_F(ZvrDispatch, TheEmptyIdIsNoServiceAndNoManagerIsNoLibrary) {
  handOut({""});
  auto empty = std::make_shared<Session>();
  ASSERT_TRUE(zvr_gst::requestCreation(empty));
  EXPECT_EQ(result(empty), Creation::kNoService);
  {
    std::lock_guard<std::mutex> lock(library().mutex);
    library().managerAvailable = false;
  }
  auto none = std::make_shared<Session>();
  ASSERT_TRUE(zvr_gst::requestCreation(none));
  EXPECT_EQ(result(none), Creation::kNoLibrary);
}

TEST_F(ZvrDispatch, DeliveriesReachTheSessionOwningTheIdUntilItIsUnregistered) {
  handOut({id("owner")});
  ASSERT_TRUE(zvr_gst::installHooks());
  auto session = std::make_shared<Session>();
  ASSERT_TRUE(zvr_gst::requestCreation(session));
  ASSERT_EQ(result(session), Creation::kCreated);
  deliver(id("owner"), "url", "http://127.0.0.1:1/a");
  deliver(id("owner"), "definitions", "{}");
  deliver(id("nobody"), "url", "http://127.0.0.1:1/b");
  {
    std::lock_guard<std::mutex> lock(session->mutex);
    EXPECT_EQ(session->url, "http://127.0.0.1:1/a");
    ASSERT_EQ(session->definitions.size(), 1u);
    EXPECT_EQ(session->definitions.front(), "{}");
  }
  zvr_gst::unregisterSession(session);
  deliver(id("owner"), "definitions", "late");
  std::lock_guard<std::mutex> lock(session->mutex);
  EXPECT_EQ(session->definitions.size(), 1u);
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests needs no GStreamer.
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  gst_init(&argc, &argv);
  GST_DEBUG_CATEGORY_INIT(zvr_src_debug, "zvrsrc", 0, "zvr+ URIs through the media service");
  return RUN_ALL_TESTS();
}
