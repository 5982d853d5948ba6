// The pipeline runner, the fixture and the main of the element's tests.

#include "gst_test_support.h"

#include <stdlib.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "test_support.h"

namespace zvr_test {

Playback::Playback(const std::string& uri, bool sync, guint timeoutMs) : timeoutMs_(timeoutMs) {
  pipeline_ = gst_element_factory_make("playbin", nullptr);
  gst_object_ref_sink(pipeline_);
  GstElement* video = gst_element_factory_make("fakesink", "video");
  GstElement* audio = gst_element_factory_make("fakesink", "audio");
  g_object_set(video, "sync", sync, "signal-handoffs", TRUE, nullptr);
  GstPad* videoPad = gst_element_get_static_pad(video, "sink");
  gst_pad_add_probe(videoPad, GST_PAD_PROBE_TYPE_EVENT_FLUSH, onVideoEvent, this, nullptr);
  gst_object_unref(videoPad);
  g_object_set(audio, "sync", sync, nullptr);
  g_signal_connect(video, "handoff", G_CALLBACK(onHandoff), this);
  g_object_set(pipeline_, "uri", uri.c_str(), "video-sink", video, "audio-sink", audio, nullptr);
  // Video and audio only: playbin's software volume element outlives its pipeline in this
  // GStreamer version, which the leaks check would report against the element under test.
  gst_util_set_object_arg(G_OBJECT(pipeline_), "flags", "video+audio");
  g_signal_connect(pipeline_, "source-setup", G_CALLBACK(onSourceSetup), this);
  bus_ = gst_element_get_bus(pipeline_);
  gst_bus_set_sync_handler(bus_, onSyncMessage, this, nullptr);
}

Playback::~Playback() {
  gst_element_set_state(pipeline_, GST_STATE_NULL);
  gst_bus_set_sync_handler(bus_, nullptr, nullptr, nullptr);
  gst_object_unref(bus_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (source_ != nullptr) gst_object_unref(source_);
    source_ = nullptr;
  }
  gst_object_unref(pipeline_);
}

void Playback::onHandoff(GstElement*, GstBuffer* buffer, GstPad*, gpointer self) {
  Playback* p = static_cast<Playback*>(self);
  std::lock_guard<std::mutex> lock(p->mutex_);
  ++p->frames_;
  p->timestamps_.push_back(GST_BUFFER_PTS(buffer));
  p->sinceFlush_.push_back(GST_BUFFER_PTS(buffer));
}

GstPadProbeReturn Playback::onVideoEvent(GstPad*, GstPadProbeInfo* info, gpointer self) {
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_FLUSH_STOP) {
    Playback* p = static_cast<Playback*>(self);
    std::lock_guard<std::mutex> lock(p->mutex_);
    ++p->flushes_;
    p->sinceFlush_.clear();
  }
  return GST_PAD_PROBE_OK;
}

void Playback::onNotify(GObject* source, GParamSpec* pspec, gpointer log) {
  PropertyNotification notification;
  notification.property = g_param_spec_get_name(pspec);
  gchar* value = nullptr;
  g_object_get(source, notification.property.c_str(), &value, nullptr);
  notification.value = value != nullptr ? value : "";
  g_free(value);
  NotificationLog& l = **static_cast<std::shared_ptr<NotificationLog>*>(log);
  std::lock_guard<std::mutex> lock(l.mutex);
  l.entries.push_back(notification);
}

void Playback::onSourceSetup(GstElement*, GstElement* source, gpointer self) {
  Playback* p = static_cast<Playback*>(self);
  if (p->timeoutMs_ != 0) g_object_set(source, "timeout", p->timeoutMs_, nullptr);
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(source), "proxy-id") != nullptr) {
    for (const char* signal : {"notify::proxy-id", "notify::local-url", "notify::definitions"}) {
      g_signal_connect_data(
          source, signal, G_CALLBACK(onNotify),
          new std::shared_ptr<NotificationLog>(p->notifications_),
          [](gpointer log, GClosure*) {
            delete static_cast<std::shared_ptr<NotificationLog>*>(log);
          },
          static_cast<GConnectFlags>(0));
    }
  }
  watchFinalization(source);
  std::lock_guard<std::mutex> lock(p->mutex_);
  if (p->source_ != nullptr) gst_object_unref(p->source_);
  p->source_ = GST_ELEMENT(gst_object_ref(source));
}

namespace {

// The watched elements not yet finalized. Never destroyed: a weak notification may come from
// an element's worker at any time.
struct Watched {
  std::mutex mutex;
  std::condition_variable finalized;
  int alive = 0;
};

Watched& watched() {
  static Watched* const w = new Watched;
  return *w;
}

}  // namespace

void watchFinalization(GstElement* element) {
  {
    std::lock_guard<std::mutex> lock(watched().mutex);
    ++watched().alive;
  }
  g_object_weak_ref(
      G_OBJECT(element),
      [](gpointer, GObject*) {
        std::lock_guard<std::mutex> lock(watched().mutex);
        --watched().alive;
        watched().finalized.notify_all();
      },
      nullptr);
}

bool waitWatchedFinalized(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(watched().mutex);
  return watched().finalized.wait_for(lock, timeout, [] { return watched().alive == 0; });
}

GstBusSyncReply Playback::onSyncMessage(GstBus*, GstMessage* message, gpointer self) {
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) return GST_BUS_PASS;
  PostedError posted;
  posted.at = Clock::now();
  GError* error = nullptr;
  gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  posted.message = error->message;
  posted.debug = debug != nullptr ? debug : "";
  posted.resourceDomain = error->domain == GST_RESOURCE_ERROR;
  posted.domainCode = error->code;
  gchar* name = gst_object_get_path_string(GST_MESSAGE_SRC(message));
  posted.source = name;
  g_free(name);
  g_clear_error(&error);
  g_free(debug);
  Playback* p = static_cast<Playback*>(self);
  std::lock_guard<std::mutex> lock(p->mutex_);
  p->errors_.push_back(posted);
  return GST_BUS_PASS;
}

GstElement* Playback::source() {
  std::lock_guard<std::mutex> lock(mutex_);
  return source_;
}

std::string Playback::sourceProperty(const char* name) {
  GstElement* element = source();
  if (element == nullptr) return "";
  gchar* value = nullptr;
  g_object_get(element, name, &value, nullptr);
  std::string text = value != nullptr ? value : "";
  g_free(value);
  return text;
}

GstStateChangeReturn Playback::setState(GstState state) {
  return gst_element_set_state(pipeline_, state);
}

std::chrono::milliseconds Playback::timedSetState(GstState state) {
  const auto begin = Clock::now();
  gst_element_set_state(pipeline_, state);
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
}

bool Playback::waitState(GstState state, std::chrono::milliseconds timeout) {
  GstState current = GST_STATE_VOID_PENDING, pending = GST_STATE_VOID_PENDING;
  const GstStateChangeReturn result = gst_element_get_state(
      pipeline_, &current, &pending, static_cast<GstClockTime>(timeout.count()) * GST_MSECOND);
  return result != GST_STATE_CHANGE_FAILURE && result != GST_STATE_CHANGE_ASYNC && current == state;
}

GstMessage* Playback::waitMessage(GstMessageType types, std::chrono::milliseconds timeout) {
  return gst_bus_timed_pop_filtered(bus_, static_cast<GstClockTime>(timeout.count()) * GST_MSECOND,
                                    types);
}

bool Playback::playToEos(std::chrono::milliseconds timeout, std::string* error) {
  if (setState(GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) return false;
  GstMessage* message =
      waitMessage(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), timeout);
  if (message == nullptr) {
    if (error != nullptr) *error = "no EOS in time";
    return false;
  }
  const bool eos = GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
  if (!eos && error != nullptr) {
    GError* e = nullptr;
    gst_message_parse_error(message, &e, nullptr);
    *error = e->message;
    g_clear_error(&e);
  }
  gst_message_unref(message);
  return eos;
}

bool Playback::waitFrames(int count, std::chrono::milliseconds timeout) {
  return eventually([this, count] { return videoFrames() >= count; }, timeout);
}

bool Playback::waitError(std::chrono::milliseconds timeout, PostedError* error) {
  const bool posted = eventually(
      [this] {
        std::lock_guard<std::mutex> lock(mutex_);
        return !errors_.empty();
      },
      timeout);
  if (posted && error != nullptr) {
    std::lock_guard<std::mutex> lock(mutex_);
    *error = errors_.front();
  }
  return posted;
}

int Playback::videoFrames() {
  std::lock_guard<std::mutex> lock(mutex_);
  return frames_;
}

std::vector<GstClockTime> Playback::timestamps() {
  std::lock_guard<std::mutex> lock(mutex_);
  return timestamps_;
}

void Playback::clearTimestamps() {
  std::lock_guard<std::mutex> lock(mutex_);
  timestamps_.clear();
}

int Playback::flushes() {
  std::lock_guard<std::mutex> lock(mutex_);
  return flushes_;
}

std::vector<GstClockTime> Playback::sinceFlush() {
  std::lock_guard<std::mutex> lock(mutex_);
  return sinceFlush_;
}

std::vector<PropertyNotification> Playback::notifications() {
  std::lock_guard<std::mutex> lock(notifications_->mutex);
  return notifications_->entries;
}

std::vector<std::string> liveGstObjects() {
  std::vector<std::string> names;
  GList* tracers = gst_tracing_get_active_tracers();
  for (GList* t = tracers; t != nullptr; t = t->next) {
    GstTracer* tracer = GST_TRACER(t->data);
    if (g_strcmp0(G_OBJECT_TYPE_NAME(tracer), "GstLeaksTracer") != 0) continue;
    GstStructure* info = nullptr;
    g_signal_emit_by_name(tracer, "get-live-objects", &info);
    const GValue* list =
        info != nullptr ? gst_structure_get_value(info, "live-objects-list") : nullptr;
    for (guint i = 0; list != nullptr && i < gst_value_list_get_size(list); ++i) {
      const GstStructure* entry = gst_value_get_structure(gst_value_list_get_value(list, i));
      const GValue* object = gst_structure_get_value(entry, "object");
      if (object == nullptr) continue;
      // The tracer hands over its listed objects without a reference of their own: one is
      // taken here for the one that freeing the list drops.
      const GType type = G_VALUE_TYPE(object);
      if (G_VALUE_HOLDS_OBJECT(object)) {
        g_object_ref(g_value_get_object(object));
      } else if (g_type_is_a(type, GST_TYPE_MINI_OBJECT)) {
        gst_mini_object_ref(GST_MINI_OBJECT_CAST(g_value_get_boxed(object)));
      }
      // The registry's plugins and features live as long as the process, by design.
      if (g_type_is_a(type, GST_TYPE_PLUGIN_FEATURE) || g_type_is_a(type, GST_TYPE_PLUGIN)) {
        continue;
      }
      gchar* description = gst_value_serialize(object);
      names.push_back(std::string(g_type_name(type)) + " " +
                      (description != nullptr ? description : ""));
      g_free(description);
    }
    if (info != nullptr) gst_structure_free(info);
  }
  g_list_free_full(tracers, gst_object_unref);
  return names;
}

namespace {

GstTracer* leaksTracer() {
  GstTracer* found = nullptr;
  GList* tracers = gst_tracing_get_active_tracers();
  for (GList* t = tracers; t != nullptr && found == nullptr; t = t->next) {
    if (g_strcmp0(G_OBJECT_TYPE_NAME(t->data), "GstLeaksTracer") == 0) {
      found = GST_TRACER(gst_object_ref(t->data));
    }
  }
  g_list_free_full(tracers, gst_object_unref);
  return found;
}

int countOfType(const GstStructure* checkpoint, const char* list, const std::string& typeName) {
  const GValue* entries = gst_structure_get_value(checkpoint, list);
  int count = 0;
  for (guint i = 0; entries != nullptr && i < gst_value_list_get_size(entries); ++i) {
    const GstStructure* entry = gst_value_get_structure(gst_value_list_get_value(entries, i));
    if (typeName == gst_structure_get_string(entry, "type-name")) ++count;
  }
  return count;
}

}  // namespace

// Waits until GStreamer has made and destroyed no object for `quiet`, at most `timeout`. The
// leaks tracer lists the live objects under references it takes of each while copying the list,
// which must not meet an object that another thread is finalizing: GStreamer's own threads may
// still let go of the last objects of a pipeline just after the test did.
bool waitGstQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) {
  GstTracer* tracer = leaksTracer();
  if (tracer == nullptr) return true;
  g_signal_emit_by_name(tracer, "activity-start-tracking");
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  bool isQuiet = false;
  while (!isQuiet && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(quiet);
    GstStructure* checkpoint = nullptr;
    g_signal_emit_by_name(tracer, "activity-get-checkpoint", &checkpoint);
    if (checkpoint == nullptr) break;
    isQuiet = true;
    for (const char* list : {"objects-created-list", "objects-removed-list"}) {
      const GValue* entries = gst_structure_get_value(checkpoint, list);
      isQuiet = isQuiet && (entries == nullptr || gst_value_list_get_size(entries) == 0);
    }
    gst_structure_free(checkpoint);
  }
  g_signal_emit_by_name(tracer, "activity-stop-tracking");
  gst_object_unref(tracer);
  return isQuiet;
}

bool ObjectTally::start() {
  tracer_ = leaksTracer();
  if (tracer_ == nullptr) return false;
  g_signal_emit_by_name(tracer_, "activity-start-tracking");
  return true;
}

int ObjectTally::stop() {
  if (tracer_ == nullptr) return 0;
  GstStructure* checkpoint = nullptr;
  g_signal_emit_by_name(tracer_, "activity-get-checkpoint", &checkpoint);
  g_signal_emit_by_name(tracer_, "activity-stop-tracking");
  gst_object_unref(tracer_);
  tracer_ = nullptr;
  if (checkpoint == nullptr) return 0;
  const int alive = countOfType(checkpoint, "objects-created-list", typeName_) -
                    countOfType(checkpoint, "objects-removed-list", typeName_);
  gst_structure_free(checkpoint);
  return alive;
}

void ZvrGstTest::startService(const std::vector<std::string>& options, bool activatable) {
  bus_ = std::make_unique<PrivateBus>(options, activatable);
  if (activatable) {
    ASSERT_TRUE(bus_->startEmulator());
  }
}

void ZvrGstTest::TearDown() {
  // Every pipeline of the test is gone by now; a worker that still holds its element lets go
  // as soon as it sees the cancellation.
  EXPECT_TRUE(waitWatchedFinalized(std::chrono::milliseconds(5000)))
      << "an element under test was not finalized";
  std::vector<std::string> live;
  const bool none = eventually(
      [&live] {
        waitGstQuiet(std::chrono::milliseconds(20), std::chrono::milliseconds(1000));
        live = liveGstObjects();
        return live.empty();
      },
      std::chrono::milliseconds(3000));
  if (!none) {
    std::string list;
    for (const std::string& name : live) list += " " + name;
    ADD_FAILURE() << live.size() << " GStreamer objects leaked:" << list;
  }
}

}  // namespace zvr_test

int main(int argc, char** argv) {
  // Listing the tests needs no GStreamer.
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--gtest_list_tests") {
      ::testing::InitGoogleTest(&argc, argv);
      return RUN_ALL_TESTS();
    }
  }
  // The plugin from the build tree and the system plugins the tests use, scanned in this process,
  // into a registry of the build tree; the leaks tracer without stack traces, which would slow
  // every allocation.
  setenv("GST_PLUGIN_PATH", ZVR_GST_PLUGIN_DIR, 1);
  setenv("GST_PLUGIN_SYSTEM_PATH_1_0", ZVR_GST_SYSTEM_PLUGIN_DIR, 1);
  setenv("GST_REGISTRY_FORK", "no", 1);
  setenv("GST_REGISTRY", ZVR_GST_REGISTRY, 0);
  setenv("GST_TRACERS", "leaks", 0);
  unsetenv("GST_LEAKS_TRACER_STACK_TRACE");
  setenv("ZVR_LOG_LEVEL", "0", 0);
  gst_init(&argc, &argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
