#include "zvr_media_manager_interface_impl.h"

#include <atomic>
#include <boost/thread/lock_guard.hpp>
#include <exception>
#include <iostream>

#include "zvr_cancellation.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace velmora {

using logging::kError;
using logging::kProgress;

namespace {

std::atomic<ZVRMediaProxyManagerInterfaceImpl*> gInterface{nullptr};
boost::recursive_mutex gInterfaceLock;

// The manager, or null when it cannot be built.
ZVRMediaProxyManager* managerOrNull() {
  try {
    return ZVRMediaProxyManager::getInstance();
  } catch (...) {
    if (unwindingCancelledThread()) throw;
    return nullptr;
  }
}

}  // namespace

boost::recursive_mutex& interfaceLock() { return gInterfaceLock; }

// A failure inside the manager's own work (a lock that cannot be taken, memory) is logged and
// answered with an empty pointer, like a missing manager: nothing throws into the host. Only the
// unwinding of a cancelled thread passes through, as glibc requires.
#define ZVR_FORWARD_CREATE(call)                      \
  ZVR_LOG(kProgress, "called.\n");                    \
  ZVRMediaProxyManager* manager = managerOrNull();    \
  if (manager == nullptr) {                           \
    ZVR_LOG(kError, "manager is NULL.\n");            \
    return std::shared_ptr<ZVRMediaProxyInterface>(); \
  }                                                   \
  try {                                               \
    return manager->call;                             \
  } catch (const std::exception& e) {                 \
    ZVR_LOG(kError, "failed: %s\n", e.what());        \
  } catch (...) {                                     \
    if (unwindingCancelledThread()) throw;            \
    ZVR_LOG(kError, "failed.\n");                     \
  }                                                   \
  return std::shared_ptr<ZVRMediaProxyInterface>()

std::shared_ptr<ZVRMediaProxyInterface>
ZVRMediaProxyManagerInterfaceImpl::createNewZVRMediaProxy() {
  ZVR_FORWARD_CREATE(createNewZVRMediaProxy());
}

std::shared_ptr<ZVRMediaProxyInterface> ZVRMediaProxyManagerInterfaceImpl::createNewZVRMediaProxy(
    std::string id) {
  ZVR_FORWARD_CREATE(createNewZVRMediaProxy(id));
}

std::shared_ptr<ZVRMediaProxyInterface>
ZVRMediaProxyManagerInterfaceImpl::createNewZVRMediaProxySync() {
  ZVR_FORWARD_CREATE(createNewZVRMediaProxySync());
}

std::shared_ptr<ZVRMediaProxyInterface>
ZVRMediaProxyManagerInterfaceImpl::createNewZVRMediaProxySync(std::string id) {
  ZVR_FORWARD_CREATE(createNewZVRMediaProxySync(id));
}

#undef ZVR_FORWARD_CREATE

void ZVRMediaProxyManagerInterfaceImpl::setZVRCallback(void (*callback)(std::string, std::string,
                                                                        std::string)) {
  ZVR_LOG(kError, "called.\n");
  ZVRMediaProxyManager* manager = managerOrNull();
  if (manager == nullptr) {
    ZVR_LOG(kError, "manager is NULL.\n");
    return;
  }
  manager->setZVRCallback(callback);
}

std::shared_ptr<ZVRMediaProxyInterface> ZVRMediaProxyInterface::create() {
  return ZVRMediaProxyManager::getInstance()->createNewZVRMediaProxy();
}

std::shared_ptr<ZVRMediaProxyInterface> ZVRMediaProxyInterface::getObjectById(std::string id) {
  return ZVRMediaProxyManager::getInstance()->findObjectById(id);
}

}  // namespace velmora

extern "C" velmora::ZVRMediaProxyManagerInterface* requestZVRMediaProxy() {
  using velmora::ZVRMediaProxyManagerInterfaceImpl;
  ZVR_LOG(velmora::logging::kProgress, "Get proxy manager interface.\n");
  ZVRMediaProxyManagerInterfaceImpl* instance = velmora::gInterface.load(std::memory_order_acquire);
  if (instance != nullptr) return instance;
  boost::lock_guard<boost::recursive_mutex> lock(velmora::gInterfaceLock);
  instance = velmora::gInterface.load(std::memory_order_relaxed);
  if (instance == nullptr) {
    instance = new ZVRMediaProxyManagerInterfaceImpl();
    velmora::gInterface.store(instance, std::memory_order_release);
  }
  return instance;
}
