// Reading one event from "/ZVR_PROXY".
//
//   BM_ReadEventMemory / BM_ReadEventMemoryBaseline
//       ZVRMediaProxyManager::readZVREventMemory() with a realistic "started" record of about
//       200 bytes in the segment, against a plain copy of the 4096 bytes plus one JsonCpp parse
//       of the same text (Json::Reader, comments collected, as the library parses it).
//
// The program plays the service's side: it creates the segment, writes the record and removes the
// segment at the end, all while it holds the machine-wide segment lock (segment_lock.h). Logging
// is off.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <json/json.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "bench_doubles.h"
#include "segment_lock.h"
#include "zvr_media_proxy_manager.h"

namespace {

constexpr std::size_t kSegmentSize = 4096;
constexpr char kSegmentName[] = "/ZVR_PROXY";

char* gSegment = nullptr;

// The answer to a start, as the service writes it: 11 members, a session id and a local URL.
std::string startedRecordText() {
  const std::vector<std::string> record = {"started",
                                           "200",
                                           "ses-7F3A9C21-4B1D-8E6F-A1B2C3D4E5F60718",
                                           "zvr-17",
                                           "",
                                           "",
                                           "http://127.0.0.1:41234/media/zvr-17",
                                           "",
                                           "ready: 1920x1080 h264",
                                           "",
                                           ""};
  std::string text = "{";
  for (std::size_t i = 0; i < record.size(); ++i) {
    if (i != 0) text += ",";
    text += "\"" + std::to_string(i) + "\":\"" + record[i] + "\"";
  }
  return text + "}";
}

void BM_ReadEventMemory(benchmark::State& state) {
  zvr_bench::setLogThreshold(0);
  velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
  for (auto _ : state) {
    std::vector<std::string> record = manager->readZVREventMemory();
    benchmark::DoNotOptimize(record.data());
  }
  state.counters["bytes"] = static_cast<double>(std::strlen(gSegment));
}
BENCHMARK(BM_ReadEventMemory);

void BM_ReadEventMemoryBaseline(benchmark::State& state) {
  static char buffer[kSegmentSize];
  for (auto _ : state) {
    std::memcpy(buffer, gSegment, kSegmentSize);
    Json::Reader reader;
    Json::Value root;
    bool parsed = reader.parse(buffer, buffer + strnlen(buffer, kSegmentSize), root, true);
    benchmark::DoNotOptimize(parsed);
    benchmark::DoNotOptimize(root);
  }
}
BENCHMARK(BM_ReadEventMemoryBaseline);

bool makeSegment() {
  shm_unlink(kSegmentName);
  const int fd = shm_open(kSegmentName, O_RDWR | O_CREAT, 0666);
  if (fd < 0) return false;
  if (ftruncate(fd, kSegmentSize) != 0) {
    close(fd);
    return false;
  }
  void* address = mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (address == MAP_FAILED) return false;
  gSegment = static_cast<char*>(address);
  const std::string text = startedRecordText();
  std::memcpy(gSegment, text.c_str(), text.size() + 1);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  try {
    zvr_bench::SegmentLock lock;
    zvr_bench::setLogThreshold(0);
    if (!makeSegment()) {
      std::fprintf(stderr, "cannot create %s\n", kSegmentName);
      return 1;
    }
    velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
    const std::vector<std::string> record = manager->checkZVREventMemory() == 0
                                                ? manager->readZVREventMemory()
                                                : std::vector<std::string>();
    if (record.size() != 11 || record[0] != "started" || record[3] != "zvr-17") {
      std::fprintf(stderr, "the library does not read the segment back\n");
      shm_unlink(kSegmentName);
      return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    shm_unlink(kSegmentName);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zvr_bench_event_memory: %s\n", e.what());
    return 1;
  }
  return 0;
}
