#include "prober.h"

#include <gst/gst.h>
#include <gst/pbutils/pbutils.h>

#include <cstdio>
#include <utility>

namespace zvr_emulator {

namespace {

constexpr GstClockTime kProbeTimeout = 5 * GST_SECOND;

// What the discoverer reaches for; loaded once up front.
const char* const kPlugins[] = {
    "coreelements", "typefindfunctions", "playback",     "matroska", "isomp4",
    "mpegtsdemux",  "videoparsersbad",   "audioparsers", "vorbis",   "soup"};

std::string codecOf(GstDiscovererStreamInfo* stream) {
  GstCaps* caps = gst_discoverer_stream_info_get_caps(stream);
  if (caps == nullptr) return std::string();
  gchar* description = gst_pb_utils_get_codec_description(caps);
  std::string codec = description != nullptr ? description : "";
  g_free(description);
  gst_caps_unref(caps);
  return codec;
}

MediaInfo describe(GstDiscovererInfo* discovered, const GError* error) {
  MediaInfo info;
  const GstDiscovererResult result = gst_discoverer_info_get_result(discovered);
  if (result != GST_DISCOVERER_OK && result != GST_DISCOVERER_MISSING_PLUGINS) {
    info.error = error != nullptr                   ? error->message
                 : result == GST_DISCOVERER_TIMEOUT ? "probing timed out"
                                                    : "the media cannot be probed";
    return info;
  }
  const GstClockTime duration = gst_discoverer_info_get_duration(discovered);
  if (GST_CLOCK_TIME_IS_VALID(duration)) {
    info.durationSeconds = static_cast<double>(duration) / GST_SECOND;
  }
  info.seekable = gst_discoverer_info_get_seekable(discovered) != FALSE;

  GList* videos = gst_discoverer_info_get_video_streams(discovered);
  if (videos != nullptr) {
    auto* video = static_cast<GstDiscovererVideoInfo*>(videos->data);
    info.width = static_cast<int>(gst_discoverer_video_info_get_width(video));
    info.height = static_cast<int>(gst_discoverer_video_info_get_height(video));
    const guint denominator = gst_discoverer_video_info_get_framerate_denom(video);
    if (denominator != 0) {
      info.frameRate =
          static_cast<double>(gst_discoverer_video_info_get_framerate_num(video)) / denominator;
    }
    info.videoCodec = codecOf(GST_DISCOVERER_STREAM_INFO(video));
  }
  GList* audios = gst_discoverer_info_get_audio_streams(discovered);
  if (audios != nullptr) {
    auto* audio = static_cast<GstDiscovererAudioInfo*>(audios->data);
    info.audioChannels = static_cast<int>(gst_discoverer_audio_info_get_channels(audio));
    info.sampleRate = static_cast<int>(gst_discoverer_audio_info_get_sample_rate(audio));
    info.audioCodec = codecOf(GST_DISCOVERER_STREAM_INFO(audio));
  }
  info.ok = videos != nullptr || audios != nullptr;
  if (!info.ok) info.error = "no audio or video stream in the media";
  gst_discoverer_stream_info_list_free(videos);
  gst_discoverer_stream_info_list_free(audios);
  return info;
}

// A number with at most three decimals and no trailing zeros: "30", "29.97", "3.019".
std::string decimal(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", value);
  std::string number = text;
  number.erase(number.find_last_not_of('0') + 1);
  if (number.back() == '.') number.pop_back();
  return number;
}

// A JSON string of printable ASCII, at most 96 characters of `text`.
std::string jsonString(const std::string& text) {
  std::string quoted = "\"";
  for (std::size_t i = 0; i < text.size() && i < 96; ++i) {
    const char c = text[i];
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c >= 0x20 && c < 0x7F ? c : '?';
  }
  return quoted + "\"";
}

}  // namespace

std::string definitionLabel(const MediaInfo& info) {
  if (info.width == 0 && info.height == 0) return "audio";
  if (info.height >= 2160) return "UHD";
  if (info.height >= 1080) return "FHD";
  if (info.height >= 720) return "HD";
  return "SD";
}

std::string definitionsJson(const MediaInfo& info, const std::string& container) {
  // Every string is at most 2 * 96 + 2 bytes, the rest of the object under 300.
  return "{\"container\":" + jsonString(container) +
         ",\"label\":" + jsonString(definitionLabel(info)) +
         ",\"width\":" + std::to_string(info.width) + ",\"height\":" + std::to_string(info.height) +
         ",\"frameRate\":" + decimal(info.frameRate) +
         ",\"duration\":" + decimal(info.durationSeconds) +
         ",\"seekable\":" + (info.seekable ? "true" : "false") +
         ",\"videoCodec\":" + jsonString(info.videoCodec) +
         ",\"audioCodec\":" + jsonString(info.audioCodec) +
         ",\"audioChannels\":" + std::to_string(info.audioChannels) +
         ",\"sampleRate\":" + std::to_string(info.sampleRate) + "}";
}

struct Prober::Loop {
  GMainContext* context = nullptr;
  GMainLoop* mainLoop = nullptr;
  GstDiscoverer* discoverer = nullptr;
};

Prober::Prober() {
  thread_ = std::thread([this] { run(); });
}

// The discoverer cannot be stopped while it discovers: it holds its lock while it takes the
// pipeline down, and the pipeline's pad-removed handler takes the same lock. So the loop ends
// at once when no discovery runs, and otherwise when the running one ends, which its time-out
// bounds.
Prober::~Prober() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    waiting_.clear();
    if (loop_ != nullptr) {
      g_main_context_invoke(
          loop_->context,
          [](gpointer self) -> gboolean {
            Prober* prober = static_cast<Prober*>(self);
            if (!prober->discovering_) g_main_loop_quit(prober->loop_->mainLoop);
            return G_SOURCE_REMOVE;
          },
          this);
    }
  }
  thread_.join();
}

void Prober::probe(const std::string& uri, int delayMs, Done done) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_) return;
  waiting_.push_back(Job{uri, delayMs, std::move(done)});
  wake_l();
}

// Never called on the prober's thread, where the invoked function would run at once, under
// the lock.
void Prober::wake_l() {
  if (loop_ == nullptr) return;  // the thread looks at the queue once its loop is ready
  g_main_context_invoke(
      loop_->context,
      [](gpointer self) -> gboolean {
        static_cast<Prober*>(self)->startNext();
        return G_SOURCE_REMOVE;
      },
      this);
}

void Prober::run() {
  static std::once_flag initialised;
  std::call_once(initialised, [] { gst_init(nullptr, nullptr); });
  for (const char* name : kPlugins) {
    if (GstPlugin* plugin = gst_plugin_load_by_name(name)) gst_object_unref(plugin);
  }

  Loop loop;
  loop.context = g_main_context_new();
  g_main_context_push_thread_default(loop.context);
  GError* error = nullptr;
  loop.discoverer = gst_discoverer_new(kProbeTimeout, &error);
  if (loop.discoverer == nullptr) {
    std::fprintf(stderr, "zvr_emulator: no media discoverer: %s\n",
                 error != nullptr ? error->message : "unknown error");
    g_clear_error(&error);
  } else {
    g_signal_connect(
        loop.discoverer, "discovered",
        G_CALLBACK(+[](GstDiscoverer*, GstDiscovererInfo* info, GError* failure, gpointer self) {
          static_cast<Prober*>(self)->finish(describe(info, failure));
        }),
        this);
    gst_discoverer_start(loop.discoverer);
  }
  loop.mainLoop = g_main_loop_new(loop.context, FALSE);

  bool stopping = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping = stopping_;
    if (!stopping) loop_ = &loop;
  }
  if (!stopping) {
    startNext();  // what was asked for before the loop was ready
    g_main_loop_run(loop.mainLoop);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    loop_ = nullptr;
  }

  if (loop.discoverer != nullptr) {
    gst_discoverer_stop(loop.discoverer);
    g_object_unref(loop.discoverer);
  }
  g_main_loop_unref(loop.mainLoop);
  g_main_context_pop_thread_default(loop.context);
  g_main_context_unref(loop.context);
}

void Prober::startNext() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (busy_ || waiting_.empty() || stopping_) return;
    current_ = std::move(waiting_.front());
    waiting_.pop_front();
    busy_ = true;
  }
  const auto discover = [](gpointer self) -> gboolean {
    Prober* prober = static_cast<Prober*>(self);
    GstDiscoverer* discoverer = prober->loop_->discoverer;
    prober->discovering_ = discoverer != nullptr && gst_discoverer_discover_uri_async(
                                                        discoverer, prober->current_.uri.c_str());
    if (!prober->discovering_) {
      MediaInfo failed;
      failed.error = "the media cannot be probed";
      prober->finish(failed);
    }
    return G_SOURCE_REMOVE;
  };
  if (current_.delayMs > 0) {
    GSource* timer = g_timeout_source_new(static_cast<guint>(current_.delayMs));
    g_source_set_callback(timer, discover, this, nullptr);
    g_source_attach(timer, loop_->context);
    g_source_unref(timer);
  } else {
    discover(this);
  }
}

void Prober::finish(const MediaInfo& info) {
  discovering_ = false;
  Done done = std::move(current_.done);
  bool stopping = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    busy_ = false;
    stopping = stopping_;
  }
  if (stopping) {
    g_main_loop_quit(loop_->mainLoop);
    return;
  }
  if (done) done(info);
  startNext();
}

}  // namespace zvr_emulator
