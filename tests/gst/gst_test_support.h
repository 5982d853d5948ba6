// The pipeline runner shared by the element's tests: a playbin with fakesinks that counts the
// decoded video frames and their timestamps (also since the video sink's last flush), keeps the
// zvrsrc it created and the notifications of its properties, records when errors were posted,
// and measures state changes. ZvrGstTest starts the emulator on a private bus
// before the library's first use and, after each test, asserts that the leaks tracer (switched
// on by the tests' main) reports no GStreamer object alive.

#ifndef ZVR_TESTS_GST_GST_TEST_SUPPORT_H_
#define ZVR_TESTS_GST_GST_TEST_SUPPORT_H_

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "private_bus.h"

namespace zvr_test {

using Clock = std::chrono::steady_clock;

inline std::string clipUri(const std::string& name, const std::string& scheme = "zvr+file") {
  return scheme + "://" + std::string(ZVR_TEST_MEDIA_DIR) + "/" + name;
}

// What one posted error said, and when it was posted.
// One notification of a property of the source, with the value read in the handler.
struct PropertyNotification {
  std::string property;
  std::string value;
};

struct PostedError {
  std::string message;
  std::string debug;
  std::string source;
  int domainCode = 0;
  bool resourceDomain = false;
  Clock::time_point at;
};

class Playback {
 public:
  // `sync`: the sinks play in real time; otherwise as fast as the pipeline decodes.
  explicit Playback(const std::string& uri, bool sync = false, guint timeoutMs = 0);
  ~Playback();
  Playback(const Playback&) = delete;
  Playback& operator=(const Playback&) = delete;

  GstElement* pipeline() const { return pipeline_; }
  // The zvrsrc playbin made, once it made one (referenced by this object).
  GstElement* source();
  std::string sourceProperty(const char* name);

  GstStateChangeReturn setState(GstState state);
  // Sets the state and returns how long the call took.
  std::chrono::milliseconds timedSetState(GstState state);
  // Waits until the pipeline reached `state` (no pending change).
  bool waitState(GstState state, std::chrono::milliseconds timeout);
  // Pops the next message of `types`; null when none came in time. The caller unrefs it.
  GstMessage* waitMessage(GstMessageType types, std::chrono::milliseconds timeout);
  // PLAYING until EOS; false on an error or when EOS did not come in time.
  bool playToEos(std::chrono::milliseconds timeout, std::string* error = nullptr);
  // Waits until at least `count` video frames were decoded.
  bool waitFrames(int count, std::chrono::milliseconds timeout);
  // Waits for the first error; false when none was posted in time.
  bool waitError(std::chrono::milliseconds timeout, PostedError* error);

  int videoFrames();
  // Timestamps of the video frames decoded since the last call of clearTimestamps().
  std::vector<GstClockTime> timestamps();
  void clearTimestamps();
  // How many FLUSH_STOP events reached the video sink, and the timestamps of the frames rendered
  // since the last one.
  int flushes();
  std::vector<GstClockTime> sinceFlush();
  // The notifications of the source's properties proxy-id, local-url and definitions.
  std::vector<PropertyNotification> notifications();

 private:
  static void onHandoff(GstElement*, GstBuffer* buffer, GstPad*, gpointer self);
  static void onSourceSetup(GstElement*, GstElement* source, gpointer self);
  static GstBusSyncReply onSyncMessage(GstBus*, GstMessage* message, gpointer self);
  static GstPadProbeReturn onVideoEvent(GstPad*, GstPadProbeInfo* info, gpointer self);
  // Notifications come from the element's worker, which may still emit one while this object is
  // destroyed: they go to a log that each connected handler shares.
  struct NotificationLog {
    std::mutex mutex;
    std::vector<PropertyNotification> entries;
  };
  static void onNotify(GObject* source, GParamSpec* pspec, gpointer log);

  GstElement* pipeline_ = nullptr;
  GstBus* bus_ = nullptr;
  guint timeoutMs_ = 0;
  std::mutex mutex_;
  GstElement* source_ = nullptr;
  int frames_ = 0;
  std::vector<GstClockTime> timestamps_;
  int flushes_ = 0;
  std::vector<GstClockTime> sinceFlush_;
  std::shared_ptr<NotificationLog> notifications_ = std::make_shared<NotificationLog>();
  std::vector<PostedError> errors_;
};

// The fixture of every element test.
class ZvrGstTest : public ::testing::Test {
 protected:
  void TearDown() override;
  // The emulator with `options`; `activatable` false: no media service on the bus.
  void startService(const std::vector<std::string>& options = {}, bool activatable = true);

  std::unique_ptr<PrivateBus> bus_;
};

// Elements under test whose finalization TearDown waits for before it asks the leaks tracer what
// is alive: an element's worker may drop its last reference on its own thread just after the
// test let go, and the tracer's list of live objects takes a reference of every listed object,
// which must not meet one being finalized.
void watchFinalization(GstElement* element);
// Waits until every watched element was finalized; false when one was not within `timeout`.
bool waitWatchedFinalized(std::chrono::milliseconds timeout);

// The names of the GStreamer objects the leaks tracer sees alive; empty without the tracer.
// Objects flagged MAY_BE_LEAKED (pad templates among them) are not listed.
std::vector<std::string> liveGstObjects();

// Counts the objects of one type that the leaks tracer saw created and destroyed between start()
// and stop(), objects flagged MAY_BE_LEAKED included.
class ObjectTally {
 public:
  explicit ObjectTally(std::string typeName) : typeName_(std::move(typeName)) {}
  // False without the leaks tracer.
  bool start();
  // Objects of the type created minus those destroyed since start().
  int stop();

 private:
  std::string typeName_;
  GstTracer* tracer_ = nullptr;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_GST_GST_TEST_SUPPORT_H_
