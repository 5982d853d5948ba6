// What happened to the commands and proxies of this process, beyond the log lines.
//
// The library reports a refused start, a creation that ran out of time or a lost answer only in
// its log, and the application callback hears only of URLs and definitions. This header adds
//   - outcome listeners: a function with a user-data pointer, called for every failed answer of
//     the service, every synchronous wait that ran out, every creation that ended with the empty
//     id, and every service restart that the library asked for;
//   - counters per proxy and for the process, read as a copy at any time.
// Nothing here changes what the library sends, logs or waits for.
//
// Threads: listeners are called on the library's outcome thread, one outcome at a time, never
// while that thread holds a library lock. Outcomes reach it in the order in which the threads that
// raised them handed them over: the outcomes of one thread in the order they arose. An outcome
// that arises while its thread holds the manager mutex or a proxy's mutex (a restart during an
// asynchronous creation) is handed over when that lock is released, so an outcome of another
// thread may come before it (compare ZVROutcome::time where the order across threads matters).
// A listener may call any operation of the library, a creation included; while it runs, later
// outcomes wait. The outcome thread starts with the first listener and lives until the process
// ends.
//
// Copies: ZVROutcome, ZVRProxyCounters and ZVRProcessCounters are made by the library and only
// ever grow at their end, so a host built against an older header reads the fields it knows.
// Hosts must not allocate them expecting the library to fill them in.

#ifndef ZVR_MEDIA_PROXY_DIAGNOSTICS_H_
#define ZVR_MEDIA_PROXY_DIAGNOSTICS_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "zvr_media_proxy_export.h"
#include "zvr_media_proxy_interface.h"

namespace velmora {

struct ZVROutcome {
  enum Kind : int32_t {
    // A "created", "started", "stopped" or "seeked" answer whose result code is not "200",
    // also for a proxy that is not registered (proxy is then null). An answer that reaches the
    // library twice (synchronous mode) is reported once: answers of the same name, session id
    // and proxy id count as one, which also merges the answers to the two "create" commands
    // that a synchronous creation sends with one session id.
    kFailedAnswer = 1,
    // A synchronous request's 250 ms wait for its answer ran out.
    kWaitTimedOut = 2,
    // A creation without id returned a proxy with the empty id.
    kCreationEmpty = 3,
    // The library asked the platform to start the media service again (not reported when there
    // is no connection to the platform to ask through).
    kServiceRestart = 4,
  };

  Kind kind;
  // kFailedAnswer: the answer's event name; kWaitTimedOut: the command word ("start", "stop",
  // "seek", "preload", "inspect", "create"); kCreationEmpty: "create"; kServiceRestart:
  // "restart".
  std::string name;
  // The proxy id concerned; "" for creations, inspections and restarts.
  std::string proxyId;
  // The session id of the command answered or awaited, where there is one.
  std::string sessionId;
  // kFailedAnswer: the result code (position 1 of the answer).
  std::string code;
  // kFailedAnswer: the detail (position 8 of the answer); otherwise what the library knows.
  std::string detail;
  // When the outcome arose: seconds on the monotonic clock (CLOCK_MONOTONIC).
  double time;
  // The handle concerned, for comparison only (never dereference it: the proxy may be gone by
  // the time the outcome is delivered); null where there is none or it is not known.
  const ZVRMediaProxyInterface* proxy;
};

// Called on the outcome thread; `userData` is the pointer given to addZVROutcomeListener.
typedef void (*ZVROutcomeListener)(const ZVROutcome& outcome, void* userData);

// Adds a listener; false when it is null or the same (listener, userData) pair is already added.
ZVR_EXPORT bool addZVROutcomeListener(ZVROutcomeListener listener, void* userData);
// Removes a listener; false when the pair was not added. When it returns, that listener is not
// running and will not be called again, with two exceptions where waiting for it could deadlock:
// a call from that listener itself, and a call made while the library holds a lock on this
// thread (from inside the "url" notification). The listener then may still be finishing its
// current call, and is not called again. Outcomes that arose before the removal and are still
// queued are not delivered to it.
ZVR_EXPORT bool removeZVROutcomeListener(ZVROutcomeListener listener, void* userData);

// A copy never shows a failure without the event that carried it, nor an answer without the
// command it answers (a command is counted just before it is sent).
struct ZVRProxyCounters {
  // Command messages this proxy sent, by command word ("start", "stop", "seek", "preload").
  std::map<std::string, uint64_t> commandsSent;
  // Event records handed to this proxy, by event name; an answer dispatched twice counts twice.
  std::map<std::string, uint64_t> eventsReceived;
  // Failed answers ("started", "stopped", "seeked" with a code other than "200"), by event name;
  // an answer dispatched twice counts once.
  std::map<std::string, uint64_t> failures;
  // The last failed answer; lastFailureTime is 0 when there was none (monotonic seconds).
  std::string lastFailureName;
  std::string lastFailureCode;
  std::string lastFailureDetail;
  double lastFailureTime = 0;
  // Synchronous waits of this proxy's commands that ran out.
  uint64_t waitsTimedOut = 0;
};

struct ZVRProcessCounters {
  // Creations without id: calls, those that returned a proxy with an id, those that returned the
  // empty id, and "create" commands sent for them.
  uint64_t creationsTried = 0;
  uint64_t creationsSucceeded = 0;
  uint64_t creationsEmpty = 0;
  uint64_t creationAttempts = 0;
  // Service restarts that the library asked for.
  uint64_t serviceRestarts = 0;
  // Mappings of "/ZVR_PROXY" made, and reads of it whose text could not be parsed.
  uint64_t segmentMappings = 0;
  uint64_t segmentParseFailures = 0;
  // Event records addressed to a proxy that is not registered.
  uint64_t unroutedRecords = 0;
  // Calls of outcome listeners.
  uint64_t listenerDeliveries = 0;
  // False when counting is switched off (ZVR_COUNTERS=0 in the environment, read once): the
  // counters then stay 0, and outcomes are still delivered.
  bool counting = true;
};

// The counters of the proxy behind `proxy`, as a copy. Ids can repeat, so proxies are told apart
// by their handle. Empty when `proxy` is empty or was not made by the library.
ZVR_EXPORT std::shared_ptr<const ZVRProxyCounters> getZVRProxyCounters(
    const std::shared_ptr<ZVRMediaProxyInterface>& proxy);
// The process's counters, as a copy.
ZVR_EXPORT std::shared_ptr<const ZVRProcessCounters> getZVRProcessCounters();

}  // namespace velmora

#endif  // ZVR_MEDIA_PROXY_DIAGNOSTICS_H_
