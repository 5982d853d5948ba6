// The handle a host holds for one remote media player.
//
// A handle is always held through std::shared_ptr; the library's proxy registry holds a second
// reference, so a handle lives until the host has let go of it and the registry entry is gone.
// Its only implementation is velmora::ZVRMediaProxyObject.
//
// Threads: any host thread may call any operation. The commands never wait for the service
// unless the manager is in sync mode (after the first synchronous creation); then each command
// blocks its caller for up to about 250 ms while it waits for the answer.
//
// The application callback (ZVRMediaProxyManagerInterface::setZVRCallback) is called by
//   - the platform's listener thread, for answers that arrive as events;
//   - the caller's own thread, inside start(url, 0), and inside any command whose synchronous
//     wait found its answer.
// One answer may reach the callback twice (once through the wait, once through the listener).
//
// Calls from inside the "url" notification, which runs while the notified proxy's mutex is held:
//   - the notified proxy's id(), localURL() and getState() answer at once: the new URL, and
//     state 1 (the proxy moves to 2 after the notification);
//   - its commands (start, stop, pause, seek, preload) are deferred: they run on the same thread,
//     in call order, right after the notification, so their effect lands after the move to
//     state 2 (stop() from there leaves the proxy idle);
//   - calls on other proxies are not deferred: they take that proxy's mutex. If the other proxy
//     can be inside its own "url" notification at the same time (on another thread) and that
//     notification calls back into this proxy, the two threads wait for each other for good. A
//     host that acts on other players from a notification must make sure their notifications do
//     not call back (or hand the work to a thread of its own);
//   - the manager may be used as anywhere else. A creation without id called there in
//     asynchronous mode cannot be answered, since the listener thread that would deliver its
//     "created" answer is the caller: it returns after its bounded wait (a little more than
//     2.2 s) with a proxy of the empty id, having restarted the service once.

#ifndef ZVR_MEDIA_PROXY_INTERFACE_H_
#define ZVR_MEDIA_PROXY_INTERFACE_H_

#include <memory>
#include <string>

#include "zvr_media_proxy_export.h"

namespace velmora {

class ZVR_EXPORT ZVRMediaProxyInterface {
 public:
  virtual ~ZVRMediaProxyInterface() {}

  // The proxy id: the service's name for the remote player and the registry key.
  virtual std::string id() = 0;
  // The local URL delivered by the service's "started" answer; empty until then.
  virtual std::string localURL() = 0;
  // 0 idle, 1 starting, 2 started.
  virtual int getState() = 0;
  // Starts playback of `url`. Mode 0 instead takes over a playback prepared by preload().
  virtual void start(std::string url, int mode) = 0;
  virtual void stop() = 0;
  // Not implemented by the service channel: logged and dropped.
  virtual void pause() = 0;
  // Dropped while idle.
  virtual void seek(double position, std::string text) = 0;
  // Prepares a playback that a later start(url, 0) takes over.
  virtual void preload(double position, std::string text1, std::string text2,
                       std::string text3) = 0;

  // Creates a proxy as ZVRMediaProxyManagerInterface::createNewZVRMediaProxy() does, without
  // its log lines.
  static std::shared_ptr<ZVRMediaProxyInterface> create();
  // The registered proxy with that id, or an empty pointer.
  static std::shared_ptr<ZVRMediaProxyInterface> getObjectById(std::string id);
};

}  // namespace velmora

#endif  // ZVR_MEDIA_PROXY_INTERFACE_H_
