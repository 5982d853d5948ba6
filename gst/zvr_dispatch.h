// The plugin's side of the library's process-wide hooks, and its creations.
//
// The library has one application callback for the whole process, a plain function without
// user data, and outcome listeners. The plugin sets both when an element starts, until both are
// set (a library whose manager could not be built yet is asked again at the next start), and
// routes what they deliver by proxy id to the session of the element that owns that id.
// Deliveries for ids that no live session owns (a late answer after a stop) are dropped.
//
// The "url" callback runs while the library holds the notified proxy's mutex, on its listener
// thread or, in synchronous mode, inside start(): the dispatcher only stores the value in the
// session and wakes its worker, it never calls into a proxy.
//
// Creations without id that run at the same time may return the same id, and the library never
// replaces a registered id: the plugin's creations run one at a time on a creation thread of its
// own, and an id that this process has seen before counts as a failed creation. A session waits
// for its creation with a time limit of its own and can be cancelled meanwhile: a creation still
// queued is then skipped, one under way is discarded when it returns, so that one hung creation
// (up to about 2.2 s against a silent service) delays no other element beyond its own limit.
//
// Everything here that a detached thread can reach (the registry, the creation queue) is
// allocated once and never destroyed, so that a thread still running while the process exits
// touches no destroyed object.

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

// The result of a creation for a session.
enum class Creation {
  kCreated,    // session->proxy and proxyId are set, and the id is routed to the session
  kNoLibrary,  // the library's manager or the proxy could not be made
  kNoService,  // the creation ended with the empty id: no service answered
  kReusedId,   // the service returned an id that this process had seen before
  kCancelled,  // the session was cancelled or gave up: skipped, or its result discarded
};

// One start of one element: from READY->PAUSED to PAUSED->READY. Shared by the element, its
// worker thread, the creation thread and the dispatcher; every field is guarded by `mutex`, and
// `changed` is notified whenever one of them changes.
struct Session {
  std::mutex mutex;
  std::condition_variable changed;

  // The element, while it still wants this session's results. Cleared (with `cancelled` set) by
  // the element when it leaves PAUSED; the worker takes a reference only while it is set.
  GstElement* element = nullptr;
  bool cancelled = false;
  // Set by the worker when its time limit passed before the creation ended: the creation's
  // result is then discarded like a cancelled one.
  bool creationAbandoned = false;

  // Set by the creation thread.
  bool creationDone = false;
  Creation creation = Creation::kCancelled;
  // The proxy, once created and kept.
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy;
  std::string proxyId;

  // Handed over by the dispatcher.
  std::string url;
  std::deque<std::string> definitions;
  bool startFailed = false;
  std::string failureCode;
  std::string failureDetail;

  // A time seek handed over by the element, for the worker to forward; a later one replaces it.
  bool seekPending = false;
  double seekSeconds = 0;
};

// Sets the application callback and the outcome listener unless both are set already. Returns
// whether the callback is set; called again at the next start when it is not.
bool installHooks();

// Queues the creation of a proxy for `session` on the plugin's creation thread; its result
// arrives in the session (creationDone, creation). False when the creation thread could not be
// started (the next request tries again).
bool requestCreation(const std::shared_ptr<Session>& session);

// Removes the session's id from dispatch; later deliveries for it are dropped.
void unregisterSession(const std::shared_ptr<Session>& session);

// The bus name of the media service, for messages.
const char* serviceName();

}  // namespace zvr_gst

#endif  // ZVR_GST_ZVR_DISPATCH_H_
