// End-to-end latencies over the real D-Bus model access and the media-service emulator.
//
// A private dbus-daemon with the emulator activatable (the integration tests' PrivateBus), the
// shipped libzvr_media_proxy.so with the D-Bus model access and the desktop log (silenced with
// ZVR_LOG_LEVEL=0 unless the caller chose a level). Every library sample is taken next to its
// baselines, in the same process and at the same moment:
//   round_trip  a bare method call between this process and the emulator: GetValue of the event
//               key, with sdbus-c++ on a connection of its own;
//   raw         the protocol without the library: one command message written with SetValue (a
//               "seek" for an object nobody has registered) and the wait until its answer
//               arrives as the Event signal on a listener connection of its own. It is what any
//               client pays for one command and its answer.
//
// Figures, in this order (the first synchronous creation switches the library into sync mode for
// good, so the asynchronous figures come first):
//   async_create  createNewZVRMediaProxy() until it returns
//   async_start   start(url, 1) until the "url" callback
//   sync_create   createNewZVRMediaProxySync() until it returns
//   sync_start    start(url, 1) in sync mode: until the "url" callback and until it returns
//   sync_stop     stop() in sync mode until it returns
//   sync_create_late, sync_stop_late
//                 the same two against a service that answers 1 ms after the command (the
//                 emulator's delay option), so that the answer is never in the segment at the
//                 wait's first read and the wait's 50 ms poll decides the latency
// Each reports p50 and p99 of the library and of both baselines, and the time the library spent
// in its fixed pauses (usleep, counted by the interposer below).
//
//   zvr_bench_end_to_end [--samples=N] [--samples_out=FILE] [Google Benchmark flags]
//
// The emulator writes "/ZVR_PROXY", so the whole run holds the machine-wide segment lock.

#include <benchmark/benchmark.h>
#include <errno.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "private_bus.h"
#include "segment_lock.h"
#include "zvr_bus_protocol.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_interface.h"

namespace {

using Clock = std::chrono::steady_clock;

double millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Time this thread spent in usleep, in milliseconds, and the number of calls in the process.
thread_local double tSleptMs = 0;
std::atomic<long> gSleepCalls{0};

}  // namespace

// The library's fixed pauses (the 50 ms polls of the synchronous wait, the pauses of creation)
// are usleep calls; this definition takes their place in the whole process and adds up how long
// each one really slept.
extern "C" int usleep(useconds_t micros) {
  const Clock::time_point start = Clock::now();
  timespec remaining{static_cast<time_t>(micros / 1000000),
                     static_cast<long>(micros % 1000000) * 1000};
  while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
  }
  tSleptMs += millis(Clock::now() - start);
  gSleepCalls.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

namespace {

const char kCommandKey[] = "varek.sl2.vstr.videoplayer.zvr.command";
const char kEventKey[] = "varek.sl2.vstr.videoplayer.zvr.event";
constexpr auto kCallbackTimeout = std::chrono::seconds(2);

// --- The application callback -----------------------------------------------------------------

// Records when the first "url" notification for the watched id arrives.
struct UrlWatch {
  std::mutex mutex;
  std::condition_variable changed;
  std::string id;
  bool seen = false;
  Clock::time_point at;

  void arm(const std::string& watched) {
    std::lock_guard<std::mutex> lock(mutex);
    id = watched;
    seen = false;
  }
  // The time of the notification, or false after the time-out.
  bool wait(Clock::time_point* when) {
    std::unique_lock<std::mutex> lock(mutex);
    if (!changed.wait_for(lock, kCallbackTimeout, [this] { return seen; })) return false;
    *when = at;
    return true;
  }
};

UrlWatch& urlWatch() {
  static UrlWatch* const watch = new UrlWatch;
  return *watch;
}

// Runs on the listener thread or, in sync mode, on the caller's thread while the proxy holds its
// mutex: it only records.
void onChange(std::string id, std::string kind, std::string /*value*/) {
  const Clock::time_point now = Clock::now();
  if (kind != "url") return;
  UrlWatch& watch = urlWatch();
  std::lock_guard<std::mutex> lock(watch.mutex);
  if (id == watch.id && !watch.seen) {
    watch.seen = true;
    watch.at = now;
    watch.changed.notify_all();
  }
}

// --- The baselines: the bus without the library -----------------------------------------------

class RawClient {
 public:
  explicit RawClient(const std::string& address)
      : calls_(sdbus::createSessionBusConnectionWithAddress(address)),
        events_(sdbus::createSessionBusConnectionWithAddress(address)) {
    service_ = sdbus::createProxy(*calls_, zvr_bus::kServiceName, zvr_bus::kObjectPath);
    service_->finishRegistration();
    events_->addMatch(
        std::string("type='signal',interface='") + zvr_bus::kInterface + "',member='" +
            zvr_bus::kEventSignal + "'",
        [this](sdbus::Message& message) { onEvent(message); }, sdbus::floating_slot);
    events_->enterEventLoopAsync();
  }
  ~RawClient() {
    try {
      events_->leaveEventLoop();
    } catch (...) {
    }
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  // One GetValue call; milliseconds.
  double roundTrip() {
    int32_t result = -1;
    std::vector<std::string> values;
    const Clock::time_point start = Clock::now();
    service_->callMethod("GetValue")
        .onInterface(zvr_bus::kInterface)
        .withTimeout(std::chrono::milliseconds(zvr_bus::kCallTimeoutMs))
        .withArguments(std::string(kEventKey))
        .storeResultsTo(result, values);
    return millis(Clock::now() - start);
  }

  // One command message and the arrival of its answer signal; milliseconds, or -1 when no
  // answer came.
  double commandAndAnswer() {
    const std::string session = "ses-RAW" + std::to_string(++sent_);
    std::vector<std::string> command(11);
    command[0] = "seek";
    command[2] = session;
    command[3] = "bench-raw";
    command[4] = "0.000000";
    command[5] = "1.000000";
    {
      std::lock_guard<std::mutex> lock(mutex_);
      awaited_ = session;
      seen_ = false;
    }
    int32_t result = -1;
    const Clock::time_point start = Clock::now();
    service_->callMethod("SetValue")
        .onInterface(zvr_bus::kInterface)
        .withTimeout(std::chrono::milliseconds(zvr_bus::kCallTimeoutMs))
        .withArguments(std::string(kCommandKey), command)
        .storeResultsTo(result);
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kCallbackTimeout, [this] { return seen_; })) return -1;
    return millis(at_ - start);
  }

 private:
  void onEvent(sdbus::Message& message) {
    const Clock::time_point now = Clock::now();
    std::vector<std::string> record;
    try {
      message >> record;
    } catch (const std::exception&) {
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (record.size() > 2 && record[0] == "seeked" && record[2] == awaited_ && !seen_) {
      seen_ = true;
      at_ = now;
      changed_.notify_all();
    }
  }

  std::unique_ptr<sdbus::IConnection> calls_;
  std::unique_ptr<sdbus::IConnection> events_;
  std::unique_ptr<sdbus::IProxy> service_;
  long sent_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string awaited_;
  bool seen_ = false;
  Clock::time_point at_;
};

// --- Samples ----------------------------------------------------------------------------------

// Nearest rank.
double percentile(std::vector<double> values, double p) {
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  std::size_t rank = static_cast<std::size_t>(std::ceil(p * static_cast<double>(values.size())));
  rank = std::max<std::size_t>(rank, 1);
  return values[std::min(rank, values.size()) - 1];
}

struct Run {
  zvr_test::PrivateBus* bus = nullptr;
  RawClient* raw = nullptr;
  velmora::ZVRMediaProxyManagerInterface* manager = nullptr;
  std::string url;
  int samples = 200;
  std::shared_ptr<velmora::ZVRMediaProxyInterface> asyncProxy;
  std::shared_ptr<velmora::ZVRMediaProxyInterface> syncProxy;
  // figure -> series -> milliseconds
  std::map<std::string, std::map<std::string, std::vector<double>>> series;
  std::map<std::string, int> failures;

  void add(const std::string& figure, const std::string& name, double value) {
    series[figure][name].push_back(value);
  }
  // The two baselines, taken right before a library sample.
  void baselines(const std::string& figure) {
    add(figure, "round_trip", raw->roundTrip());
    const double answered = raw->commandAndAnswer();
    if (answered >= 0) {
      add(figure, "raw", answered);
    } else {
      ++failures[figure + ".raw"];
    }
  }
  // p50 and p99 of every series of the figure, as counters of its benchmark.
  void counters(benchmark::State& state, const std::string& figure) {
    for (const auto& entry : series[figure]) {
      state.counters[entry.first + "_p50_ms"] = percentile(entry.second, 0.50);
      state.counters[entry.first + "_p99_ms"] = percentile(entry.second, 0.99);
    }
    state.counters["failures"] = failures[figure];
  }
};

Run* gRun = nullptr;

using Proxy = std::shared_ptr<velmora::ZVRMediaProxyInterface>;

// Times one creation per iteration as `figure`, with the part spent in fixed pauses; the last
// proxy with a non-empty id is kept in *kept when it is given.
template <typename Create>
void measureCreation(benchmark::State& state, const char* figure, Create create, Proxy* kept) {
  Run& run = *gRun;
  for (auto _ : state) {
    run.baselines(figure);
    const double slept = tSleptMs;
    const Clock::time_point start = Clock::now();
    Proxy proxy = create(*run.manager);
    const double elapsed = millis(Clock::now() - start);
    state.SetIterationTime(elapsed / 1000);
    run.add(figure, "library", elapsed);
    run.add(figure, "waits", tSleptMs - slept);
    if (!proxy || proxy->id().empty()) {
      ++run.failures[figure];
    } else if (kept != nullptr) {
      *kept = proxy;
    }
  }
  run.counters(state, figure);
}

void asyncCreate(benchmark::State& state) {
  measureCreation(
      state, "async_create",
      [](velmora::ZVRMediaProxyManagerInterface& m) -> Proxy { return m.createNewZVRMediaProxy(); },
      &gRun->asyncProxy);
}

void asyncStart(benchmark::State& state) {
  Run& run = *gRun;
  if (!run.asyncProxy) {
    state.SkipWithError("no proxy from the asynchronous creation");
    return;
  }
  const std::string id = run.asyncProxy->id();
  for (auto _ : state) {
    run.baselines("async_start");
    urlWatch().arm(id);
    const double slept = tSleptMs;
    const Clock::time_point start = Clock::now();
    run.asyncProxy->start(run.url, 1);
    Clock::time_point notified;
    if (!urlWatch().wait(&notified)) {
      ++run.failures["async_start"];
      state.SetIterationTime(std::chrono::duration<double>(kCallbackTimeout).count());
    } else {
      const double elapsed = millis(notified - start);
      state.SetIterationTime(elapsed / 1000);
      run.add("async_start", "library", elapsed);
      run.add("async_start", "waits", tSleptMs - slept);
    }
    // Back to idle for the next sample; its "stopped" answer is left a moment to arrive.
    run.asyncProxy->stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  run.counters(state, "async_start");
}

void syncCreate(benchmark::State& state) {
  measureCreation(
      state, "sync_create",
      [](velmora::ZVRMediaProxyManagerInterface& m) -> Proxy {
        return m.createNewZVRMediaProxySync();
      },
      &gRun->syncProxy);
}

// Manual time: the stop. The start of each pair is a figure of its own (sync_start).
void syncStartStop(benchmark::State& state) {
  Run& run = *gRun;
  if (!run.syncProxy) {
    state.SkipWithError("no proxy from the synchronous creation");
    return;
  }
  const std::string id = run.syncProxy->id();
  for (auto _ : state) {
    run.baselines("sync_start");
    urlWatch().arm(id);
    double slept = tSleptMs;
    Clock::time_point start = Clock::now();
    run.syncProxy->start(run.url, 1);
    const Clock::time_point returned = Clock::now();
    run.add("sync_start", "library_return", millis(returned - start));
    run.add("sync_start", "waits", tSleptMs - slept);
    Clock::time_point notified;
    if (urlWatch().wait(&notified)) {
      run.add("sync_start", "library", millis(notified - start));
    } else {
      ++run.failures["sync_start"];
    }

    run.baselines("sync_stop");
    slept = tSleptMs;
    start = Clock::now();
    run.syncProxy->stop();
    const double elapsed = millis(Clock::now() - start);
    state.SetIterationTime(elapsed / 1000);
    run.add("sync_stop", "library", elapsed);
    run.add("sync_stop", "waits", tSleptMs - slept);
    // The wait gives up after five polls: a stop that took that long was not answered in time.
    if (elapsed >= 250) ++run.failures["sync_stop"];
  }
  run.counters(state, "sync_start");
  run.counters(state, "sync_stop");
}

// The same synchronous operations against a service that answers kLateMs after the command,
// so that the answer is never in the segment at the wait's first read.
constexpr int kLateMs = 1;

void syncCreateLate(benchmark::State& state) {
  gRun->bus->setOption("delay=create:" + std::to_string(kLateMs));
  measureCreation(
      state, "sync_create_late",
      [](velmora::ZVRMediaProxyManagerInterface& m) -> Proxy {
        return m.createNewZVRMediaProxySync();
      },
      nullptr);
  gRun->bus->setOption("delay=create:0");
}

void syncStopLate(benchmark::State& state) {
  Run& run = *gRun;
  if (!run.syncProxy) {
    state.SkipWithError("no proxy from the synchronous creation");
    return;
  }
  run.bus->setOption("delay=stop:" + std::to_string(kLateMs));
  for (auto _ : state) {
    run.syncProxy->start(run.url, 1);
    run.baselines("sync_stop_late");
    const double slept = tSleptMs;
    const Clock::time_point start = Clock::now();
    run.syncProxy->stop();
    const double elapsed = millis(Clock::now() - start);
    state.SetIterationTime(elapsed / 1000);
    run.add("sync_stop_late", "library", elapsed);
    run.add("sync_stop_late", "waits", tSleptMs - slept);
    if (elapsed >= 250) ++run.failures["sync_stop_late"];
  }
  run.bus->setOption("delay=stop:0");
  run.counters(state, "sync_stop_late");
}

std::string jsonNumber(double value) {
  if (!std::isfinite(value)) return "null";
  char text[64];
  std::snprintf(text, sizeof text, "%.6f", value);
  return text;
}

void writeSamples(const Run& run, const std::string& path) {
  std::ostringstream json;
  json << "{\n  \"usleep_calls\": " << gSleepCalls.load() << ",\n  \"failures\": {";
  bool first = true;
  for (const auto& failure : run.failures) {
    json << (first ? "" : ",") << "\n    \"" << failure.first << "\": " << failure.second;
    first = false;
  }
  json << "\n  },\n  \"figures\": {";
  bool firstFigure = true;
  for (const auto& figure : run.series) {
    json << (firstFigure ? "" : ",") << "\n    \"" << figure.first << "\": {";
    firstFigure = false;
    bool firstSeries = true;
    for (const auto& entry : figure.second) {
      json << (firstSeries ? "" : ",") << "\n      \"" << entry.first
           << "\": {\"p50_ms\": " << jsonNumber(percentile(entry.second, 0.50))
           << ", \"p99_ms\": " << jsonNumber(percentile(entry.second, 0.99)) << ", \"samples\": [";
      firstSeries = false;
      for (std::size_t i = 0; i < entry.second.size(); ++i) {
        json << (i == 0 ? "" : ", ") << jsonNumber(entry.second[i]);
      }
      json << "]}";
    }
    json << "\n    }";
  }
  json << "\n  }\n}\n";
  std::ofstream(path) << json.str();
}

}  // namespace

int main(int argc, char** argv) {
  Run run;
  std::string samplesOut;
  // Our own flags first; the rest belongs to Google Benchmark.
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--samples=", 10) == 0) {
      run.samples = std::max(10, std::atoi(argv[i] + 10));
    } else if (std::strncmp(argv[i], "--samples_out=", 14) == 0) {
      samplesOut = argv[i] + 14;
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  setenv("ZVR_LOG_LEVEL", "0", 0);

  try {
    zvr_bench::SegmentLock lock;
    shm_unlink("/ZVR_PROXY");
    {
      // The "definition" event would follow each start 400 ms later, into the next samples;
      // given definitions also keep the emulator from probing every start's media meanwhile.
      zvr_test::PrivateBus bus({"definition-delay=3600000", "definitions=bench"});
      if (!bus.startEmulator()) throw std::runtime_error("the emulator did not start");
      RawClient raw(bus.address());
      run.bus = &bus;
      run.raw = &raw;
      run.url = std::string("file://") + ZVR_BENCH_MEDIA_FILE;
      run.manager = requestZVRMediaProxy();
      run.manager->setZVRCallback(onChange);
      gRun = &run;

      // Warm-up, untimed: the library's connection, the service's unique name, both baselines.
      for (int i = 0; i < 5; ++i) {
        raw.roundTrip();
        raw.commandAndAnswer();
      }
      std::shared_ptr<velmora::ZVRMediaProxyInterface> warm = run.manager->createNewZVRMediaProxy();
      if (!warm || warm->id().empty()) throw std::runtime_error("no proxy from the emulator");
      urlWatch().arm(warm->id());
      warm->start(run.url, 1);
      Clock::time_point ignored;
      if (!urlWatch().wait(&ignored)) throw std::runtime_error("no url from the emulator");
      warm->stop();

      const int n = run.samples;
      benchmark::RegisterBenchmark("e2e/async_create", asyncCreate)
          ->Iterations(n)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark("e2e/async_start_to_url", asyncStart)
          ->Iterations(n)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark("e2e/sync_create", syncCreate)
          ->Iterations(std::max(20, n / 3))
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark("e2e/sync_start_stop", syncStartStop)
          ->Iterations(n)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark("e2e/sync_create_late", syncCreateLate)
          ->Iterations(std::max(10, n / 5))
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark("e2e/sync_stop_late", syncStopLate)
          ->Iterations(std::max(10, n / 3))
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
      benchmark::RunSpecifiedBenchmarks();
      benchmark::Shutdown();
      if (!samplesOut.empty()) writeSamples(run, samplesOut);
      if (gSleepCalls.load() == 0 && !run.series["sync_stop_late"].empty()) {
        std::fprintf(stderr, "warning: no usleep call was seen; the fixed waits read 0\n");
      }
      run.asyncProxy.reset();
      run.syncProxy.reset();
      gRun = nullptr;
    }
    shm_unlink("/ZVR_PROXY");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zvr_bench_end_to_end: %s\n", e.what());
    shm_unlink("/ZVR_PROXY");
    return 1;
  }
  return 0;
}
