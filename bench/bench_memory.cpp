// Resident memory per registered proxy.
//
// Registers 10,000 proxies ("zvr-1" .. "zvr-10000", registry only: the host keeps no handle)
// with the manager singleton and reads the resident set from /proc/self/statm before and after.
// The baseline is the least a registry entry can be: the same keys in a std::map whose values are
// shared pointers (std::make_shared) to the id text alone, measured the same way in this process
// afterwards. The heap growth (mallinfo2) is given beside the resident growth, as a cross-check
// that does not depend on page granularity.
//
//   zvr_bench_memory [--count=N] [--out=FILE]     JSON on standard output, or into FILE

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench_doubles.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyObject;

long residentBytes() {
  long size = 0;
  long resident = 0;
  std::ifstream statm("/proc/self/statm");
  statm >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

long heapBytes() { return static_cast<long>(mallinfo2().uordblks); }

struct Growth {
  double residentPerEntry;
  double heapPerEntry;
};

template <typename Fill>
Growth measure(int count, Fill fill) {
  const long resident0 = residentBytes();
  const long heap0 = heapBytes();
  fill();
  const long resident1 = residentBytes();
  const long heap1 = heapBytes();
  return {static_cast<double>(resident1 - resident0) / count,
          static_cast<double>(heap1 - heap0) / count};
}

}  // namespace

int main(int argc, char** argv) {
  int count = 10000;
  std::string out;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--count=", 8) == 0) {
      count = std::atoi(argv[i] + 8);
    } else if (std::strncmp(argv[i], "--out=", 6) == 0) {
      out = argv[i] + 6;
    } else {
      std::fprintf(stderr, "usage: %s [--count=N] [--out=FILE]\n", argv[0]);
      return 2;
    }
  }
  zvr_bench::setLogThreshold(0);
  // The manager singleton and one proxy first, so that neither the manager nor the first
  // allocations of the registry count.
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  manager->cacheProxyObject(ZVRMediaProxyObject::create("zvr-0"));

  // The id texts are short enough for the string's inline buffer, so making them allocates
  // nothing that outlives the loop.
  const Growth library = measure(count, [&] {
    for (int i = 1; i <= count; ++i) {
      manager->cacheProxyObject(ZVRMediaProxyObject::create("zvr-" + std::to_string(i)));
    }
  });
  if (!manager->findProxyObjectFromCache("zvr-" + std::to_string(count))) {
    std::fprintf(stderr, "the proxies were not registered\n");
    return 1;
  }

  auto* baselineMap = new std::map<std::string, std::shared_ptr<std::string>>;
  baselineMap->emplace("zvr-0", std::make_shared<std::string>("zvr-0"));
  const Growth baseline = measure(count, [&] {
    for (int i = 1; i <= count; ++i) {
      std::string id = "zvr-" + std::to_string(i);
      auto value = std::make_shared<std::string>(id);
      baselineMap->emplace(std::move(id), std::move(value));
    }
  });

  std::ostringstream json;
  json << "{\n"
       << "  \"count\": " << count << ",\n"
       << "  \"sizeof_proxy_object\": " << sizeof(ZVRMediaProxyObject) << ",\n"
       << "  \"library_resident_bytes_per_proxy\": " << library.residentPerEntry << ",\n"
       << "  \"library_heap_bytes_per_proxy\": " << library.heapPerEntry << ",\n"
       << "  \"baseline_resident_bytes_per_entry\": " << baseline.residentPerEntry << ",\n"
       << "  \"baseline_heap_bytes_per_entry\": " << baseline.heapPerEntry << "\n"
       << "}\n";
  if (out.empty()) {
    std::fputs(json.str().c_str(), stdout);
  } else {
    std::ofstream(out) << json.str();
  }
  return 0;
}
