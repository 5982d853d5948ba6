// Soak: what a long-running host pays for the library's deliberate properties.
//
// Eight host threads drive the shipped library against the emulator on a private bus, first in
// asynchronous mode and then, since the first synchronous creation switches the manager for good,
// in synchronous mode. Each thread repeats: a creation without id, start of a generated clip,
// seek, stop; every call is one operation. A phase ends after its time (default and at most
// 29 s, so that both phases with their last rounds stay within a minute) or before the process
// holds 30,000 mappings of "/ZVR_PROXY", whichever comes first. Reported per 1,000 operations: the
// growth of resident memory, of open descriptors, of mappings of "/ZVR_PROXY" and of threads; and
// the share of creations that returned an id an earlier creation had returned.
//
//   zvr_bench_soak [--seconds=S] [--out=FILE]
//
// FILE receives the figures as rows of the benchmark table. The emulator writes "/ZVR_PROXY", so
// the run holds the machine-wide segment lock.

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "private_bus.h"
#include "segment_lock.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_diagnostics.h"
#include "zvr_media_proxy_interface.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kThreads = 8;
constexpr uint64_t kMappingBudget = 30000;
// A thread checks the budget before each round, whose synchronous creation maps at most twice.
constexpr uint64_t kMappingMargin = kThreads * 2;
constexpr double kLongestPhaseSeconds = 29;

struct Usage {
  long residentKb = 0;
  int descriptors = 0;
  int mappings = 0;
  int threads = 0;
};

long statusField(const char* name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::size_t length = std::strlen(name);
  while (std::getline(status, line)) {
    if (line.compare(0, length, name) == 0) return std::atol(line.c_str() + length);
  }
  return -1;
}

Usage usageNow() {
  Usage u;
  u.residentKb = statusField("VmRSS:");
  u.threads = static_cast<int>(statusField("Threads:"));
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) u.descriptors += entry->d_name[0] != '.';
    closedir(dir);
  }
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) u.mappings += line.find("/ZVR_PROXY") != std::string::npos;
  return u;
}

struct PhaseResult {
  std::string mode;
  uint64_t operations = 0;
  uint64_t creations = 0;
  uint64_t repeatedIds = 0;
  double seconds = 0;
  bool stoppedByBudget = false;
  Usage before;
  Usage after;
};

PhaseResult runPhase(const std::string& mode, bool sync, double seconds) {
  velmora::ZVRMediaProxyManagerInterface* manager = requestZVRMediaProxy();
  PhaseResult result;
  result.mode = mode;
  result.before = usageNow();
  std::atomic<uint64_t> operations{0};
  std::atomic<uint64_t> creations{0};
  std::atomic<uint64_t> repeated{0};
  std::atomic<bool> budget{false};
  std::mutex idsMutex;
  std::set<std::string> ids;
  const Clock::time_point begin = Clock::now();
  const Clock::time_point end =
      begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      while (Clock::now() < end) {
        if (velmora::getZVRProcessCounters()->segmentMappings + kMappingMargin >= kMappingBudget) {
          budget = true;
          return;
        }
        std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy =
            sync ? manager->createNewZVRMediaProxySync() : manager->createNewZVRMediaProxy();
        ++creations;
        {
          std::lock_guard<std::mutex> lock(idsMutex);
          if (!ids.insert(proxy->id()).second) ++repeated;
        }
        proxy->start("file://" ZVR_BENCH_MEDIA_FILE, 1);
        proxy->seek(1.0, "");
        proxy->stop();
        operations += 4;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  result.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  result.after = usageNow();
  result.operations = operations;
  result.creations = creations;
  result.repeatedIds = repeated;
  result.stoppedByBudget = budget;
  return result;
}

std::string jsonRow(const std::string& figure, const std::string& value, const std::string& note,
                    double number) {
  std::ostringstream row;
  row << "{\"figure\": \"" << figure << "\", \"library\": \"" << value
      << "\", \"baseline\": \"-\", \"ratio\": null, \"note\": \"" << note
      << "\", \"kind\": \"absolute\", \"values\": {\"value\": " << number << "}}";
  return row.str();
}

std::string perThousand(double growth, uint64_t operations, const char* unit) {
  char text[64];
  std::snprintf(text, sizeof text, "%.1f %s", operations ? growth * 1000.0 / operations : 0.0,
                unit);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = kLongestPhaseSeconds;
  std::string out;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.compare(0, 10, "--seconds=") == 0) {
      seconds = std::min(std::max(std::atof(argument.c_str() + 10), 0.0), kLongestPhaseSeconds);
    }
    if (argument.compare(0, 6, "--out=") == 0) out = argument.substr(6);
  }
  // The mapping budget is read from the library's counters.
  if (!velmora::getZVRProcessCounters()->counting) {
    std::fprintf(stderr, "zvr_bench_soak: needs counting on (unset ZVR_COUNTERS)\n");
    return 1;
  }
  if (std::getenv("ZVR_LOG_LEVEL") == nullptr) setenv("ZVR_LOG_LEVEL", "0", 1);

  zvr_bench::SegmentLock lock;
  // Given definitions spare the emulator a probe per start; the soak measures the host.
  zvr_test::PrivateBus bus({"definitions=soak"});
  if (!bus.startEmulator()) {
    std::fprintf(stderr, "zvr_bench_soak: the emulator did not start\n");
    return 1;
  }
  std::vector<PhaseResult> phases;
  phases.push_back(runPhase("asynchronous", false, seconds));
  phases.push_back(runPhase("synchronous", true, seconds));

  std::vector<std::string> rows;
  for (const PhaseResult& p : phases) {
    const std::string prefix = "soak, " + p.mode + ", 8 threads: ";
    char note[160];
    std::snprintf(note, sizeof note, "%llu operations in %.1f s%s",
                  static_cast<unsigned long long>(p.operations), p.seconds,
                  p.stoppedByBudget ? ", stopped at the mapping budget" : "");
    const uint64_t n = p.operations;
    rows.push_back(jsonRow(prefix + "RSS growth per 1,000 operations",
                           perThousand(p.after.residentKb - p.before.residentKb, n, "kB"), note,
                           n ? (p.after.residentKb - p.before.residentKb) * 1000.0 / n : 0));
    rows.push_back(jsonRow(prefix + "descriptors per 1,000 operations",
                           perThousand(p.after.descriptors - p.before.descriptors, n, ""), note,
                           n ? (p.after.descriptors - p.before.descriptors) * 1000.0 / n : 0));
    rows.push_back(jsonRow(prefix + "mappings of /ZVR_PROXY per 1,000 operations",
                           perThousand(p.after.mappings - p.before.mappings, n, ""), note,
                           n ? (p.after.mappings - p.before.mappings) * 1000.0 / n : 0));
    rows.push_back(jsonRow(prefix + "threads per 1,000 operations",
                           perThousand(p.after.threads - p.before.threads, n, ""), note,
                           n ? (p.after.threads - p.before.threads) * 1000.0 / n : 0));
    char share[64];
    const double percent = p.creations ? 100.0 * p.repeatedIds / p.creations : 0;
    std::snprintf(share, sizeof share, "%.0f %%", percent);
    rows.push_back(jsonRow(prefix + "creations returning an id seen before", share,
                           std::to_string(p.creations) + " creations", percent));
    std::printf(
        "%s%llu operations, %.1f s, RSS %ld -> %ld kB, fds %d -> %d, mappings %d -> %d, "
        "threads %d -> %d, repeated ids %llu of %llu\n",
        prefix.c_str(), static_cast<unsigned long long>(p.operations), p.seconds,
        p.before.residentKb, p.after.residentKb, p.before.descriptors, p.after.descriptors,
        p.before.mappings, p.after.mappings, p.before.threads, p.after.threads,
        static_cast<unsigned long long>(p.repeatedIds),
        static_cast<unsigned long long>(p.creations));
  }
  if (!out.empty()) {
    std::ofstream file(out);
    file << "{\"rows\": [\n";
    for (std::size_t i = 0; i < rows.size(); ++i)
      file << "  " << rows[i] << (i + 1 < rows.size() ? ",\n" : "\n");
    file << "]}\n";
  }
  return 0;
}
