// The plugin's side of the library's process-wide hooks.
//
// The library has one application callback for the whole process, a plain function without
// user data, and outcome listeners. The plugin sets both once, when its first element starts,
// and routes what they deliver by proxy id to the session of the element that owns that id.
// Deliveries for ids that no live session owns (a late answer after a stop) are dropped.
//
// The "url" callback runs while the library holds the notified proxy's mutex, on its listener
// thread or, in synchronous mode, inside start(): the dispatcher only stores the value in the
// session and wakes its worker, it never calls into a proxy.
//
// Creations without id that run at the same time may return the same id, and the library never
// replaces a registered id: creations are serialised here, and an id that this process has seen
// before counts as a failed creation.

#ifndef ZVR_GST_ZVR_DISPATCH_H_
#define ZVR_GST_ZVR_DISPATCH_H_

#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "zvr_media_proxy_interface.h"

namespace zvr_gst {

// One start of one element: from READY->PAUSED to PAUSED->READY. Shared by the element, its
// worker thread and the dispatcher; every field is guarded by `mutex`.
struct Session {
  std::mutex mutex;
  std::condition_variable changed;

  // The element, while it still wants this session's results. Cleared (with `cancelled` set) by
  // the element when it leaves PAUSED; the worker takes a reference only while it is set.
  GstElement* element = nullptr;
  bool cancelled = false;

  // The proxy, once created and kept; moved out by whoever stops it.
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy;
  std::string proxyId;
  bool started = false;  // start() was sent

  // Handed over by the dispatcher.
  std::string url;
  std::deque<std::string> definitions;
  bool startFailed = false;
  std::string failureCode;
  std::string failureDetail;
  std::chrono::steady_clock::time_point failureSeen;
};

// Sets the application callback and the outcome listener, once per process.
void installHooks();

// The result of a creation for a session.
enum class Creation { kCreated, kNoLibrary, kNoService, kReusedId, kCancelled };

// Creates a proxy for `session`, serialised with every other creation of the plugin, and
// registers its id for dispatch. On kCreated, session->proxy and proxyId are set. kCancelled:
// the session was cancelled while the creation ran; its result is discarded.
Creation createProxy(const std::shared_ptr<Session>& session);

// Removes the session's id from dispatch; later deliveries for it are dropped.
void unregisterSession(const std::shared_ptr<Session>& session);

// The bus name of the media service, for messages.
const char* serviceName();

}  // namespace zvr_gst

#endif  // ZVR_GST_ZVR_DISPATCH_H_
