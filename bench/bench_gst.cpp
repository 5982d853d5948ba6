// The GStreamer element against playbin on the same local URL, in one process, warm.
//
// Three figures, each the median of --runs (default 31, at least 31) runs that alternate between
// the two ways:
//   - time from set_state(PLAYING) on a fresh playbin to its first decoded video frame:
//     zvr+file:// through zvrsrc (creation, start and the service's URL included) against
//     playbin on the local URL that the service serves for the same clip;
//   - seek latency: a playing pipeline seeks to 2.0 s (flushing, accurate) until the first frame
//     at or after 1.9 s is rendered;
//   - CPU time of the process while eight pipelines play the clip to EOS at once.
//
//   zvr_bench_gst [--runs=N] [--out=FILE]
//
// FILE receives the figures as rows of the benchmark table. The emulator writes "/ZVR_PROXY", so
// the run holds the machine-wide segment lock.

#include <gst/gst.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "private_bus.h"
#include "segment_lock.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

double cpuMs() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

// One playbin with fakesinks; signals its first video frame at or after a given time.
class Player {
 public:
  Player(const std::string& uri, bool sync) {
    pipeline_ = gst_element_factory_make("playbin", nullptr);
    gst_object_ref_sink(pipeline_);
    GstElement* video = gst_element_factory_make("fakesink", nullptr);
    GstElement* audio = gst_element_factory_make("fakesink", nullptr);
    g_object_set(video, "sync", sync, "signal-handoffs", TRUE, nullptr);
    g_object_set(audio, "sync", sync, nullptr);
    g_signal_connect(video, "handoff", G_CALLBACK(onHandoff), this);
    g_object_set(pipeline_, "uri", uri.c_str(), "video-sink", video, "audio-sink", audio, nullptr);
  }
  ~Player() {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
  }

  GstElement* pipeline() { return pipeline_; }

  // From now on, waits for a frame with a timestamp at or after `from`.
  void expectFrame(GstClockTime from) {
    std::lock_guard<std::mutex> lock(mutex_);
    from_ = from;
    seen_ = false;
  }
  bool waitFrame(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return seen_; });
  }
  bool waitEos(std::chrono::seconds limit) {
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* message = gst_bus_timed_pop_filtered(
        bus, static_cast<GstClockTime>(limit.count()) * GST_SECOND,
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(bus);
    const bool eos = message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    if (message != nullptr) gst_message_unref(message);
    return eos;
  }

 private:
  static void onHandoff(GstElement*, GstBuffer* buffer, GstPad*, gpointer self) {
    Player* p = static_cast<Player*>(self);
    std::lock_guard<std::mutex> lock(p->mutex_);
    if (!p->seen_ && GST_BUFFER_PTS_IS_VALID(buffer) && GST_BUFFER_PTS(buffer) >= p->from_) {
      p->seen_ = true;
      p->changed_.notify_all();
    }
  }

  GstElement* pipeline_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  GstClockTime from_ = 0;
  bool seen_ = false;
};

// PLAYING -> first decoded video frame, in ms; negative on failure.
double firstFrame(const std::string& uri) {
  Player player(uri, false);
  player.expectFrame(0);
  const auto begin = Clock::now();
  gst_element_set_state(player.pipeline(), GST_STATE_PLAYING);
  if (!player.waitFrame(std::chrono::seconds(10))) return -1;
  return msSince(begin);
}

// A flushing, accurate seek to 2.0 s of a playing pipeline -> the first frame from 1.9 s, in ms.
double seekLatency(const std::string& uri) {
  Player player(uri, true);
  player.expectFrame(0);
  gst_element_set_state(player.pipeline(), GST_STATE_PLAYING);
  if (!player.waitFrame(std::chrono::seconds(10))) return -1;
  player.expectFrame(1900 * GST_MSECOND);
  const auto begin = Clock::now();
  if (!gst_element_seek_simple(
          player.pipeline(), GST_FORMAT_TIME,
          static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
          2 * GST_SECOND)) {
    return -1;
  }
  if (!player.waitFrame(std::chrono::seconds(10))) return -1;
  return msSince(begin);
}

// CPU time of the process while eight pipelines play `uri` to EOS at once, in ms.
double eightConcurrent(const std::string& uri) {
  std::vector<std::unique_ptr<Player>> players;
  for (int i = 0; i < 8; ++i) players.push_back(std::make_unique<Player>(uri, false));
  const double before = cpuMs();
  for (auto& p : players) gst_element_set_state(p->pipeline(), GST_STATE_PLAYING);
  for (auto& p : players) {
    if (!p->waitEos(std::chrono::seconds(60))) return -1;
  }
  players.clear();
  return cpuMs() - before;
}

double median(std::vector<double> values) {
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct Figure {
  std::string name;
  std::string unit;
  std::string note;
  std::vector<double> library, baseline;
  int failures = 0;
};

// Runs `measure` on both URIs `runs` times each, alternating which goes first.
void alternate(Figure& figure, int runs, const std::string& zvrUri, const std::string& localUrl,
               const std::function<double(const std::string&)>& measure) {
  for (int i = 0; i < runs; ++i) {
    const bool zvrFirst = i % 2 == 0;
    for (int k = 0; k < 2; ++k) {
      const bool zvr = (k == 0) == zvrFirst;
      const double value = measure(zvr ? zvrUri : localUrl);
      if (value < 0) {
        ++figure.failures;
        continue;
      }
      (zvr ? figure.library : figure.baseline).push_back(value);
    }
  }
}

std::string fmt(double value, const std::string& unit) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f %s", value, unit.c_str());
  return text;
}

std::string jsonList(const std::vector<double>& values) {
  std::ostringstream out;
  out << "[";
  for (std::size_t i = 0; i < values.size(); ++i) out << (i ? ", " : "") << values[i];
  out << "]";
  return out.str();
}

std::string jsonRow(const Figure& f) {
  const double a = median(f.library), b = median(f.baseline);
  std::ostringstream row;
  row << "{\"figure\": \"" << f.name << "\", \"library\": \"" << fmt(a, f.unit)
      << "\", \"baseline\": \"" << fmt(b, f.unit) << "\", \"ratio\": ";
  if (a >= 0 && b > 0) {
    row << a / b;
  } else {
    row << "null";
  }
  row << ", \"note\": \"" << f.note;
  if (f.failures) row << "; " << f.failures << " runs failed";
  row << "\", \"kind\": \"ratio\", \"values\": {\"library_median\": " << a
      << ", \"baseline_median\": " << b << ", \"library\": " << jsonList(f.library)
      << ", \"baseline\": " << jsonList(f.baseline) << "}}";
  return row.str();
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 31;
  std::string out;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.compare(0, 7, "--runs=") == 0)
      runs = std::max(31, std::atoi(argument.c_str() + 7));
    if (argument.compare(0, 6, "--out=") == 0) out = argument.substr(6);
  }
  if (std::getenv("ZVR_LOG_LEVEL") == nullptr) setenv("ZVR_LOG_LEVEL", "0", 1);
  setenv("GST_PLUGIN_PATH", ZVR_GST_PLUGIN_DIR, 1);
  setenv("GST_REGISTRY_FORK", "no", 1);
  gst_init(&argc, &argv);

  zvr_bench::SegmentLock lock;
  // Given definitions spare the emulator a probe per start, which would compete for the CPU.
  zvr_test::PrivateBus bus({"definitions=bench"});
  if (!bus.startEmulator()) {
    std::fprintf(stderr, "zvr_bench_gst: the emulator did not start\n");
    return 1;
  }
  const std::string zvrUri = std::string("zvr+file://") + ZVR_BENCH_MEDIA_FILE;

  // A paused pipeline keeps one remote player, and so its local URL, alive for the baselines.
  Player holder(zvrUri, false);
  gst_element_set_state(holder.pipeline(), GST_STATE_PAUSED);
  if (gst_element_get_state(holder.pipeline(), nullptr, nullptr, 10 * GST_SECOND) !=
      GST_STATE_CHANGE_SUCCESS) {
    std::fprintf(stderr, "zvr_bench_gst: %s did not preroll\n", zvrUri.c_str());
    return 1;
  }
  GstElement* source = nullptr;
  g_object_get(holder.pipeline(), "source", &source, nullptr);
  gchar* url = nullptr;
  g_object_get(source, "local-url", &url, nullptr);
  const std::string localUrl = url != nullptr ? url : "";
  g_free(url);
  gst_object_unref(source);
  std::printf("zvr_bench_gst: %s, local URL %s, %d runs per way\n", zvrUri.c_str(),
              localUrl.c_str(), runs);

  // Warm: plugins loaded, caches filled, the service's first start done.
  firstFrame(zvrUri);
  firstFrame(localUrl);

  std::vector<Figure> figures(3);
  figures[0] = {"GStreamer: PLAYING -> first decoded video frame, warm (median)",
                "ms",
                "zvr+file:// through zvrsrc vs playbin on the same local URL; goal <= 1.1x",
                {},
                {},
                0};
  figures[1] = {"GStreamer: seek to 2.0 s -> first frame there (median)",
                "ms",
                "flushing accurate seek of a playing WebM, zvrsrc vs the local URL",
                {},
                {},
                0};
  figures[2] = {"GStreamer: CPU time, 8 pipelines to EOS at once (median)",
                "ms",
                "process user+system time, zvrsrc vs the local URL directly",
                {},
                {},
                0};
  alternate(figures[0], runs, zvrUri, localUrl, firstFrame);
  alternate(figures[1], runs, zvrUri, localUrl, seekLatency);
  alternate(figures[2], runs, zvrUri, localUrl, eightConcurrent);

  std::vector<std::string> rows;
  for (const Figure& f : figures) {
    const double a = median(f.library), b = median(f.baseline);
    std::printf("%s: zvrsrc %.2f %s, direct %.2f %s, ratio %.2f (%zu/%zu runs, %d failed)\n",
                f.name.c_str(), a, f.unit.c_str(), b, f.unit.c_str(), b > 0 ? a / b : 0.0,
                f.library.size(), f.baseline.size(), f.failures);
    rows.push_back(jsonRow(f));
  }
  if (!out.empty()) {
    std::ofstream file(out);
    file << "{\"rows\": [\n";
    for (std::size_t i = 0; i < rows.size(); ++i) {
      file << "  " << rows[i] << (i + 1 < rows.size() ? ",\n" : "\n");
    }
    file << "]}\n";
  }
  gst_element_set_state(holder.pipeline(), GST_STATE_NULL);
  return 0;
}
