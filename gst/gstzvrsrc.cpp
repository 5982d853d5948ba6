// zvrsrc: plays what a remote player of the media service serves at its local URL.
//
// Threads:
//   - the application's thread changes states, sets properties and sends events; it never waits
//     for the service: READY->PAUSED starts a worker and returns ASYNC, PAUSED->READY cancels the
//     worker's session and returns at once, and a time seek is handed to the worker;
//   - the worker thread (one per start, detached) has the proxy created on the plugin's creation
//     thread (zvr_dispatch.cpp), starts it, waits for the local URL, a refused start, the time
//     limit or the cancellation, then adds the internal source and the src pad, and keeps posting
//     definitions and forwarding seeks until the session is cancelled, when it stops the proxy;
//   - the library's threads only hand values over to the session (zvr_dispatch.cpp);
//   - streaming threads reach the src pad's query and event functions and the bin's messages.
// The worker holds the session, not the element: it takes a reference on the element only while
// the session is still attached to it, and touches the element (its properties, pads, children
// and messages) only under the element's state lock after checking that the session was not
// cancelled. PAUSED->READY cancels under that same lock, so nothing of a cancelled session
// reaches the element, also when the element has been started again since.

#include "gstzvrsrc.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "zvr_cancellation.h"
#include "zvr_dispatch.h"

GST_DEBUG_CATEGORY(zvr_src_debug);
#define GST_CAT_DEFAULT zvr_src_debug

namespace {

using Clock = std::chrono::steady_clock;

constexpr guint kDefaultTimeoutMs = 5000;
constexpr const char kPrefix[] = "zvr+";

enum {
  PROP_0,
  PROP_URI,
  PROP_TIMEOUT,
  PROP_PROXY_ID,
  PROP_LOCAL_URL,
  PROP_DEFINITIONS,
  N_PROPERTIES
};

GParamSpec* properties[N_PROPERTIES] = {nullptr};

GstStaticPadTemplate srcTemplate =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_SOMETIMES, GST_STATIC_CAPS_ANY);

// The C++ members of the element. GObject instance structs are zero-filled without running
// constructors, so these live behind a pointer made in init and deleted in finalize.
struct Private {
  // Guards the properties and `session`.
  std::mutex mutex;
  std::string uri;
  guint timeoutMs = kDefaultTimeoutMs;
  std::string proxyId;
  std::string localUrl;
  std::string definitions;
  std::shared_ptr<zvr_gst::Session> session;
  // Whether the broken stream of the current session was reported: the internal source posts
  // more than one error for one failure (its own, then basesrc's flow error).
  bool streamBrokeReported = false;

  // Guarded by the element's state lock.
  GstElement* source = nullptr;  // souphttpsrc
  GstElement* buffer = nullptr;  // queue2 after it
  GstPad* pad = nullptr;
  bool asyncPending = false;
};

}  // namespace

struct _GstZvrSrc {
  GstBin parent;
  Private* priv;
};

static void gst_zvr_src_uri_handler_init(gpointer iface, gpointer data);

#define gst_zvr_src_parent_class parent_class
G_DEFINE_TYPE_WITH_CODE(GstZvrSrc, gst_zvr_src, GST_TYPE_BIN,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_URI_HANDLER, gst_zvr_src_uri_handler_init);
                        GST_DEBUG_CATEGORY_INIT(zvr_src_debug, "zvrsrc", 0,
                                                "zvr+ URIs through the media service"))

GST_ELEMENT_REGISTER_DEFINE(zvrsrc, "zvrsrc", GST_RANK_PRIMARY, GST_TYPE_ZVR_SRC)

namespace {

using zvr_gst::Session;
using Proxy = std::shared_ptr<velmora::ZVRMediaProxyInterface>;

GstZvrSrc* self(gpointer object) { return GST_ZVR_SRC(object); }

// Async state changes of a bin are announced to the parent through the bin's own handling of
// ASYNC_START and ASYNC_DONE. Called with the state lock held.
void asyncStart(GstZvrSrc* src) {
  src->priv->asyncPending = true;
  GstMessage* message = gst_message_new_async_start(GST_OBJECT_CAST(src));
  GST_BIN_CLASS(parent_class)->handle_message(GST_BIN_CAST(src), message);
}

void asyncDone(GstZvrSrc* src) {
  if (!src->priv->asyncPending) return;
  src->priv->asyncPending = false;
  GstMessage* message = gst_message_new_async_done(GST_OBJECT_CAST(src), GST_CLOCK_TIME_NONE);
  GST_BIN_CLASS(parent_class)->handle_message(GST_BIN_CAST(src), message);
}

bool cancelled(const std::shared_ptr<Session>& session) {
  std::lock_guard<std::mutex> lock(session->mutex);
  return session->cancelled;
}

// What a worker does to the element once its state lock is released: the notifications of the
// properties it changed and the messages it posts. Their handlers (bus sync handlers included)
// may then change states as from any other thread, without waiting for a lock the worker holds.
struct AfterUnlock {
  std::vector<int> notify;
  std::vector<std::function<void(GstZvrSrc*)>> post;
};

// Runs `touch(src, after)` under the element's state lock while `session` is still the
// element's, then what `touch` left in `after`, unless the session was cancelled meanwhile; returns
// whether `touch` ran. PAUSED->READY cancels the session under the same lock.
template <typename Touch>
bool withElement(const std::shared_ptr<Session>& session, Touch touch) {
  GstElement* element = nullptr;
  {
    std::lock_guard<std::mutex> lock(session->mutex);
    if (session->cancelled || session->element == nullptr) return false;
    element = GST_ELEMENT(gst_object_ref(session->element));
  }
  AfterUnlock after;
  GST_STATE_LOCK(element);
  const bool current = !cancelled(session);
  if (current) touch(self(element), after);
  GST_STATE_UNLOCK(element);
  if (current && !cancelled(session)) {
    for (int prop : after.notify) g_object_notify_by_pspec(G_OBJECT(element), properties[prop]);
    for (const auto& post : after.post) post(self(element));
  }
  gst_object_unref(element);
  return current;
}

void store(GstZvrSrc* src, std::string Private::*field, const std::string& value, int prop,
           AfterUnlock& after) {
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    src->priv->*field = value;
  }
  after.notify.push_back(prop);
}

// Posts an error of the RESOURCE domain for `src`, as GST_ELEMENT_ERROR does.
void postErrorNow(GstZvrSrc* src, GstResourceError code, const std::string& text,
                  const std::string& debug) {
  GST_WARNING_OBJECT(src, "%s (%s)", text.c_str(), debug.c_str());
  gst_element_message_full(GST_ELEMENT(src), GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, code,
                           g_strdup(text.c_str()), g_strdup(debug.c_str()), __FILE__, GST_FUNCTION,
                           __LINE__);
}

// Posts the error for the session's element, unless the session was cancelled.
void postError(const std::shared_ptr<Session>& session, GstResourceError code,
               const std::string& text, const std::string& debug) {
  withElement(session, [&](GstZvrSrc*, AfterUnlock& after) {
    after.post.push_back(
        [code, text, debug](GstZvrSrc* src) { postErrorNow(src, code, text, debug); });
  });
}

gboolean padQuery(GstPad* pad, GstObject* parent, GstQuery* query) {
  if (GST_QUERY_TYPE(query) != GST_QUERY_SCHEDULING) {
    return gst_pad_query_default(pad, parent, query);
  }
  // Answered as a network source does, so that the pipeline buffers it as a stream.
  GstSchedulingFlags flags = static_cast<GstSchedulingFlags>(0);
  gint minSize = 1, maxSize = -1, align = 0;
  if (gst_pad_query_default(pad, parent, query)) {
    gst_query_parse_scheduling(query, &flags, &minSize, &maxSize, &align);
  } else {
    gst_query_add_scheduling_mode(query, GST_PAD_MODE_PUSH);
  }
  gst_query_set_scheduling(
      query, static_cast<GstSchedulingFlags>(flags | GST_SCHEDULING_FLAG_BANDWIDTH_LIMITED),
      minSize, maxSize, align);
  return TRUE;
}

// A time seek goes to the remote player, then is refused, so that the demuxer seeks by bytes
// through the local URL. The worker forwards it: the seeking thread never waits for the
// service. Returns true when `event` was such a seek (and is consumed).
bool forwardTimeSeek(GstZvrSrc* src, GstEvent* event) {
  if (GST_EVENT_TYPE(event) != GST_EVENT_SEEK) return false;
  GstFormat format;
  GstSeekType startType;
  gint64 start = 0;
  gst_event_parse_seek(event, nullptr, &format, nullptr, &startType, &start, nullptr, nullptr);
  if (format != GST_FORMAT_TIME) return false;
  std::shared_ptr<Session> session;
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    session = src->priv->session;
  }
  if (session && startType == GST_SEEK_TYPE_SET && start >= 0) {
    const double seconds = static_cast<double>(start) / GST_SECOND;
    std::lock_guard<std::mutex> lock(session->mutex);
    if (!session->cancelled && session->proxy) {
      GST_DEBUG_OBJECT(src, "time seek to %.3f s handed to the worker for proxy %s, refused here",
                       seconds, session->proxyId.c_str());
      session->seekPending = true;
      session->seekSeconds = seconds;
      session->changed.notify_all();
    }
  }
  gst_event_unref(event);
  return true;
}

gboolean padEvent(GstPad* pad, GstObject* parent, GstEvent* event) {
  if (parent != nullptr && forwardTimeSeek(self(parent), event)) return FALSE;
  return gst_pad_event_default(pad, parent, event);
}

// Adds souphttpsrc on `url` behind the src pad and completes the async state change. Called with
// the state lock held, so that it cannot interleave with PAUSED->READY.
void addSource(GstZvrSrc* src, const std::shared_ptr<Session>& session, const std::string& url,
               AfterUnlock& after) {
  GstElement* element = GST_ELEMENT(src);
  if (src->priv->source != nullptr) return;
  GstElement* http = gst_element_factory_make("souphttpsrc", nullptr);
  if (http == nullptr) {
    after.post.push_back([](GstZvrSrc* s) {
      postErrorNow(s, GST_RESOURCE_ERROR_FAILED, "GStreamer's souphttpsrc is not installed",
                   "zvrsrc reads the media service's local URL with souphttpsrc");
    });
    return;
  }
  // The stream's buffer, which playbin's uridecodebin plugs only behind a source with an always
  // pad: it posts the buffering messages by which a player (WPE WebKit) learns that enough data
  // has come to start playing. Seeks pass through it to souphttpsrc.
  GstElement* buffer = gst_element_factory_make("queue2", nullptr);
  if (buffer == nullptr) {
    gst_object_unref(http);
    after.post.push_back([](GstZvrSrc* s) {
      postErrorNow(s, GST_RESOURCE_ERROR_FAILED, "GStreamer's queue2 is not installed",
                   "zvrsrc buffers the media service's stream with queue2");
    });
    return;
  }
  // Loopback: no proxy server in between; the service's server answers ranges.
  g_object_set(http, "location", url.c_str(), "proxy", "", "automatic-redirect", FALSE, nullptr);
  g_object_set(buffer, "use-buffering", TRUE, nullptr);
  gst_bin_add_many(GST_BIN(src), http, buffer, nullptr);
  gst_element_link(http, buffer);
  src->priv->source = http;
  src->priv->buffer = buffer;

  GstPad* target = gst_element_get_static_pad(buffer, "src");
  // The class's own template: the ghost pad takes a reference of its own.
  GstPad* pad = gst_ghost_pad_new_from_template(
      "src", target, gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(src), "src"));
  gst_object_unref(target);
  gst_pad_set_query_function(pad, padQuery);
  gst_pad_set_event_function(pad, padEvent);
  gst_pad_set_active(pad, TRUE);
  src->priv->pad = pad;
  // Added before the source runs: whoever links it does so in pad-added, before data flows.
  gst_element_add_pad(element, pad);
  gst_element_no_more_pads(element);
  for (GstElement* child : {buffer, http}) {
    if (!gst_element_sync_state_with_parent(child)) gst_element_set_state(child, GST_STATE_PAUSED);
  }
  asyncDone(src);
  GST_DEBUG_OBJECT(src, "proxy %s: reading %s", session->proxyId.c_str(), url.c_str());
}

// Removes the internal source and the pad. Called with the state lock held.
void dropSource(GstZvrSrc* src) {
  if (src->priv->pad != nullptr) {
    gst_pad_set_active(src->priv->pad, FALSE);
    gst_element_remove_pad(GST_ELEMENT(src), src->priv->pad);
    src->priv->pad = nullptr;
  }
  if (src->priv->source != nullptr) {
    for (GstElement** child : {&src->priv->source, &src->priv->buffer}) {
      gst_element_set_state(*child, GST_STATE_NULL);
      gst_bin_remove(GST_BIN(src), *child);
      *child = nullptr;
    }
    // GstBin unflags a bin whose last source child left; this one stays a source.
    GST_OBJECT_LOCK(src);
    GST_OBJECT_FLAG_SET(src, GST_ELEMENT_FLAG_SOURCE);
    GST_OBJECT_UNLOCK(src);
  }
}

GstResourceError errorForCode(const std::string& code) {
  if (code == "404") return GST_RESOURCE_ERROR_NOT_FOUND;
  if (code == "401" || code == "403") return GST_RESOURCE_ERROR_NOT_AUTHORIZED;
  return GST_RESOURCE_ERROR_OPEN_READ;
}

// Everything after the creation: start, wait, hand over, until the session is cancelled.
void runStarted(const std::shared_ptr<Session>& session, const Proxy& proxy,
                const std::string& source, guint timeoutMs, Clock::time_point deadline) {
  const std::string id = proxy->id();
  // Cancelled since the creation: the remote player is never started, so it needs no stop.
  if (!withElement(session, [&](GstZvrSrc* src, AfterUnlock& after) {
        store(src, &Private::proxyId, id, PROP_PROXY_ID, after);
      })) {
    return;
  }
  // In synchronous mode the "url" callback runs inside start(), on this thread: the session's
  // mutex is not held here, so the dispatcher can store it.
  proxy->start(source, 1);
  bool haveUrl = false;
  bool failed = false;
  for (;;) {
    std::string url, definitions, code, detail;
    bool startFailed = false;
    bool timedOut = false;
    bool seek = false;
    double seekSeconds = 0;
    {
      std::unique_lock<std::mutex> lock(session->mutex);
      // After the URL or a failure, only definitions, seeks and the cancellation are waited for.
      const bool awaitingUrl = !haveUrl && !failed;
      auto ready = [&] {
        return session->cancelled || session->seekPending || !session->definitions.empty() ||
               (awaitingUrl && (!session->url.empty() || session->startFailed));
      };
      if (!awaitingUrl) {
        session->changed.wait(lock, ready);
      } else if (!session->changed.wait_until(lock, deadline, ready)) {
        timedOut = true;
      }
      if (session->cancelled) break;
      if (session->seekPending) {
        seek = true;
        seekSeconds = session->seekSeconds;
        session->seekPending = false;
      } else if (awaitingUrl && !session->url.empty()) {
        url = session->url;
      } else if (awaitingUrl && session->startFailed) {
        startFailed = true;
        code = session->failureCode;
        detail = session->failureDetail;
      } else if (!session->definitions.empty()) {
        definitions = session->definitions.front();
        session->definitions.pop_front();
      }
    }
    if (seek) {
      // Off the seeking thread: against a hung service this call can take its time.
      GST_DEBUG("time seek to %.3f s forwarded to proxy %s", seekSeconds, id.c_str());
      proxy->seek(seekSeconds, "");
    } else if (timedOut) {
      failed = true;
      postError(session, GST_RESOURCE_ERROR_OPEN_READ,
                "The media service " + std::string(zvr_gst::serviceName()) +
                    " sent no local URL for proxy " + id + " within " + std::to_string(timeoutMs) +
                    " ms",
                "source " + source + "; the time limit counts from the start of READY->PAUSED");
    } else if (startFailed) {
      failed = true;
      postError(session, errorForCode(code),
                "The media service refused to play " + source + ": code " + code +
                    (detail.empty() ? std::string() : ", " + detail),
                "proxy " + id + ", \"started\" answered " + code);
    } else if (!url.empty()) {
      haveUrl = true;
      withElement(session, [&](GstZvrSrc* src, AfterUnlock& after) {
        GST_INFO_OBJECT(src, "proxy %s: local URL %s", id.c_str(), url.c_str());
        store(src, &Private::localUrl, url, PROP_LOCAL_URL, after);
        addSource(src, session, url, after);
      });
    } else if (!definitions.empty()) {
      withElement(session, [&](GstZvrSrc* src, AfterUnlock& after) {
        store(src, &Private::definitions, definitions, PROP_DEFINITIONS, after);
        after.post.push_back([id, definitions](GstZvrSrc* element) {
          GstStructure* s =
              gst_structure_new("zvr-definitions", "proxy-id", G_TYPE_STRING, id.c_str(),
                                "definitions", G_TYPE_STRING, definitions.c_str(), nullptr);
          gst_element_post_message(GST_ELEMENT(element),
                                   gst_message_new_element(GST_OBJECT_CAST(element), s));
        });
      });
    }
  }
  // Cancelled: the remote player stops; its late answers find no session.
  proxy->stop();
}

// Waits for the session's creation until `deadline`. Returns the proxy on kCreated.
zvr_gst::Creation awaitCreation(const std::shared_ptr<Session>& session, Clock::time_point deadline,
                                bool* timedOut, Proxy* proxy) {
  std::unique_lock<std::mutex> lock(session->mutex);
  const bool ended = session->changed.wait_until(
      lock, deadline, [&] { return session->cancelled || session->creationDone; });
  if (session->cancelled) return zvr_gst::Creation::kCancelled;
  if (!ended) {
    // The creation's result, when it comes, is discarded by the creation thread.
    session->creationAbandoned = true;
    *timedOut = true;
    return zvr_gst::Creation::kCancelled;
  }
  *proxy = session->proxy;
  return session->creation;
}

void runSession(std::shared_ptr<Session> session, std::string source, guint timeoutMs,
                Clock::time_point deadline) {
  try {
    zvr_gst::installHooks();
    if (!zvr_gst::requestCreation(session)) {
      postError(session, GST_RESOURCE_ERROR_FAILED, "Could not start the media proxy's creations",
                "no thread for the plugin's creation queue");
    } else {
      bool timedOut = false;
      Proxy proxy;
      switch (awaitCreation(session, deadline, &timedOut, &proxy)) {
        case zvr_gst::Creation::kCreated:
          runStarted(session, proxy, source, timeoutMs, deadline);
          break;
        case zvr_gst::Creation::kNoLibrary:
          postError(session, GST_RESOURCE_ERROR_FAILED,
                    "The media proxy library could not create a proxy",
                    "the library's manager or the proxy could not be made; see its log");
          break;
        case zvr_gst::Creation::kNoService:
          postError(session, GST_RESOURCE_ERROR_OPEN_READ,
                    std::string("No media service: ") + zvr_gst::serviceName() +
                        " did not answer the creation of a player",
                    "the creation ended with the empty id; is the service installed and "
                    "reachable on its bus?");
          break;
        case zvr_gst::Creation::kReusedId:
          postError(session, GST_RESOURCE_ERROR_FAILED,
                    std::string("The media service ") + zvr_gst::serviceName() +
                        " returned a player id that this process already used",
                    "a repeated id is treated as a failed creation");
          break;
        case zvr_gst::Creation::kCancelled:
          if (timedOut) {
            postError(session, GST_RESOURCE_ERROR_OPEN_READ,
                      "The media service " + std::string(zvr_gst::serviceName()) +
                          " created no player within " + std::to_string(timeoutMs) + " ms",
                      "source " + source +
                          "; the creations of this process run one at a time, and the time "
                          "limit counts from the start of READY->PAUSED");
          }
          break;
      }
    }
  } catch (const std::exception& e) {
    postError(session, GST_RESOURCE_ERROR_FAILED, "The media proxy failed", e.what());
  } catch (...) {
    if (velmora::unwindingCancelledThread()) throw;
    postError(session, GST_RESOURCE_ERROR_FAILED, "The media proxy failed", "unknown exception");
  }
  zvr_gst::unregisterSession(session);
  std::lock_guard<std::mutex> lock(session->mutex);
  session->proxy.reset();
}

// READY->PAUSED: a new session and its worker. Called with the state lock held.
bool startSession(GstZvrSrc* src) {
  auto session = std::make_shared<Session>();
  session->element = GST_ELEMENT(src);
  std::string uri;
  guint timeoutMs;
  std::vector<int> cleared;
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    uri = src->priv->uri;
    timeoutMs = src->priv->timeoutMs;
    src->priv->session = session;
    src->priv->streamBrokeReported = false;
    for (auto field : {std::make_pair(&Private::proxyId, PROP_PROXY_ID),
                       std::make_pair(&Private::localUrl, PROP_LOCAL_URL),
                       std::make_pair(&Private::definitions, PROP_DEFINITIONS)}) {
      if ((src->priv->*field.first).empty()) continue;
      (src->priv->*field.first).clear();
      cleared.push_back(field.second);
    }
  }
  for (int prop : cleared) g_object_notify_by_pspec(G_OBJECT(src), properties[prop]);
  if (uri.compare(0, sizeof kPrefix - 1, kPrefix) != 0) {
    GST_ELEMENT_ERROR(src, RESOURCE, NOT_FOUND, ("No zvr+ URI was set"),
                      ("uri is '%s'", uri.c_str()));
    return false;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  try {
    std::thread(runSession, session, uri.substr(sizeof kPrefix - 1), timeoutMs, deadline).detach();
  } catch (const std::system_error& e) {
    GST_ELEMENT_ERROR(src, RESOURCE, FAILED, ("Could not start a thread for the media proxy"),
                      ("%s", e.what()));
    return false;
  }
  return true;
}

// PAUSED->READY (and dispose): the session lets go of the element; its worker stops the proxy.
// Called with the state lock held, except from dispose, when no worker holds the element.
void cancelSession(GstZvrSrc* src) {
  std::shared_ptr<Session> session;
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    session = std::move(src->priv->session);
  }
  if (!session) return;
  std::lock_guard<std::mutex> lock(session->mutex);
  session->cancelled = true;
  session->element = nullptr;
  session->seekPending = false;
  session->changed.notify_all();
}

GstStateChangeReturn changeState(GstElement* element, GstStateChange transition) {
  GstZvrSrc* src = self(element);
  if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
    if (!startSession(src)) return GST_STATE_CHANGE_FAILURE;
    asyncStart(src);
  }
  GstStateChangeReturn result = GST_ELEMENT_CLASS(parent_class)->change_state(element, transition);
  if (result == GST_STATE_CHANGE_FAILURE) {
    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
      cancelSession(src);
      asyncDone(src);
    }
    return result;
  }
  switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
      // Completes when the URL arrives and the pad is added.
      if (src->priv->asyncPending) result = GST_STATE_CHANGE_ASYNC;
      break;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
      cancelSession(src);
      asyncDone(src);
      dropSource(src);
      break;
    default:
      break;
  }
  return result;
}

// Whether an error posted by the element's child `child` (the internal source) arose downstream:
// its last push failed (not-linked, not-negotiated, or an error returned by a downstream
// element), and it posted the flow error that basesrc posts for that.
bool failedDownstream(GstObject* child) {
  if (!GST_IS_ELEMENT(child)) return false;
  GstPad* pad = gst_element_get_static_pad(GST_ELEMENT(child), "src");
  if (pad == nullptr) return false;
  const GstFlowReturn last = gst_pad_get_last_flow_return(pad);
  gst_object_unref(pad);
  return last == GST_FLOW_NOT_LINKED || last <= GST_FLOW_NOT_NEGOTIATED;
}

// Errors of the internal source mean that the service's stream broke or the service is gone: a
// refused connection, a read failure, a connection that ended early. They are posted again as the
// element's own RESOURCE READ error, naming the proxy. An error that arose downstream of the
// internal source passes through unchanged.
void handleMessage(GstBin* bin, GstMessage* message) {
  GstZvrSrc* src = self(bin);
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR && GST_MESSAGE_SRC(message) != nullptr &&
      GST_MESSAGE_SRC(message) != GST_OBJECT_CAST(bin) &&
      !failedDownstream(GST_MESSAGE_SRC(message))) {
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    std::string id;
    bool reported;
    {
      std::lock_guard<std::mutex> lock(src->priv->mutex);
      id = src->priv->proxyId;
      reported = src->priv->streamBrokeReported;
      src->priv->streamBrokeReported = true;
    }
    if (reported) {
      GST_DEBUG_OBJECT(src, "stream of proxy %s: further error dropped: %s", id.c_str(),
                       error != nullptr ? error->message : "unknown error");
    } else {
      GST_ELEMENT_ERROR(src, RESOURCE, READ,
                        ("The media service's stream for proxy %s broke: %s", id.c_str(),
                         error != nullptr ? error->message : "unknown error"),
                        ("%s", debug != nullptr ? debug : ""));
    }
    g_clear_error(&error);
    g_free(debug);
    gst_message_unref(message);
    return;
  }
  GST_BIN_CLASS(parent_class)->handle_message(bin, message);
}

// The SCHEDULING query asked of the element itself, as uridecodebin does right after making its
// source, before any pad exists: answered as a network source does, so that the pipeline buffers
// it as a stream. A bin would ask its sink children, of which it has none.
gboolean elementQuery(GstElement* element, GstQuery* query) {
  if (GST_QUERY_TYPE(query) != GST_QUERY_SCHEDULING) {
    return GST_ELEMENT_CLASS(parent_class)->query(element, query);
  }
  gst_query_set_scheduling(query,
                           static_cast<GstSchedulingFlags>(GST_SCHEDULING_FLAG_SEQUENTIAL |
                                                           GST_SCHEDULING_FLAG_BANDWIDTH_LIMITED),
                           1, -1, 0);
  gst_query_add_scheduling_mode(query, GST_PAD_MODE_PUSH);
  return TRUE;
}

gboolean sendEvent(GstElement* element, GstEvent* event) {
  if (forwardTimeSeek(self(element), event)) return FALSE;
  return GST_ELEMENT_CLASS(parent_class)->send_event(element, event);
}

bool setUri(GstZvrSrc* src, const gchar* uri, GError** error) {
  if (GST_STATE(src) > GST_STATE_READY || GST_STATE_PENDING(src) > GST_STATE_READY) {
    g_set_error(error, GST_URI_ERROR, GST_URI_ERROR_BAD_STATE,
                "The URI of zvrsrc can only be changed in the NULL and READY states");
    return false;
  }
  const std::string text = uri != nullptr ? uri : "";
  const bool valid = text.compare(0, 12, "zvr+file:///") == 0 ||
                     text.compare(0, 11, "zvr+http://") == 0 ||
                     text.compare(0, 12, "zvr+https://") == 0;
  if (!valid) {
    g_set_error(error, GST_URI_ERROR, GST_URI_ERROR_BAD_URI,
                "'%s' is not a zvr+file:///, zvr+http:// or zvr+https:// URI", text.c_str());
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    src->priv->uri = text;
  }
  g_object_notify_by_pspec(G_OBJECT(src), properties[PROP_URI]);
  return true;
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
  GstZvrSrc* src = self(object);
  switch (id) {
    case PROP_URI: {
      GError* error = nullptr;
      if (!setUri(src, g_value_get_string(value), &error)) {
        GST_WARNING_OBJECT(src, "%s", error->message);
        g_clear_error(&error);
      }
      break;
    }
    case PROP_TIMEOUT: {
      std::lock_guard<std::mutex> lock(src->priv->mutex);
      src->priv->timeoutMs = g_value_get_uint(value);
      break;
    }
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
  GstZvrSrc* src = self(object);
  std::lock_guard<std::mutex> lock(src->priv->mutex);
  switch (id) {
    case PROP_URI:
      g_value_set_string(value, src->priv->uri.empty() ? nullptr : src->priv->uri.c_str());
      break;
    case PROP_TIMEOUT:
      g_value_set_uint(value, src->priv->timeoutMs);
      break;
    case PROP_PROXY_ID:
      g_value_set_string(value, src->priv->proxyId.c_str());
      break;
    case PROP_LOCAL_URL:
      g_value_set_string(value, src->priv->localUrl.c_str());
      break;
    case PROP_DEFINITIONS:
      g_value_set_string(value, src->priv->definitions.c_str());
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

void dispose(GObject* object) {
  cancelSession(self(object));
  G_OBJECT_CLASS(parent_class)->dispose(object);
}

void finalize(GObject* object) {
  delete self(object)->priv;
  G_OBJECT_CLASS(parent_class)->finalize(object);
}

}  // namespace

static void gst_zvr_src_init(GstZvrSrc* src) {
  src->priv = new Private;
  // A source: the bin reports itself as one, so that pipelines treat it as such.
  GST_OBJECT_FLAG_SET(src, GST_ELEMENT_FLAG_SOURCE);
}

static void gst_zvr_src_class_init(GstZvrSrcClass* klass) {
  GObjectClass* objectClass = G_OBJECT_CLASS(klass);
  GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
  GstBinClass* binClass = GST_BIN_CLASS(klass);

  objectClass->set_property = setProperty;
  objectClass->get_property = getProperty;
  objectClass->dispose = dispose;
  objectClass->finalize = finalize;

  properties[PROP_URI] = g_param_spec_string(
      "uri", "URI",
      "The zvr+file:///, zvr+http:// or zvr+https:// URI to play; without its \"zvr+\" prefix "
      "it is the source that the media service's player starts",
      nullptr, static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS));
  properties[PROP_TIMEOUT] = g_param_spec_uint(
      "timeout", "Timeout",
      "Milliseconds from READY->PAUSED to the media service's local URL, the creation of the "
      "remote player (and any wait for another element's creation) included, before posting an "
      "error; 0: fail at once",
      0, G_MAXUINT, kDefaultTimeoutMs,
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS));
  properties[PROP_PROXY_ID] = g_param_spec_string(
      "proxy-id", "Proxy id",
      "The media service's id of the remote player created for this element; empty until the "
      "creation succeeded (notified)",
      "", static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
  properties[PROP_LOCAL_URL] = g_param_spec_string(
      "local-url", "Local URL",
      "The local http:// URL at which the media service serves the media; empty until it "
      "arrived (notified)",
      "", static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
  properties[PROP_DEFINITIONS] = g_param_spec_string(
      "definitions", "Definitions",
      "The last definitions text the media service sent for the media; also posted as the "
      "element message \"zvr-definitions\" (notified)",
      "", static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
  g_object_class_install_properties(objectClass, N_PROPERTIES, properties);

  elementClass->change_state = changeState;
  elementClass->send_event = sendEvent;
  elementClass->query = elementQuery;
  binClass->handle_message = handleMessage;

  gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
  gst_element_class_set_static_metadata(
      elementClass, "ZVR media proxy source", "Source/Network",
      "Plays zvr+ URIs through a remote player of the media service, read at its local URL",
      "zvr_media_proxy");
}

namespace {

GstURIType uriType(GType) { return GST_URI_SRC; }

const gchar* const* uriProtocols(GType) {
  static const gchar* const protocols[] = {"zvr+file", "zvr+http", "zvr+https", nullptr};
  return protocols;
}

gchar* uriGet(GstURIHandler* handler) {
  GstZvrSrc* src = self(handler);
  std::lock_guard<std::mutex> lock(src->priv->mutex);
  return src->priv->uri.empty() ? nullptr : g_strdup(src->priv->uri.c_str());
}

gboolean uriSet(GstURIHandler* handler, const gchar* uri, GError** error) {
  return setUri(self(handler), uri, error);
}

}  // namespace

static void gst_zvr_src_uri_handler_init(gpointer iface, gpointer /*data*/) {
  GstURIHandlerInterface* handler = static_cast<GstURIHandlerInterface*>(iface);
  handler->get_type = uriType;
  handler->get_protocols = uriProtocols;
  handler->get_uri = uriGet;
  handler->set_uri = uriSet;
}
