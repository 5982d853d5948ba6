// zvrsrc in playbin against the emulator: the generated clips play to EOS with every video frame
// decoded, seeks land, pause and resume, eight pipelines play at once, definitions arrive.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "gst_test_support.h"
#include "media_test_support.h"
#include "test_support.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using zvr_test::clipUri;
using zvr_test::Playback;
using namespace std::chrono_literals;

class ZvrSrcPlayback : public zvr_test::ZvrGstTest,
                       public ::testing::WithParamInterface<const char*> {};

TEST_P(ZvrSrcPlayback, PlaysTheClipToEosDecodingAllNinetyVideoFrames) {
  startService();
  Playback playback(clipUri(GetParam()));
  std::string error;
  ASSERT_TRUE(playback.playToEos(20s, &error)) << error;
  EXPECT_EQ(playback.videoFrames(), 90);
  EXPECT_THAT(playback.sourceProperty("proxy-id"), StartsWith("zvr-"));
  EXPECT_THAT(playback.sourceProperty("local-url"), StartsWith("http://127.0.0.1:"));
  EXPECT_EQ(G_OBJECT_TYPE_NAME(playback.source()), std::string("GstZvrSrc"));
}

INSTANTIATE_TEST_SUITE_P(Clips, ZvrSrcPlayback,
                         ::testing::Values("clip.webm", "clip.mp4", "clip.ts"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                           std::string name = info.param;
                           return name.substr(name.find('.') + 1);
                         });

// The seek test runs through the element and, as the reference it is held to, through playbin on
// the same local URL directly.
enum class Route { kThroughZvrsrc, kLocalUrlDirectly };

class ZvrSrcSeek : public zvr_test::ZvrGstTest,
                   public ::testing::WithParamInterface<std::tuple<const char*, Route>> {};

// The seek events that reach the source's src pad from downstream.
struct UpstreamSeeks {
  static GstPadProbeReturn record(GstPad*, GstPadProbeInfo* info, gpointer self) {
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_SEEK) {
      GstFormat format;
      gint64 start = 0;
      gst_event_parse_seek(event, nullptr, &format, nullptr, nullptr, &start, nullptr, nullptr);
      auto* seeks = static_cast<UpstreamSeeks*>(self);
      std::lock_guard<std::mutex> lock(seeks->mutex);
      seeks->seen.emplace_back(format, start);
    }
    return GST_PAD_PROBE_OK;
  }
  bool sawByteSeekPastTheStart() {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& seek : seen) {
      if (seek.first == GST_FORMAT_BYTES && seek.second > 0) return true;
    }
    return false;
  }
  std::mutex mutex;
  std::vector<std::pair<GstFormat, gint64>> seen;
};

// Playing in real time, about 0.3 s into the clip, a flushing accurate seek to 2.0 s. The
// demuxer turns it into a seek by bytes that reaches the source: the local URL is read again
// from past its start. For WebM and MP4 the first frame that the video sink renders after the
// seek's flush is the target, within 0.1 s, and no frame from before 1.9 s follows the flush;
// without the seek no flush comes and playback goes on from 0.3 s.
//
// MPEG-TS is checked for the seek by bytes and for playback to the end only: tsdemux reads in
// push mode and estimates the byte offset of the target from what it has seen, and with
// GStreamer 1.22 its output after the flush often starts early, with playbin on the local URL
// directly, without the element, as often as through it. Measured with this test's steps and
// the frame checks applied to MPEG-TS, eight runs each way per series: in the default build the
// first frame after the flush was 2.0 s in 7 of 8 runs through the element and in 7 of 8 directly
// (8 of 8 both ways in another series); under AddressSanitizer in 2 of 8 both ways, the others
// starting at 0.125 s, 1.56 s or 1.66 s. Seeking while paused right after the preroll instead, it
// started at 0.1 to 1.4 s in 10 of 23 runs through the element and in 13 of 23 directly.
TEST_P(ZvrSrcSeek, SeeksByBytesThroughTheSourceAndTheFirstFrameAfterTheFlushIsTheTarget) {
  const std::string clip = std::get<0>(GetParam());
  const bool accurate = clip != "clip.ts";
  startService();
  std::unique_ptr<Playback> played;
  std::unique_ptr<Playback> opener;
  if (std::get<1>(GetParam()) == Route::kLocalUrlDirectly) {
    // The element only opens the local URL here, and stays paused.
    opener = std::make_unique<Playback>(clipUri(clip));
    ASSERT_NE(opener->setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    ASSERT_TRUE(opener->waitState(GST_STATE_PAUSED, 10s));
    played = std::make_unique<Playback>(opener->sourceProperty("local-url"), /*sync=*/true);
  } else {
    played = std::make_unique<Playback>(clipUri(clip), /*sync=*/true);
  }
  Playback& playback = *played;
  ASSERT_NE(playback.setState(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(playback.waitFrames(10, 10s));
  UpstreamSeeks seeks;
  GstPad* sourcePad = gst_element_get_static_pad(playback.source(), "src");
  ASSERT_NE(sourcePad, nullptr);
  const gulong probe = gst_pad_add_probe(sourcePad, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM,
                                         UpstreamSeeks::record, &seeks, nullptr);
  const int flushesBefore = playback.flushes();
  ASSERT_TRUE(gst_element_seek_simple(
      playback.pipeline(), GST_FORMAT_TIME,
      static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE), 2 * GST_SECOND));
  ASSERT_TRUE(zvr_test::eventually([&playback, flushesBefore] {
    return playback.flushes() > flushesBefore && !playback.sinceFlush().empty();
  }));
  const GstClockTime first = playback.sinceFlush().front();
  std::string error;
  EXPECT_TRUE(playback.playToEos(20s, &error)) << error;
  gst_pad_remove_probe(sourcePad, probe);
  gst_object_unref(sourcePad);
  EXPECT_TRUE(seeks.sawByteSeekPastTheStart());
  if (!accurate) return;
  EXPECT_NEAR(static_cast<double>(first) / GST_SECOND, 2.0, 0.1);
  for (GstClockTime t : playback.sinceFlush()) {
    EXPECT_GE(t, 1900 * GST_MSECOND) << "a frame from before the seek's target after its flush";
  }
}

INSTANTIATE_TEST_SUITE_P(Clips, ZvrSrcSeek,
                         ::testing::Combine(::testing::Values("clip.webm", "clip.mp4", "clip.ts"),
                                            ::testing::Values(Route::kThroughZvrsrc,
                                                              Route::kLocalUrlDirectly)),
                         [](const ::testing::TestParamInfo<std::tuple<const char*, Route>>& info) {
                           std::string name = std::get<0>(info.param);
                           return name.substr(name.find('.') + 1) +
                                  (std::get<1>(info.param) == Route::kThroughZvrsrc
                                       ? "_through_zvrsrc"
                                       : "_local_url_directly");
                         });

using ZvrSrcTest = zvr_test::ZvrGstTest;

TEST_F(ZvrSrcTest, PlaysAZvrHttpUriFromALoopbackServer) {
  startService();
  httplib::Server server;
  server.set_mount_point("/media", ZVR_TEST_MEDIA_DIR);
  // One request per connection: the service's reader holds none open when the server stops.
  server.set_keep_alive_max_count(1);
  std::thread thread;
  const int port = zvr_test::startLoopbackServer(server, thread);
  {
    Playback playback("zvr+http://127.0.0.1:" + std::to_string(port) + "/media/clip.webm");
    std::string error;
    EXPECT_TRUE(playback.playToEos(20s, &error)) << error;
    EXPECT_EQ(playback.videoFrames(), 90);
  }
  server.stop();
  thread.join();
}

TEST_F(ZvrSrcTest, TimeSeekReachingTheElementGoesToTheRemotePlayerAndIsRefused) {
  startService();
  Playback playback(clipUri("clip.webm"));
  ASSERT_NE(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(playback.waitState(GST_STATE_PAUSED, 10s));
  GstElement* source = playback.source();
  ASSERT_NE(source, nullptr);
  GstPad* pad = gst_element_get_static_pad(source, "src");
  ASSERT_NE(pad, nullptr);
  GstEvent* seek = gst_event_new_seek(1.0, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SEEK_TYPE_SET,
                                      1500 * GST_MSECOND, GST_SEEK_TYPE_NONE, GST_CLOCK_TIME_NONE);
  EXPECT_FALSE(gst_pad_send_event(pad, seek));
  gst_object_unref(pad);
  ASSERT_TRUE(bus_->waitRecorded(3, 5000));
  bool seekSent = false;
  for (const auto& command : bus_->recordedCommands()) {
    if (!command.empty() && command[0] == "seek") {
      seekSent = true;
      ASSERT_GT(command.size(), 5u);
      EXPECT_DOUBLE_EQ(std::stod(command[5]), 1.5);
    }
  }
  EXPECT_TRUE(seekSent);
}

// A SCHEDULING query answered as a network source does: push mode, bandwidth-limited.
void expectANetworkSourcesAnswer(GstQuery* query) {
  GstSchedulingFlags flags;
  gst_query_parse_scheduling(query, &flags, nullptr, nullptr, nullptr);
  EXPECT_TRUE(flags & GST_SCHEDULING_FLAG_BANDWIDTH_LIMITED);
  EXPECT_TRUE(gst_query_has_scheduling_mode(query, GST_PAD_MODE_PUSH));
}

TEST_F(ZvrSrcTest, SrcPadAnswersTheSchedulingQueryAsANetworkSource) {
  startService();
  Playback playback(clipUri("clip.webm"));
  ASSERT_NE(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(playback.waitState(GST_STATE_PAUSED, 10s));
  GstPad* pad = gst_element_get_static_pad(playback.source(), "src");
  ASSERT_NE(pad, nullptr);
  EXPECT_EQ(GST_PAD_TEMPLATE_PRESENCE(GST_PAD_PAD_TEMPLATE(pad)), GST_PAD_SOMETIMES);
  GstQuery* query = gst_query_new_scheduling();
  ASSERT_TRUE(gst_pad_query(pad, query));
  expectANetworkSourcesAnswer(query);
  gst_query_unref(query);
  gst_object_unref(pad);
}

// Whether playbin3's urisourcebin took the source of `uri` for a stream: the multiqueue after its
// demuxer then buffers (playbin3's buffering flag, on by default); for a local source it does not.
bool takenForAStream(const std::string& uri) {
  GstElement* pipeline = gst_element_factory_make("playbin3", nullptr);
  if (pipeline == nullptr) return false;
  g_object_set(pipeline, "uri", uri.c_str(), "video-sink",
               gst_element_factory_make("fakesink", nullptr), "audio-sink",
               gst_element_factory_make("fakesink", nullptr), nullptr);
  // Without the software volume, which playbin3 of GStreamer 1.22 leaves behind.
  gst_util_set_object_arg(G_OBJECT(pipeline), "flags", "video+audio+buffering");
  g_signal_connect(
      pipeline, "source-setup", G_CALLBACK(+[](GstElement*, GstElement* source, gpointer) {
        if (std::string(GST_OBJECT_NAME(gst_element_get_factory(source))) == "zvrsrc") {
          zvr_test::watchFinalization(source);
        }
      }),
      nullptr);
  gst_element_set_state(pipeline, GST_STATE_PAUSED);
  EXPECT_EQ(gst_element_get_state(pipeline, nullptr, nullptr, 10 * GST_SECOND),
            GST_STATE_CHANGE_SUCCESS)
      << uri;
  bool buffers = false;
  GstIterator* all = gst_bin_iterate_recurse(GST_BIN(pipeline));
  GValue item = G_VALUE_INIT;
  while (gst_iterator_next(all, &item) == GST_ITERATOR_OK) {
    GstElement* child = GST_ELEMENT(g_value_get_object(&item));
    GstElementFactory* factory = gst_element_get_factory(child);
    GstObject* parent = gst_object_get_parent(GST_OBJECT(child));
    GstElementFactory* parentFactory = parent != nullptr && GST_IS_ELEMENT(parent)
                                           ? gst_element_get_factory(GST_ELEMENT(parent))
                                           : nullptr;
    if (factory != nullptr && std::string(GST_OBJECT_NAME(factory)) == "multiqueue" &&
        parentFactory != nullptr && std::string(GST_OBJECT_NAME(parentFactory)) == "urisourcebin") {
      gboolean useBuffering = FALSE;
      g_object_get(child, "use-buffering", &useBuffering, nullptr);
      buffers = buffers || useBuffering;
    }
    if (parent != nullptr) gst_object_unref(parent);
    g_value_reset(&item);
  }
  g_value_unset(&item);
  gst_iterator_free(all);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return buffers;
}

// playbin's source bins ask the element itself, right after making it, before any pad exists (a
// bin would ask its sink children, of which it has none), whether it is a stream.
TEST_F(ZvrSrcTest, ElementAnswersTheSchedulingQueryBeforeItHasAPadSoPlaybinBuffersAStream) {
  GstElement* element = gst_element_factory_make("zvrsrc", nullptr);
  ASSERT_NE(element, nullptr);
  GstQuery* query = gst_query_new_scheduling();
  ASSERT_TRUE(gst_element_query(element, query));
  expectANetworkSourcesAnswer(query);
  gst_query_unref(query);
  gst_object_unref(element);

  startService();
  EXPECT_FALSE(takenForAStream("file://" + zvr_test::clipPath("clip.webm")));
  EXPECT_TRUE(takenForAStream(clipUri("clip.webm")));
}

// A player that waits for enough data before it plays (WPE WebKit) learns of it from buffering
// messages; playbin's uridecodebin buffers only sources with an always pad, so the element
// buffers its stream itself and reports the fill up to 100 %.
TEST_F(ZvrSrcTest, BufferingMessagesOfTheElementsStreamReach100Percent) {
  startService();
  Playback playback(clipUri("clip.webm"));
  ASSERT_NE(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  int percent = -1;
  std::string from;
  while (percent < 100) {
    GstMessage* message = playback.waitMessage(GST_MESSAGE_BUFFERING, 10s);
    ASSERT_NE(message, nullptr) << "the last buffering message said " << percent << " %";
    gst_message_parse_buffering(message, &percent);
    GstObject* parent = gst_object_get_parent(GST_MESSAGE_SRC(message));
    from = parent != nullptr ? GST_OBJECT_NAME(parent) : "";
    if (parent != nullptr) gst_object_unref(parent);
    gst_message_unref(message);
  }
  EXPECT_EQ(from, GST_OBJECT_NAME(playback.source()));
}

TEST_F(ZvrSrcTest, PlaysAgainAfterGoingBackToReadyWithANewProxy) {
  startService();
  Playback playback(clipUri("clip.webm"));
  std::string error;
  ASSERT_TRUE(playback.playToEos(20s, &error)) << error;
  const std::string first = playback.sourceProperty("proxy-id");
  ASSERT_NE(playback.setState(GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(playback.waitFrames(90, 1s));
  ASSERT_TRUE(playback.playToEos(20s, &error)) << error;
  EXPECT_EQ(playback.videoFrames(), 180);
  EXPECT_NE(playback.sourceProperty("proxy-id"), first);
  // The first proxy was stopped when the element left PAUSED.
  bool stopped = false;
  for (const auto& command : bus_->recordedCommands()) {
    if (command.size() > 3 && command[0] == "stop" && command[3] == first) stopped = true;
  }
  EXPECT_TRUE(stopped);
}

TEST_F(ZvrSrcTest, PausesAndResumesWithoutLosingFrames) {
  startService();
  Playback playback(clipUri("clip.webm"), /*sync=*/true);
  ASSERT_NE(playback.setState(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(playback.waitFrames(10, 10s));
  ASSERT_NE(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(playback.waitState(GST_STATE_PAUSED, 5s));
  const int paused = playback.videoFrames();
  EXPECT_LT(paused, 90);
  // Paused for a third of a second: at 30 fps, ten frames would have been shown.
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(playback.videoFrames(), paused);
  std::string error;
  ASSERT_TRUE(playback.playToEos(20s, &error)) << error;
  EXPECT_EQ(playback.videoFrames(), 90);
}

TEST_F(ZvrSrcTest, EightPipelinesPlayConcurrentlyEachWithItsOwnProxy) {
  startService();
  std::vector<std::unique_ptr<Playback>> playbacks;
  for (int i = 0; i < 8; ++i) {
    playbacks.push_back(std::make_unique<Playback>(clipUri(i % 2 ? "clip.mp4" : "clip.webm")));
  }
  for (auto& p : playbacks) ASSERT_NE(p->setState(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  std::set<std::string> ids;
  for (auto& p : playbacks) {
    GstMessage* message =
        p->waitMessage(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), 60s);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(message), GST_MESSAGE_EOS);
    gst_message_unref(message);
    EXPECT_EQ(p->videoFrames(), 90);
    ids.insert(p->sourceProperty("proxy-id"));
  }
  EXPECT_EQ(ids.size(), 8u);
  EXPECT_EQ(ids.count(""), 0u);
}

TEST_F(ZvrSrcTest, DefinitionsArriveAsElementMessageAndProperty) {
  startService({"definition-delay=0"});
  Playback playback(clipUri("clip.webm"));
  std::string notified;
  ASSERT_NE(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  GstMessage* message = nullptr;
  const auto giveUp = zvr_test::Clock::now() + 10s;
  while (message == nullptr && zvr_test::Clock::now() < giveUp) {
    GstMessage* m = playback.waitMessage(GST_MESSAGE_ELEMENT, 1s);
    if (m != nullptr && gst_message_has_name(m, "zvr-definitions")) {
      message = m;
    } else if (m != nullptr) {
      gst_message_unref(m);
    }
  }
  ASSERT_NE(message, nullptr);
  const GstStructure* s = gst_message_get_structure(message);
  const std::string definitions = gst_structure_get_string(s, "definitions");
  EXPECT_FALSE(definitions.empty());
  EXPECT_EQ(gst_structure_get_string(s, "proxy-id"), playback.sourceProperty("proxy-id"));
  EXPECT_EQ(playback.sourceProperty("definitions"), definitions);
  gst_message_unref(message);
}

TEST_F(ZvrSrcTest, PlaybinPicksTheElementForEveryZvrScheme) {
  for (const char* uri :
       {"zvr+file:///a/b.webm", "zvr+http://127.0.0.1/x.webm", "zvr+https://example.test/x"}) {
    GError* error = nullptr;
    GstElement* element = gst_element_make_from_uri(GST_URI_SRC, uri, nullptr, &error);
    ASSERT_NE(element, nullptr) << uri << ": " << (error ? error->message : "");
    EXPECT_STREQ(GST_OBJECT_NAME(gst_element_get_factory(element)), "zvrsrc");
    gchar* back = gst_uri_handler_get_uri(GST_URI_HANDLER(element));
    EXPECT_STREQ(back, uri);
    g_free(back);
    gst_object_unref(gst_object_ref_sink(element));
  }
  GstElement* element = gst_element_factory_make("zvrsrc", nullptr);
  GError* error = nullptr;
  EXPECT_FALSE(gst_uri_handler_set_uri(GST_URI_HANDLER(element), "file:///a/b.webm", &error));
  g_clear_error(&error);
  gst_object_unref(gst_object_ref_sink(element));
}

// A pipeline of zvrsrc and a fakesink, linked when the pad appears: the same element goes
// through READY and PAUSED again and again.
class Standalone {
 public:
  explicit Standalone(const std::string& uri) {
    pipeline_ = GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)));
    GError* error = nullptr;
    source_ = gst_element_make_from_uri(GST_URI_SRC, uri.c_str(), nullptr, &error);
    g_clear_error(&error);
    zvr_test::watchFinalization(source_);
    sink_ = gst_element_factory_make("fakesink", nullptr);
    g_object_set(sink_, "sync", FALSE, nullptr);
    gst_bin_add_many(GST_BIN(pipeline_), source_, sink_, nullptr);
    g_signal_connect(source_, "pad-added", G_CALLBACK(onPadAdded), sink_);
  }
  ~Standalone() {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
  }
  Standalone(const Standalone&) = delete;
  Standalone& operator=(const Standalone&) = delete;

  GstElement* pipeline() const { return pipeline_; }
  GstElement* source() const { return source_; }
  std::string property(const char* name) {
    gchar* value = nullptr;
    g_object_get(source_, name, &value, nullptr);
    std::string text = value != nullptr ? value : "";
    g_free(value);
    return text;
  }

 private:
  static void onPadAdded(GstElement*, GstPad* pad, gpointer sink) {
    GstPad* sinkPad = gst_element_get_static_pad(GST_ELEMENT(sink), "sink");
    if (!gst_pad_is_linked(sinkPad)) gst_pad_link(pad, sinkPad);
    gst_object_unref(sinkPad);
  }

  GstElement* pipeline_ = nullptr;
  GstElement* source_ = nullptr;
  GstElement* sink_ = nullptr;
};

TEST_F(ZvrSrcTest, SrcPadIsMadeFromTheClassTemplateAndLeavesNoTemplateBehind) {
  startService();
  Standalone element(clipUri("clip.webm"));
  auto prerolled = [&element] {
    return gst_element_get_state(element.pipeline(), nullptr, nullptr, 10 * GST_SECOND) ==
           GST_STATE_CHANGE_SUCCESS;
  };
  // The first preroll makes the classes' own templates, which live as long as the process.
  ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(prerolled());
  GstPad* pad = gst_element_get_static_pad(element.source(), "src");
  ASSERT_NE(pad, nullptr);
  EXPECT_EQ(GST_PAD_PAD_TEMPLATE(pad),
            gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(element.source()), "src"));
  gst_object_unref(pad);
  ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
  // Nobody reads this pipeline's bus, and each message there holds its source, the element's
  // internal ones (with the pads their class makes from templates) included.
  auto dropMessages = [&element] {
    GstBus* bus = gst_element_get_bus(element.pipeline());
    while (GstMessage* message = gst_bus_pop(bus)) gst_message_unref(message);
    gst_object_unref(bus);
  };
  dropMessages();
  // Pad templates are flagged MAY_BE_LEAKED, which the leaks check after each test skips: they
  // are tallied here with every object the tracer sees made and destroyed while three more URLs
  // arrive for the same element.
  zvr_test::ObjectTally templates("GstPadTemplate");
  ASSERT_TRUE(templates.start());
  for (int i = 0; i < 3; ++i) {
    ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_PAUSED),
              GST_STATE_CHANGE_FAILURE);
    ASSERT_TRUE(prerolled());
    ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    dropMessages();
  }
  EXPECT_EQ(templates.stop(), 0);
}

TEST_F(ZvrSrcTest, StaysFlaggedAsASourceAfterGoingBackToReady) {
  startService();
  Standalone element(clipUri("clip.webm"));
  ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  ASSERT_EQ(gst_element_get_state(element.pipeline(), nullptr, nullptr, 10 * GST_SECOND),
            GST_STATE_CHANGE_SUCCESS);
  EXPECT_TRUE(GST_OBJECT_FLAG_IS_SET(element.source(), GST_ELEMENT_FLAG_SOURCE));
  ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
  EXPECT_TRUE(GST_OBJECT_FLAG_IS_SET(element.source(), GST_ELEMENT_FLAG_SOURCE));
}

TEST_F(ZvrSrcTest, ProxyIdLocalUrlAndDefinitionsAreNotified) {
  startService({"definition-delay=0"});
  Playback playback(clipUri("clip.webm"));
  ASSERT_NE(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  auto notified = [&playback](const std::string& property) {
    std::string value;
    for (const auto& n : playback.notifications()) {
      if (n.property == property) value = n.value;
    }
    return value;
  };
  ASSERT_TRUE(
      zvr_test::eventually([&notified] { return !notified("definitions").empty(); }, 10000ms));
  EXPECT_THAT(notified("proxy-id"), StartsWith("zvr-"));
  EXPECT_EQ(notified("proxy-id"), playback.sourceProperty("proxy-id"));
  EXPECT_THAT(notified("local-url"), StartsWith("http://127.0.0.1:"));
  EXPECT_EQ(notified("local-url"), playback.sourceProperty("local-url"));
  EXPECT_EQ(notified("definitions"), playback.sourceProperty("definitions"));
  // In that order: the id with the creation, the URL with the start, then the definitions.
  std::vector<std::string> order;
  for (const auto& n : playback.notifications()) order.push_back(n.property);
  EXPECT_THAT(order, ::testing::ElementsAre("proxy-id", "local-url", "definitions"));
}

TEST_F(ZvrSrcTest, TimeSeekReturnsAtOnceWhileTheServiceIsStoppedAndIsForwardedLater) {
  startService();
  Playback playback(clipUri("clip.webm"));
  ASSERT_NE(playback.setState(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(playback.waitState(GST_STATE_PAUSED, 10s));
  GstPad* pad = gst_element_get_static_pad(playback.source(), "src");
  ASSERT_NE(pad, nullptr);
  // A stopped service: every call to it waits for the bus's time-out.
  ASSERT_TRUE(bus_->stopEmulator());
  GstEvent* seek = gst_event_new_seek(1.0, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SEEK_TYPE_SET,
                                      1500 * GST_MSECOND, GST_SEEK_TYPE_NONE, GST_CLOCK_TIME_NONE);
  const auto begin = zvr_test::Clock::now();
  EXPECT_FALSE(gst_pad_send_event(pad, seek));
  EXPECT_LT(zvr_test::Clock::now() - begin, 100ms);
  gst_object_unref(pad);
  bus_->continueEmulator();
  EXPECT_TRUE(zvr_test::eventually(
      [this] {
        for (const auto& command : bus_->recordedCommands()) {
          if (command.size() > 5 && command[0] == "seek" && std::stod(command[5]) == 1.5) {
            return true;
          }
        }
        return false;
      },
      10000ms));
}

// Quick cycles end each session at a different point: at once (the creation), right after the
// proxy id, the local URL or the definitions arrived. After each PAUSED->READY the properties keep
// the values they had when it returned: nothing of the cancelled session's worker reaches the
// element. At the end the element holds only its last session's values.
// GStreamer 1.22's souphttpsrc (libsoup 3) crashes now and then when it is stopped before its
// response has arrived, on its own (souphttpsrc ! fakesink, about once in 3,600 such cycles).
// The cycles that leave once the local URL is there therefore wait for the preroll; the start's
// answer comes 300 ms late, so that a cycle that leaves once the proxy id is there never has an
// internal source yet.
TEST_F(ZvrSrcTest, QuickReadyPausedCyclesLeaveNothingOfACancelledSession) {
  startService({"definition-delay=0", "delay=start:300"});
  Standalone element(clipUri("clip.webm"));
  const char* names[] = {"proxy-id", "local-url", "definitions"};
  for (int cycle = 0; cycle < 24; ++cycle) {
    ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_PAUSED),
              GST_STATE_CHANGE_FAILURE);
    // Cycle 0 mod 4 leaves at once; the others once proxy-id, local-url or definitions are set.
    const int arrived = cycle % 4;
    if (arrived > 0) {
      ASSERT_TRUE(zvr_test::eventually(
          [&] { return !element.property(names[arrived - 1]).empty(); }, 10000ms))
          << names[arrived - 1] << " in cycle " << cycle;
    }
    if (arrived >= 2) {
      ASSERT_EQ(gst_element_get_state(element.pipeline(), nullptr, nullptr, 10 * GST_SECOND),
                GST_STATE_CHANGE_SUCCESS);
    }
    ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    std::vector<std::string> atReady;
    for (const char* name : names) atReady.push_back(element.property(name));
    // Time for a cancelled worker to reach any of its steps.
    EXPECT_FALSE(zvr_test::eventually(
        [&] {
          for (std::size_t i = 0; i < atReady.size(); ++i) {
            if (element.property(names[i]) != atReady[i]) return true;
          }
          return false;
        },
        50ms))
        << "a property changed in READY after cycle " << cycle;
  }
  ASSERT_NE(gst_element_set_state(element.pipeline(), GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  ASSERT_TRUE(zvr_test::eventually([&element] { return !element.property("definitions").empty(); },
                                   10000ms));
  const std::string id = element.property("proxy-id");
  ASSERT_THAT(id, StartsWith("zvr-"));
  // The local URL's path names the object it serves.
  EXPECT_THAT(element.property("local-url"), HasSubstr("/media/" + id + "/"));
}

}  // namespace
