// The library's entry point: requestZVRMediaProxy() returns the process-wide manager interface.
//
// The interface object and the manager behind it are created on first use and live until the
// process ends; the host never deletes them. Any host thread may call any operation.
//
// How long a call can block:
//   - createNewZVRMediaProxy(): normally until the service's "created" answer; with a silent
//     service a little more than 2.2 s (it restarts the service after 0.2 s and gives up 2.0 s
//     after the restart).
//   - createNewZVRMediaProxySync(): up to about 2.6 s with a silent service (three synchronous
//     waits of 250 ms, a restart pause of 800 ms and more). It switches the manager into sync
//     mode for good: from then on every proxy command waits up to 250 ms for its answer.
//   - the two operations with an id send nothing and return at once.
// A creation without id never returns an empty pointer: when the service stays silent, the
// proxy returned has the empty id. An empty pointer means that the manager itself could not be
// built (the platform refused to start its event listener), or that the creation failed inside
// the library (a lock or memory failure); both are logged.
//
// What a host must do about three properties of the creations:
//   - Creations without id that run at the same time share one list of answers and may return
//     the same id; an id, once registered, is never replaced by a later creation, so the second
//     proxy receives no events. Serialise creations without id, and treat an id that this
//     process has seen before as a failed creation.
//   - In sync mode every creation maps "/ZVR_PROXY" once more and never unmaps the earlier
//     mappings (about 500 mappings per 1,000 operations): the kernel's default limit of 65,530
//     mappings per process is reached after about 32,700 synchronous creations. Budget them.
//   - The registry keeps every proxy it ever registered, with its counters (about 140 kB per
//     1,000 asynchronous operations of the soak benchmark, a creation in four), also after the
//     host has let go of it.
//
// The callback receives (proxy id, "url" or "definitions", value). See
// zvr_media_proxy_interface.h for the threads it runs on and what it may call.
// zvr_media_proxy_diagnostics.h adds outcome listeners and counters.

#ifndef ZVR_MEDIA_MANAGER_INTERFACE_H_
#define ZVR_MEDIA_MANAGER_INTERFACE_H_

#include <memory>
#include <string>

#include "zvr_media_proxy_export.h"
#include "zvr_media_proxy_interface.h"

namespace velmora {

// The application callback: (proxy id, "url" or "definitions", value).
typedef void (*ZVRCallback)(std::string, std::string, std::string);

class ZVR_EXPORT ZVRMediaProxyManagerInterface {
 public:
  // Asks the service for a new remote player and returns its proxy.
  virtual std::shared_ptr<ZVRMediaProxyInterface> createNewZVRMediaProxy() = 0;
  // Returns a new proxy for the existing remote player `id`; sends nothing.
  virtual std::shared_ptr<ZVRMediaProxyInterface> createNewZVRMediaProxy(std::string id) = 0;
  // As createNewZVRMediaProxy(), waiting synchronously; switches on sync mode.
  virtual std::shared_ptr<ZVRMediaProxyInterface> createNewZVRMediaProxySync() = 0;
  // As createNewZVRMediaProxy(id); switches on sync mode.
  virtual std::shared_ptr<ZVRMediaProxyInterface> createNewZVRMediaProxySync(std::string id) = 0;
  // Sets the application callback; null switches notifications off.
  virtual void setZVRCallback(void (*callback)(std::string, std::string, std::string)) = 0;

 protected:
  // The interface object is never deleted by the host.
  ~ZVRMediaProxyManagerInterface() = default;
};

}  // namespace velmora

extern "C" ZVR_EXPORT velmora::ZVRMediaProxyManagerInterface* requestZVRMediaProxy();

#endif  // ZVR_MEDIA_MANAGER_INTERFACE_H_
