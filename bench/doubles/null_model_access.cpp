// A model access with nothing behind it (see bench_doubles.h).

#include <atomic>
#include <cstdint>

#include "bench_doubles.h"
#include "zvr_model_access.h"

namespace zvr_bench {
namespace {
std::atomic<std::uint64_t> gWrites{0};
}  // namespace

std::uint64_t accessValueWrites() { return gWrites.load(std::memory_order_relaxed); }

}  // namespace zvr_bench

namespace velmora {

struct ZVRModelAccess::Impl {};

ZVRModelAccess::ZVRModelAccess(ZVRModelAccessClient* /*client*/) : impl_(new Impl) {}

ZVRModelAccess::~ZVRModelAccess() = default;

int ZVRModelAccess::start() { return 0; }

int ZVRModelAccess::startEventListener() { return 0; }

int ZVRModelAccess::requestStartZVRService() { return 0; }

int ZVRModelAccess::setAccessValue(std::string /*key*/, std::vector<std::string> /*values*/) {
  zvr_bench::gWrites.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

int ZVRModelAccess::getAccessValue(std::string /*key*/, std::vector<std::string>& /*values*/) {
  return -1;
}

}  // namespace velmora
