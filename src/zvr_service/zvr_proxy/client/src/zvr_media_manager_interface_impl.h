// The manager facade behind requestZVRMediaProxy(). Internal to the library: the host only sees
// ZVRMediaProxyManagerInterface.

#ifndef ZVR_MEDIA_MANAGER_INTERFACE_IMPL_H_
#define ZVR_MEDIA_MANAGER_INTERFACE_IMPL_H_

#include <boost/thread/recursive_mutex.hpp>
#include <memory>
#include <string>

#include "zvr_media_manager_interface.h"

namespace velmora {

// Stateless: each operation logs, fetches the manager and forwards to it. Nothing throws out of
// it: when the manager cannot be built, each operation logs "manager is NULL." and the creations
// return an empty pointer.
class ZVRMediaProxyManagerInterfaceImpl : public ZVRMediaProxyManagerInterface {
 public:
  ZVRMediaProxyManagerInterfaceImpl() = default;
  virtual ~ZVRMediaProxyManagerInterfaceImpl() {}

  std::shared_ptr<ZVRMediaProxyInterface> createNewZVRMediaProxy() override;
  std::shared_ptr<ZVRMediaProxyInterface> createNewZVRMediaProxy(std::string id) override;
  std::shared_ptr<ZVRMediaProxyInterface> createNewZVRMediaProxySync() override;
  std::shared_ptr<ZVRMediaProxyInterface> createNewZVRMediaProxySync(std::string id) override;
  void setZVRCallback(void (*callback)(std::string, std::string, std::string)) override;
};

// Guards the creation of the facade; taken only while requestZVRMediaProxy() finds no facade.
boost::recursive_mutex& interfaceLock();

}  // namespace velmora

#endif  // ZVR_MEDIA_MANAGER_INTERFACE_IMPL_H_
