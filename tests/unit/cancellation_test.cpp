// A host thread cancelled with pthread_cancel while it blocks in one of the library's waits, with
// a service double that never answers: the thread unwinds through the library (nothing swallows
// the unwinding, which would abort the process), the locks it held are released, and once the
// service answers again the next call works.
//
// The blocking entry points: the asynchronous creation (the facade's createNewZVRMediaProxy()),
// the synchronous creation (the facade's createNewZVRMediaProxySync()), a proxy command in sync
// mode (stop()) and the liveness probe (checkZVRServiceAlive()). Each test knows that the thread
// is blocked before cancelling it: the double has seen the thread's command and the thread sleeps
// in a system call.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "capturing_log.h"
#include "host_thread.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "shm_writer.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"

namespace {

using ::testing::StartsWith;
using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyManagerInterface;
using zvr_test::HostThread;
using zvr_test::ModelAccessRecorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;

ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }

// For each attempt: ready once the double has seen one more command message than now.
std::function<bool()> afterTheNextCommand() {
  const std::size_t before = recorder().commands().size();
  return [before] { return recorder().commands().size() > before; };
}

class CancellationTest : public ::testing::Test {
 protected:
  void SetUp() override { ZVR_SKIP_WITHOUT_TRACEABLE_CANCELLATION(); }
  void TearDown() override { recorder().setHook(nullptr); }

  ZVRMediaProxyManagerInterface* facade() { return requestZVRMediaProxy(); }
  ZVRMediaProxyManager* manager() { return ZVRMediaProxyManager::getInstance(); }
};

TEST_F(CancellationTest, CancelledAsynchronousCreationUnwindsAndTheNextCreationGetsAnId) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setAllSilent(true);

  EXPECT_GT(zvr_test::cancelWhileBlocked([this] { facade()->createNewZVRMediaProxy(); },
                                         afterTheNextCommand),
            0);

  service.setAllSilent(false);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxy();
  ASSERT_NE(proxy, nullptr);
  EXPECT_THAT(proxy->id(), StartsWith("obj-"));
}

TEST_F(CancellationTest, CancelledSynchronousCreationUnwindsAndTheNextCreationGetsAnId) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  service.setAllSilent(true);

  EXPECT_GT(zvr_test::cancelWhileBlocked([this] { facade()->createNewZVRMediaProxySync(); },
                                         afterTheNextCommand),
            0);

  service.setAllSilent(false);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxySync();
  ASSERT_NE(proxy, nullptr);
  EXPECT_THAT(proxy->id(), StartsWith("obj-"));
}

TEST_F(CancellationTest, CancelledSynchronousStopUnwindsAndTheNextStopIsAnswered) {
  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kSharedMemory);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxySync();
  ASSERT_THAT(proxy->id(), StartsWith("obj-"));
  service.setAllSilent(true);

  EXPECT_GT(zvr_test::cancelWhileBlocked([&proxy] { proxy->stop(); }, afterTheNextCommand), 0);

  service.setAllSilent(false);
  EXPECT_EQ(manager()->requestRemoteObjectStopSync(proxy->id()), 0);
}

TEST_F(CancellationTest, CancelledLivenessProbeUnwindsAndTheNextProbeFindsTheServiceAlive) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  service.setAllSilent(true);

  EXPECT_GT(zvr_test::cancelWhileBlocked([this] { manager()->checkZVRServiceAlive(); },
                                         afterTheNextCommand),
            0);

  service.setAllSilent(false);
  EXPECT_TRUE(manager()->checkZVRServiceAlive());
}

// The catch-alls around the platform while the manager builds its connection: a thread
// cancelled inside the model access's constructor, start() or startEventListener() unwinds
// through createModelAccess and the facade instead of ending the process, and the next call
// builds a new connection.
class ConnectionCancellationTest : public CancellationTest {
 protected:
  void TearDown() override {
    recorder().setLifecycleBlock("");
    CancellationTest::TearDown();
  }

  // Runs a creation through the facade on a host thread that blocks in `step` and cancels it
  // there.
  HostThread::Outcome cancelCreationIn(const std::string& step) {
    recorder().setLifecycleBlock(step);
    HostThread host([this] { facade()->createNewZVRMediaProxy(); });
    const HostThread::Outcome outcome =
        host.cancelOnceBlocked([step] { return recorder().blockedIn(step) > 0; });
    recorder().setLifecycleBlock("");
    return outcome;
  }

  void expectTheNextCreationGetsAnId() {
    EXPECT_EQ(recorder().blockedIn("construct") + recorder().blockedIn("start") +
                  recorder().blockedIn("listen"),
              0);
    std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxy();
    ASSERT_NE(proxy, nullptr);
    EXPECT_THAT(proxy->id(), StartsWith("obj-"));
  }
};

TEST_F(ConnectionCancellationTest, CancelledInTheConnectionsConstructorUnwindsThroughTheFacade) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  EXPECT_EQ(cancelCreationIn("construct"), HostThread::Outcome::kCancelled);
  expectTheNextCreationGetsAnId();
}

TEST_F(ConnectionCancellationTest, CancelledInTheConnectionsStartUnwindsAndDropsTheConnection) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  EXPECT_EQ(cancelCreationIn("start"), HostThread::Outcome::kCancelled);
  expectTheNextCreationGetsAnId();
  EXPECT_EQ(recorder().constructed(), 2);  // the cancelled connection was not kept
}

// A connection made after a refused one starts its own listener (the constructor's is gone).
TEST_F(ConnectionCancellationTest, CancelledWhileALaterConnectionStartsItsListenerUnwinds) {
  recorder().setThrowFromConstructor(true);
  ASSERT_NE(manager(), nullptr);  // built without a connection
  recorder().setThrowFromConstructor(false);
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  EXPECT_EQ(cancelCreationIn("listen"), HostThread::Outcome::kCancelled);
  expectTheNextCreationGetsAnId();
}

// The trace guard writes its OUT line from a destructor, where a cancellation acted upon would
// end the process. This hook makes that line a cancellation point with a cancellation pending.
void cancelAtTheTraceOutLine(const std::string& text) {
  if (text.compare(0, 10, "[TRACE <- ") != 0) return;
  pthread_cancel(pthread_self());
  pthread_testcancel();
}

struct TraceOutCall {
  ZVRMediaProxyInterface* proxy;
  bool returned = false;
};

// Kept out of the thread's own function: AddressSanitizer leaves the stack of a frame that a
// cancellation unwinds as that frame last marked it, and a temporary's ended scope there would
// show as a use after scope when the thread ends.
__attribute__((noinline)) void seekWhileIdle(TraceOutCall* call) {
  call->proxy->seek(1.0, "");  // idle: no command, only the trace lines
  call->returned = true;
}

void* runUntilCancelled(void* data) {
  seekWhileIdle(static_cast<TraceOutCall*>(data));
  pthread_testcancel();  // the cancellation left pending at the OUT line acts here
  return nullptr;
}

TEST_F(CancellationTest, CancellationArrivingAtATraceOutLineActsAfterTheCallReturned) {
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  std::shared_ptr<ZVRMediaProxyInterface> proxy = facade()->createNewZVRMediaProxy();
  ASSERT_THAT(proxy->id(), StartsWith("obj-"));
  zvr_test::CapturedLog::instance().enableAll();
  zvr_test::CapturedLog::instance().setOutputHook(&cancelAtTheTraceOutLine);

  TraceOutCall call{proxy.get()};
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, &runUntilCancelled, &call), 0);
  void* result = nullptr;
  pthread_join(thread, &result);
  zvr_test::CapturedLog::instance().setOutputHook(nullptr);
  EXPECT_TRUE(call.returned);
  EXPECT_EQ(result, PTHREAD_CANCELED);
}

}  // namespace
