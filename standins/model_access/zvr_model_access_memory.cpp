// The platform model-access library for builds without D-Bus (the cross build, whose tests run
// against the doubles).
//
// Keeps every value written with setAccessValue in memory and serves it back with
// getAccessValue. No service exists behind it, so no event is ever delivered and a request to
// start the service fails. Safe to use from any thread.

#include "zvr_model_access.h"

#include <map>
#include <mutex>
#include <utility>

#include "log_utils.h"

namespace velmora {

struct ZVRModelAccess::Impl {
  std::mutex mutex;
  std::map<std::string, std::vector<std::string>> values;
};

ZVRModelAccess::ZVRModelAccess(ZVRModelAccessClient* /*client*/) : impl_(new Impl) {}

ZVRModelAccess::~ZVRModelAccess() = default;

int ZVRModelAccess::start() { return 0; }

int ZVRModelAccess::startEventListener() { return 0; }

int ZVRModelAccess::requestStartZVRService() {
  const unsigned int level[3] = {(0x5Fu << 16) | 1000u, 0, 0};
  if (cspDebugCheckLevelGetFrameAndChunk(level)) {
    cspDebugOutput0("[model-access] no media service in this build\n");
  }
  return -1;
}

int ZVRModelAccess::setAccessValue(std::string key, std::vector<std::string> values) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->values[std::move(key)] = std::move(values);
  return 0;
}

int ZVRModelAccess::getAccessValue(std::string key, std::vector<std::string>& values) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  auto it = impl_->values.find(key);
  if (it == impl_->values.end()) return -1;
  values = it->second;
  return 0;
}

}  // namespace velmora
