// Micro benchmarks of the library's own work, against platform doubles that cost nothing (see
// doubles/bench_doubles.h). Every library figure has a baseline benchmark that does the
// irreducible part of the same job; scripts/bench divides the two medians.
//
//   BM_Command / BM_CommandBaseline
//       proxy->seek() on a proxy in the starting state, down to the model access's
//       setAccessValue, against: one session id (uuid_generate and the same formatting), one
//       "%f" timestamp of base::log_now(), and the 11 strings of the message.
//   BM_Dispatch/N / BM_DispatchBaseline/N
//       ZVRMediaProxyManager::onZVREvent with a successful "seeked" record for a registered id,
//       with N proxies registered, against a bare find in a std::map of the same N keys.
//   BM_Attach/N / BM_AttachBaseline/N
//       createNewZVRMediaProxy(id) for an id already registered among N, against a new object
//       plus erase and insert of that key in a std::map of N keys.
//   BM_LogDisabled / BM_LogDisabledBaseline
//       ZVR_LOG at a disabled severity, against one call of the level check.
//   BM_LogEnabled / BM_LogEnabledBaseline
//       ZVR_LOG at an enabled severity into a sink that formats and drops, against one snprintf
//       of the same line.
//   BM_Command / BM_CommandUncounted, BM_Dispatch/N / BM_DispatchUncounted/N
//       the cost of the diagnostics counters: the same work with counting on (the default) and
//       switched off in place (the switch that ZVR_COUNTERS=0 sets at load).
//
// Logging is off (threshold 0) except where a benchmark says otherwise.

#include <benchmark/benchmark.h>
#include <uuid/uuid.h>

#include <cfloat>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_doubles.h"
#include "log_utils.h"
#include "zvr_diagnostics.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyObject;

constexpr std::size_t kDoubleTextSize = 1 + (DBL_MAX_10_EXP + 1) + 1 + 6 + 1;

std::string idOf(int n) { return "zvr-" + std::to_string(n); }

// A session id as the library makes it: 16 random bytes in its 8-4-4-16 upper-case text.
std::string sessionId() {
  uuid_t b;
  uuid_generate(b);
  char text[48];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X%02X%02X%02X%02X%02X%02X",
                static_cast<unsigned>(b[0] | b[1] << 8 | b[2] << 16 | b[3] << 24),
                static_cast<unsigned>(b[4] | b[5] << 8), static_cast<unsigned>(b[6] | b[7] << 8),
                b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  std::string id = "ses-";
  id += text;
  return id;
}

// --- One asynchronous command ----------------------------------------------------------------

// Switches counting off for the life of the object.
class CountingOff {
 public:
  explicit CountingOff(bool off) : off_(off) {
    if (off_) velmora::diagnostics::setCounting(false);
  }
  ~CountingOff() {
    if (off_) velmora::diagnostics::setCounting(true);
  }

 private:
  const bool off_;
};

void runCommand(benchmark::State& state, bool uncounted) {
  CountingOff counting(uncounted);
  zvr_bench::setLogThreshold(0);
  std::shared_ptr<ZVRMediaProxyObject> proxy = ZVRMediaProxyObject::create("zvr-1");
  proxy->start("http://127.0.0.1:8080/media/zvr-1", 1);
  if (proxy->getState() != ZVRMediaProxyObject::STATE_STARTING) {
    state.SkipWithError("the proxy is not in the starting state");
    return;
  }
  const std::string text = "scene-2";
  const std::uint64_t before = zvr_bench::accessValueWrites();
  for (auto _ : state) {
    proxy->seek(12.5, text);
  }
  if (zvr_bench::accessValueWrites() - before != static_cast<std::uint64_t>(state.iterations())) {
    state.SkipWithError("a seek was not sent");
  }
}

void BM_Command(benchmark::State& state) { runCommand(state, false); }
BENCHMARK(BM_Command);

void BM_CommandUncounted(benchmark::State& state) { runCommand(state, true); }
BENCHMARK(BM_CommandUncounted);

void BM_CommandBaseline(benchmark::State& state) {
  const std::string id = "zvr-1";
  const std::string text = "scene-2";
  for (auto _ : state) {
    std::string session = sessionId();
    char stamp[kDoubleTextSize];
    std::snprintf(stamp, sizeof stamp, "%f", base::log_now());
    char position[kDoubleTextSize];
    std::snprintf(position, sizeof position, "%f", 12.5);
    std::vector<std::string> list(11);
    list[0] = "seek";
    list[2] = std::move(session);
    list[3] = id;
    list[4] = stamp;
    list[5] = position;
    list[6] = text;
    benchmark::DoNotOptimize(list.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_CommandBaseline);

// --- Registries of N proxies -------------------------------------------------------------------

// A manager of its own with proxies "zvr-1" .. "zvr-N" registered, and a plain map of the same
// keys and objects. Built once per N and never destroyed, like the manager singleton.
struct Registry {
  ZVRMediaProxyManager* manager = nullptr;
  std::map<std::string, std::shared_ptr<ZVRMediaProxyObject>> map;
  std::string key;  // the id looked up: the middle one
};

Registry& registryOf(int n, bool forAttach) {
  static std::map<std::pair<int, bool>, Registry*> registries;
  Registry*& registry = registries[{n, forAttach}];
  if (registry == nullptr) {
    zvr_bench::setLogThreshold(0);
    registry = new Registry;
    registry->manager = new ZVRMediaProxyManager();
    for (int i = 1; i <= n; ++i) {
      std::shared_ptr<ZVRMediaProxyObject> object = ZVRMediaProxyObject::create(idOf(i));
      registry->manager->cacheProxyObject(object);
      registry->map.emplace(idOf(i), std::move(object));
    }
    registry->key = idOf(n / 2 + 1);
  }
  return *registry;
}

std::vector<std::string> seekedRecord(const std::string& id) {
  std::vector<std::string> record(11);
  record[0] = "seeked";
  record[1] = "200";
  record[2] = sessionId();
  record[3] = id;
  return record;
}

void runDispatch(benchmark::State& state, bool uncounted) {
  CountingOff counting(uncounted);
  Registry& registry = registryOf(static_cast<int>(state.range(0)), false);
  std::vector<std::string> record = seekedRecord(registry.key);
  // One delivery with the headlines on proves that the record reaches the proxy ("Seek Done").
  zvr_bench::setLogThreshold(1);
  const std::uint64_t before = zvr_bench::droppedLines();
  registry.manager->onZVREvent(record);
  if (zvr_bench::droppedLines() - before != 1) {
    state.SkipWithError("the record did not reach the proxy");
    return;
  }
  zvr_bench::setLogThreshold(0);
  for (auto _ : state) {
    registry.manager->onZVREvent(record);
  }
}

void BM_Dispatch(benchmark::State& state) { runDispatch(state, false); }
BENCHMARK(BM_Dispatch)->Arg(1)->Arg(1000)->Arg(100000);

void BM_DispatchUncounted(benchmark::State& state) { runDispatch(state, true); }
BENCHMARK(BM_DispatchUncounted)->Arg(1)->Arg(1000)->Arg(100000);

void BM_DispatchBaseline(benchmark::State& state) {
  Registry& registry = registryOf(static_cast<int>(state.range(0)), false);
  const std::string key = registry.key;
  for (auto _ : state) {
    auto it = registry.map.find(key);
    benchmark::DoNotOptimize(it);
  }
}
BENCHMARK(BM_DispatchBaseline)->Arg(1)->Arg(1000)->Arg(100000);

// --- Attaching to a known id -------------------------------------------------------------------

void BM_Attach(benchmark::State& state) {
  Registry& registry = registryOf(static_cast<int>(state.range(0)), true);
  zvr_bench::setLogThreshold(0);
  const std::string key = registry.key;
  for (auto _ : state) {
    benchmark::DoNotOptimize(registry.manager->createNewZVRMediaProxy(key));
  }
  if (!registry.manager->findProxyObjectFromCache(key)) state.SkipWithError("the id is gone");
}
BENCHMARK(BM_Attach)->Arg(1)->Arg(1000)->Arg(100000);

void BM_AttachBaseline(benchmark::State& state) {
  Registry& registry = registryOf(static_cast<int>(state.range(0)), true);
  zvr_bench::setLogThreshold(0);
  const std::string key = registry.key;
  for (auto _ : state) {
    std::shared_ptr<ZVRMediaProxyObject> object = ZVRMediaProxyObject::create(key);
    registry.map.erase(key);
    registry.map.emplace(key, object);
    benchmark::DoNotOptimize(object);
  }
}
BENCHMARK(BM_AttachBaseline)->Arg(1)->Arg(1000)->Arg(100000);

// --- Log statements ----------------------------------------------------------------------------

void BM_LogDisabled(benchmark::State& state) {
  zvr_bench::setLogThreshold(1000);
  const std::uint64_t before = zvr_bench::droppedLines();
  for (auto _ : state) {
    ZVR_LOG(velmora::logging::kProgress, "request RemoteObject Stop sync.\n");
  }
  if (zvr_bench::droppedLines() != before) state.SkipWithError("a disabled line was written");
}
BENCHMARK(BM_LogDisabled);

void BM_LogDisabledBaseline(benchmark::State& state) {
  zvr_bench::setLogThreshold(1000);
  static const unsigned int level[3] = {velmora::logging::levelWord(velmora::logging::kProgress), 0,
                                        0};
  for (auto _ : state) {
    benchmark::DoNotOptimize(cspDebugCheckLevelGetFrameAndChunk(level));
  }
}
BENCHMARK(BM_LogDisabledBaseline);

void BM_LogEnabled(benchmark::State& state) {
  zvr_bench::setLogThreshold(1000);
  const std::string session = sessionId();
  const std::uint64_t before = zvr_bench::droppedLines();
  for (auto _ : state) {
    ZVR_LOG(velmora::logging::kError, "Create Failed: %s\n", session.c_str());
  }
  if (zvr_bench::droppedLines() - before != static_cast<std::uint64_t>(state.iterations())) {
    state.SkipWithError("an enabled line was not written");
  }
}
BENCHMARK(BM_LogEnabled);

void BM_LogEnabledBaseline(benchmark::State& state) {
  const std::string session = sessionId();
  const char* const base = log_blog_base_name(__FILE__);
  for (auto _ : state) {
    char line[512];
    std::snprintf(line, sizeof line, "[%s] %s:%d:%s(): Create Failed: %s\n", "B-LOG", base,
                  __LINE__, __func__, session.c_str());
    benchmark::DoNotOptimize(line);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_LogEnabledBaseline);

}  // namespace

BENCHMARK_MAIN();
