// zvrsrc: plays what a remote player of the media service serves at its local URL.
//
// Threads:
//   - the application's thread changes states and sets properties; it never waits for the
//     service: READY->PAUSED starts a worker and returns ASYNC, PAUSED->READY cancels the
//     worker's session and returns at once;
//   - the worker thread (one per start, detached) creates the proxy, starts it, waits for the
//     local URL, a refused start, the time limit or the cancellation, then adds the internal
//     source and the src pad under the element's state lock, and keeps posting definitions until
//     the session is cancelled, when it stops the proxy;
//   - the library's threads only hand values over to the session (zvr_dispatch.cpp);
//   - streaming threads reach the src pad's query and event functions.
// The worker holds the session, not the element: it takes a reference on the element only while
// the session is still attached to it, so a cancelled creation's late result touches nothing.

#include "gstzvrsrc.h"

#include <cxxabi.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "zvr_dispatch.h"

GST_DEBUG_CATEGORY(zvr_src_debug);
#define GST_CAT_DEFAULT zvr_src_debug

namespace {

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

  // Guarded by the element's state lock.
  GstElement* source = nullptr;
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

// The element of `session`, referenced, while the session is attached to it; null otherwise.
GstElement* attachedElement(const std::shared_ptr<zvr_gst::Session>& session) {
  std::lock_guard<std::mutex> lock(session->mutex);
  if (session->cancelled || session->element == nullptr) return nullptr;
  return GST_ELEMENT(gst_object_ref(session->element));
}

bool cancelled(const std::shared_ptr<zvr_gst::Session>& session) {
  std::lock_guard<std::mutex> lock(session->mutex);
  return session->cancelled;
}

void setText(GstZvrSrc* src, std::string Private::*field, const std::string& value, int prop) {
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    src->priv->*field = value;
  }
  g_object_notify_by_pspec(G_OBJECT(src), properties[prop]);
}

// Posts an error of the RESOURCE domain for the session's element, unless it let go of it.
void postError(const std::shared_ptr<zvr_gst::Session>& session, GstResourceError code,
               const std::string& text, const std::string& debug) {
  GstElement* element = attachedElement(session);
  if (element == nullptr) return;
  GST_WARNING_OBJECT(element, "%s (%s)", text.c_str(), debug.c_str());
  gst_element_message_full(element, GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, code,
                           g_strdup(text.c_str()), g_strdup(debug.c_str()), __FILE__, GST_FUNCTION,
                           __LINE__);
  gst_object_unref(element);
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
// through the local URL. Returns true when `event` was such a seek (and is consumed).
bool forwardTimeSeek(GstZvrSrc* src, GstEvent* event) {
  if (GST_EVENT_TYPE(event) != GST_EVENT_SEEK) return false;
  GstFormat format;
  GstSeekType startType;
  gint64 start = 0;
  gst_event_parse_seek(event, nullptr, &format, nullptr, &startType, &start, nullptr, nullptr);
  if (format != GST_FORMAT_TIME) return false;
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy;
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    if (src->priv->session) {
      std::lock_guard<std::mutex> sessionLock(src->priv->session->mutex);
      if (!src->priv->session->cancelled) proxy = src->priv->session->proxy;
    }
  }
  if (proxy && startType == GST_SEEK_TYPE_SET && start >= 0) {
    const double seconds = static_cast<double>(start) / GST_SECOND;
    GST_DEBUG_OBJECT(src, "time seek to %.3f s forwarded to proxy %s, refused here", seconds,
                     proxy->id().c_str());
    try {
      proxy->seek(seconds, "");
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
    }
  }
  gst_event_unref(event);
  return true;
}

gboolean padEvent(GstPad* pad, GstObject* parent, GstEvent* event) {
  if (forwardTimeSeek(self(parent), event)) return FALSE;
  return gst_pad_event_default(pad, parent, event);
}

// Adds souphttpsrc on `url` behind the src pad and completes the async state change. Runs on
// the worker under the state lock, so that it cannot interleave with PAUSED->READY.
void addSource(GstZvrSrc* src, const std::shared_ptr<zvr_gst::Session>& session,
               const std::string& url) {
  GstElement* element = GST_ELEMENT(src);
  GST_STATE_LOCK(element);
  if (cancelled(session) || src->priv->source != nullptr) {
    GST_STATE_UNLOCK(element);
    return;
  }
  GstElement* http = gst_element_factory_make("souphttpsrc", nullptr);
  if (http == nullptr) {
    GST_STATE_UNLOCK(element);
    postError(session, GST_RESOURCE_ERROR_FAILED, "GStreamer's souphttpsrc is not installed",
              "zvrsrc reads the media service's local URL with souphttpsrc");
    return;
  }
  // Loopback: no proxy server in between; the service's server answers ranges.
  g_object_set(http, "location", url.c_str(), "proxy", "", "automatic-redirect", FALSE, nullptr);
  gst_bin_add(GST_BIN(src), http);
  src->priv->source = http;

  GstPad* target = gst_element_get_static_pad(http, "src");
  GstPad* pad =
      gst_ghost_pad_new_from_template("src", target, gst_static_pad_template_get(&srcTemplate));
  gst_object_unref(target);
  gst_pad_set_query_function(pad, padQuery);
  gst_pad_set_event_function(pad, padEvent);
  gst_pad_set_active(pad, TRUE);
  src->priv->pad = pad;
  // Added before the source runs: whoever links it does so in pad-added, before data flows.
  gst_element_add_pad(element, pad);
  gst_element_no_more_pads(element);
  if (!gst_element_sync_state_with_parent(http)) {
    gst_element_set_state(http, GST_STATE_PAUSED);
  }
  asyncDone(src);
  GST_STATE_UNLOCK(element);
}

// Removes the internal source and the pad. Called with the state lock held.
void dropSource(GstZvrSrc* src) {
  if (src->priv->pad != nullptr) {
    gst_pad_set_active(src->priv->pad, FALSE);
    gst_element_remove_pad(GST_ELEMENT(src), src->priv->pad);
    src->priv->pad = nullptr;
  }
  if (src->priv->source != nullptr) {
    gst_element_set_state(src->priv->source, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(src), src->priv->source);
    src->priv->source = nullptr;
  }
}

GstResourceError errorForCode(const std::string& code) {
  if (code == "404") return GST_RESOURCE_ERROR_NOT_FOUND;
  if (code == "401" || code == "403") return GST_RESOURCE_ERROR_NOT_AUTHORIZED;
  return GST_RESOURCE_ERROR_OPEN_READ;
}

// Everything after the creation: start, wait, hand over, until the session is cancelled.
void runStarted(const std::shared_ptr<zvr_gst::Session>& session,
                const std::shared_ptr<velmora::ZVRMediaProxyInterface>& proxy,
                const std::string& source, guint timeoutMs) {
  const std::string id = proxy->id();
  if (GstElement* element = attachedElement(session)) {
    setText(self(element), &Private::proxyId, id, PROP_PROXY_ID);
    gst_object_unref(element);
  }
  // In synchronous mode the "url" callback runs inside start(), on this thread: the session's
  // mutex is not held here, so the dispatcher can store it.
  proxy->start(source, 1);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  bool haveUrl = false;
  bool failed = false;
  for (;;) {
    std::string url, definitions, code, detail;
    bool startFailed = false;
    bool timedOut = false;
    {
      std::unique_lock<std::mutex> lock(session->mutex);
      auto ready = [&] {
        return session->cancelled || (!haveUrl && !session->url.empty()) ||
               !session->definitions.empty() || (!haveUrl && session->startFailed);
      };
      if (haveUrl || failed) {
        session->changed.wait(lock, ready);
      } else if (!session->changed.wait_until(lock, deadline, ready)) {
        timedOut = true;
      }
      if (session->cancelled) break;
      if (!haveUrl && !session->url.empty()) {
        url = session->url;
      } else if (!haveUrl && session->startFailed && !failed) {
        startFailed = true;
        code = session->failureCode;
        detail = session->failureDetail;
      } else if (!session->definitions.empty()) {
        definitions = session->definitions.front();
        session->definitions.pop_front();
      }
    }
    if (timedOut) {
      failed = true;
      postError(session, GST_RESOURCE_ERROR_OPEN_READ,
                "The media service " + std::string(zvr_gst::serviceName()) +
                    " sent no local URL for proxy " + id + " within " + std::to_string(timeoutMs) +
                    " ms",
                "source " + source);
      continue;
    }
    if (startFailed) {
      failed = true;
      postError(session, errorForCode(code),
                "The media service refused to play " + source + ": code " + code +
                    (detail.empty() ? std::string() : ", " + detail),
                "proxy " + id + ", \"started\" answered " + code);
      continue;
    }
    GstElement* element = attachedElement(session);
    if (element == nullptr) continue;  // cancelled: the next round ends the loop
    GstZvrSrc* src = self(element);
    if (!url.empty() && !failed) {
      haveUrl = true;
      GST_INFO_OBJECT(src, "proxy %s: local URL %s", id.c_str(), url.c_str());
      setText(src, &Private::localUrl, url, PROP_LOCAL_URL);
      addSource(src, session, url);
    } else if (!definitions.empty()) {
      setText(src, &Private::definitions, definitions, PROP_DEFINITIONS);
      GstStructure* s =
          gst_structure_new("zvr-definitions", "proxy-id", G_TYPE_STRING, id.c_str(), "definitions",
                            G_TYPE_STRING, definitions.c_str(), nullptr);
      gst_element_post_message(element, gst_message_new_element(GST_OBJECT_CAST(element), s));
    }
    gst_object_unref(element);
  }
  // Cancelled: the remote player stops; its late answers find no session.
  proxy->stop();
}

void runSession(std::shared_ptr<zvr_gst::Session> session, std::string source, guint timeoutMs) {
  try {
    zvr_gst::installHooks();
    const zvr_gst::Creation creation = zvr_gst::createProxy(session);
    switch (creation) {
      case zvr_gst::Creation::kCreated: {
        std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy;
        {
          std::lock_guard<std::mutex> lock(session->mutex);
          proxy = session->proxy;
        }
        runStarted(session, proxy, source, timeoutMs);
        break;
      }
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
        break;
    }
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& e) {
    postError(session, GST_RESOURCE_ERROR_FAILED, "The media proxy failed", e.what());
  } catch (...) {
    postError(session, GST_RESOURCE_ERROR_FAILED, "The media proxy failed", "unknown exception");
  }
  zvr_gst::unregisterSession(session);
  std::lock_guard<std::mutex> lock(session->mutex);
  session->proxy.reset();
}

// READY->PAUSED: a new session and its worker.
bool startSession(GstZvrSrc* src) {
  auto session = std::make_shared<zvr_gst::Session>();
  session->element = GST_ELEMENT(src);
  std::string uri;
  guint timeoutMs;
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    uri = src->priv->uri;
    timeoutMs = src->priv->timeoutMs;
    src->priv->session = session;
    src->priv->proxyId.clear();
    src->priv->localUrl.clear();
    src->priv->definitions.clear();
  }
  if (uri.compare(0, sizeof kPrefix - 1, kPrefix) != 0) {
    GST_ELEMENT_ERROR(src, RESOURCE, NOT_FOUND, ("No zvr+ URI was set"),
                      ("uri is '%s'", uri.c_str()));
    return false;
  }
  try {
    std::thread(runSession, session, uri.substr(sizeof kPrefix - 1), timeoutMs).detach();
  } catch (const std::system_error& e) {
    GST_ELEMENT_ERROR(src, RESOURCE, FAILED, ("Could not start a thread for the media proxy"),
                      ("%s", e.what()));
    return false;
  }
  return true;
}

// PAUSED->READY (and dispose): the session lets go of the element; its worker stops the proxy.
void cancelSession(GstZvrSrc* src) {
  std::shared_ptr<zvr_gst::Session> session;
  {
    std::lock_guard<std::mutex> lock(src->priv->mutex);
    session = std::move(src->priv->session);
  }
  if (!session) return;
  std::lock_guard<std::mutex> lock(session->mutex);
  session->cancelled = true;
  session->element = nullptr;
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

// Errors of the internal source mean that the service's stream broke or the service is gone:
// they are posted again as the element's own, naming the proxy.
void handleMessage(GstBin* bin, GstMessage* message) {
  GstZvrSrc* src = self(bin);
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR && GST_MESSAGE_SRC(message) != nullptr &&
      GST_MESSAGE_SRC(message) != GST_OBJECT_CAST(bin)) {
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    std::string id;
    {
      std::lock_guard<std::mutex> lock(src->priv->mutex);
      id = src->priv->proxyId;
    }
    GST_ELEMENT_ERROR(src, RESOURCE, READ,
                      ("The media service's stream for proxy %s broke: %s", id.c_str(),
                       error != nullptr ? error->message : "unknown error"),
                      ("%s", debug != nullptr ? debug : ""));
    g_clear_error(&error);
    g_free(debug);
    gst_message_unref(message);
    return;
  }
  GST_BIN_CLASS(parent_class)->handle_message(bin, message);
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
      "Milliseconds to wait, after the start was sent, for the media service's local URL before "
      "posting an error",
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
