// Desktop build of the platform model-access library, over D-Bus (sdbus-c++).
//
// Two connections to the bus named by ZVR_DBUS_ADDRESS (default: the session bus):
//   - the command connection carries the method calls (SetValue, GetValue, and the bus daemon's
//     GetNameOwner and StartServiceByName). It is made on first need and runs no event loop: a
//     call sends its message and waits for the reply on its caller's thread, under mutex, so
//     calls are serialised and each is bounded by its time-out.
//   - the event connection belongs to the listener thread started by startEventListener(). It
//     receives the Event signal from any sender (so that stock tools can inject events) and the
//     bus daemon's NameOwnerChanged for the service. The listener runs its own loop and calls the
//     client from there, outside the bus library's frames.
// Calls go to the service's unique name, never to its well-known name, so no call ever makes the
// bus start the service; with no service on the bus a call fails at once. Only
// requestStartZVRService() starts it (D-Bus activation).
//
// Losing the bus: the listener notices at once, drops the command connection and reconnects with
// a pause that starts at kFirstRetry and doubles up to kLongestRetry (it starts again from the
// shortest only after a connection that lasted kLongestRetry). Once connected again it renews
// both subscriptions and, when the service already has an owner, reports it with
// onZVRConnected (as it reports every new owner). Until then every call tries one connection,
// which fails at once while no daemon listens at the address.
//
// Cancellation: a cancelled host thread must never unwind through sdbus-c++ or libsystemd.
// libsystemd's C frames skip their cleanups (the sent message and with it the bus leak), sdbus-c++
// catches everything around its handlers, and its convenience call API (callMethod(name)...)
// sends the same message again from a destructor while unwinding, which the bus daemon refuses;
// the error thrown there ends the process. So cancellation is disabled throughout this library
// except in the poll() where a call waits for its reply, a frame of ours. A cancellation that acts
// there leaves the call pending on the command connection, which is dropped on the way out and
// made anew by the next call. A cancellation requested while the thread is anywhere else in here
// stays pending until its next cancellation point, at the latest once the operation returns.
//
// Every operation may be called from any thread, also from inside the client's callbacks on the
// listener thread, and the client may destroy the ZVRModelAccess from there. Nothing throws out
// of this library but the unwinding of a cancelled thread: failures are logged and return -1.

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "log_utils.h"
#include "zvr_bus_protocol.h"
#include "zvr_model_access.h"

namespace velmora {
namespace {

constexpr unsigned int kLogError = 1000;
constexpr unsigned int kLogProgress = 4000;
constexpr unsigned int kModule = 0x60;  // this library's module number in the platform log

void logLine(unsigned int severity, const char* format, ...) __attribute__((format(printf, 2, 3)));

void logLine(unsigned int severity, const char* format, ...) {
  const unsigned int level[3] = {(kModule << 16) | severity, 0, 0};
  if (!cspDebugCheckLevelGetFrameAndChunk(level)) return;
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  cspDebugOutput0("[model-access] %s", text);
}

const char kBusName[] = "org.freedesktop.DBus";
const char kBusPath[] = "/org/freedesktop/DBus";
const char kBusInterface[] = "org.freedesktop.DBus";

constexpr std::chrono::milliseconds kCallTimeout(zvr_bus::kCallTimeoutMs);
constexpr std::chrono::milliseconds kStartServiceTimeout(2000);
// A call whose reply (or sd-bus's own time-out answer) has not come this long after its time-out
// is abandoned; it never happens with a working sd-bus.
constexpr std::chrono::milliseconds kAbandonMargin(1000);

// The listener's pauses between attempts to reach a bus that went away.
constexpr std::chrono::milliseconds kFirstRetry(50);
constexpr std::chrono::milliseconds kLongestRetry(1000);

// Messages processed on the command connection to find out whether it still works; it receives
// only replies and the daemon's few unicast signals, so a handful is plenty.
constexpr int kDrainLimit = 64;

// A value of a D-Bus address with its %XX escapes undone.
std::string unescape(const std::string& value) {
  auto digit = [](char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
  };
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '%' && i + 2 < value.size() && digit(value[i + 1]) >= 0 &&
        digit(value[i + 2]) >= 0) {
      text += static_cast<char>(digit(value[i + 1]) * 16 + digit(value[i + 2]));
      i += 2;
    } else {
      text += value[i];
    }
  }
  return text;
}

// Whether something accepts connections at `path`.
bool socketListens(const std::string& path) {
  sockaddr_un address = {};
  if (path.size() >= sizeof address.sun_path) return true;  // let sd-bus judge
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return true;
  const bool listens =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
      errno == EAGAIN || errno == EINPROGRESS;
  close(fd);
  return listens;
}

// Whether a connection to the D-Bus `address` can succeed. sdbus-c++ 1.2 leaks the bus object of
// every failed connection to an explicit address (about 1.8 kB), and the listener tries again and
// again while the bus is gone, so the unix:path= entries are tried first with a plain connect();
// any other kind of entry is left to sd-bus.
bool mayConnect(const std::string& address) {
  std::size_t begin = 0;
  while (begin <= address.size()) {
    std::size_t end = address.find(';', begin);
    if (end == std::string::npos) end = address.size();
    const std::string entry = address.substr(begin, end - begin);
    begin = end + 1;
    if (entry.empty()) continue;
    if (entry.compare(0, 5, "unix:") != 0) return true;
    std::string path;
    std::size_t at = 5;
    while (at <= entry.size()) {
      std::size_t next = entry.find(',', at);
      if (next == std::string::npos) next = entry.size();
      if (entry.compare(at, 5, "path=") == 0) path = unescape(entry.substr(at + 5, next - at - 5));
      at = next + 1;
    }
    if (path.empty() || socketListens(path)) return true;
  }
  return false;
}

std::unique_ptr<sdbus::IConnection> connectToBus() {
  const char* address = std::getenv(zvr_bus::kAddressVariable);
  const std::string choice = address != nullptr ? address : "";
  if (choice.empty() || choice == "session") return sdbus::createSessionBusConnection();
  if (choice == "system") return sdbus::createSystemBusConnection();
  if (!mayConnect(choice)) throw std::runtime_error("no bus daemon listens at " + choice);
  return sdbus::createSessionBusConnectionWithAddress(choice);
}

// Inside a catch (...) handler: whether the exception is the unwinding of a cancelled thread
// (glibc's abi::__forced_unwind), which must go on. A handler that names that type binds a
// reference to a null object, which UBSan reports; std::current_exception() is empty for it, as
// for any exception not thrown by C++ code, which goes on as well.
bool unwindingCancelledThread() { return !std::current_exception(); }

// Disables the calling thread's cancellation for its lifetime and remembers the caller's state
// for the one place where a cancellation may act (see the top of this file).
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &callerState_); }
  ~NoCancellation() { pthread_setcancelstate(callerState_, nullptr); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

  // Waits in poll() with the caller's cancellation state.
  int poll(pollfd* fds, nfds_t count, int timeoutMs) const {
    int ignored;
    pthread_setcancelstate(callerState_, &ignored);
    const int result = ::poll(fds, count, timeoutMs);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
    return result;
  }

 private:
  int callerState_ = PTHREAD_CANCEL_DISABLE;
};

// How a method call ended when it got no method return.
struct CallError {
  std::string name;  // the D-Bus error name, or empty for a local failure
  std::string text;
};

// Where the reply handler leaves the outcome of one call.
struct Answer {
  bool arrived = false;
  sdbus::MethodReply reply;  // when arrived without error
  bool failed = false;
  CallError error;
};

// Something the event connection received, handed to the client by the listener's own loop.
struct Notice {
  bool ownerChange = false;
  std::vector<std::string> record;  // an event
  std::string newOwner;             // an owner change
};

// The state shared by a ZVRModelAccess and its listener thread. The listener holds a reference of
// its own, so the state outlives a ZVRModelAccess destroyed from inside a client callback.
struct Core {
  explicit Core(ZVRModelAccessClient* c) : client(c) {}
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  // --- Command side; the _l functions expect mutex held.
  bool connect_l();
  void disconnect_l();
  // Whether the command connection still works after a failed call; drops it when not.
  bool connectionWorks_l();
  // Calls `method` on `target` with the arguments `build` adds and hands the method return to
  // `read`. False on an error answer or a failure, described in *error; a command connection that
  // stopped working is dropped.
  template <typename Build, typename Read>
  bool call_l(sdbus::IProxy& target, const char* interface, const char* method,
              std::chrono::milliseconds timeout, const NoCancellation& caller, Build&& build,
              Read&& read, CallError* error);
  // The service's unique name as the bus daemon gives it; empty when it has no owner or the
  // daemon cannot tell, with *error saying why.
  std::string lookUpOwner_l(const NoCancellation& caller, CallError* error);
  // A call to the service's object; retries once when the cached owner has gone.
  template <typename Build, typename Read>
  int callService(const char* method, const NoCancellation& caller, Build&& build, Read&& read);
  int startService(const NoCancellation& caller);

  // --- Listener side.
  std::unique_ptr<sdbus::IConnection> subscribe(std::string* failure);
  void listen(std::unique_ptr<sdbus::IConnection> first);
  // Runs the event connection until asked to stop (true) or until the connection fails (false).
  bool dispatch(sdbus::IConnection& events);
  void deliver();
  void onEvent(sdbus::Message& message);
  void onOwnerChanged(sdbus::Message& message);
  void ownerChanged(const std::string& newOwner);
  void reportOwner(const std::string& current);
  void reportOwnerAfterReconnect();
  // Sleeps for `pause` unless asked to stop first; false when asked to stop.
  bool pauseUnlessStopping(std::chrono::milliseconds pause);
  void wake();
  // Asks the listener to stop and waits for it, unless called on the listener thread itself.
  void stopListener();

  ZVRModelAccessClient* const client;

  // Guards the command side. Method calls are made under it.
  std::mutex mutex;
  std::unique_ptr<sdbus::IConnection> commands;
  std::unique_ptr<sdbus::IProxy> bus;      // the bus daemon, on `commands`
  std::string owner;                       // the service's unique name, empty when unknown
  std::unique_ptr<sdbus::IProxy> service;  // addressed to `owner`, made on first need

  // The listener's lifecycle, guarded by listenerMutex. The listener thread is detached, since
  // the client may destroy the ZVRModelAccess from inside a callback on it; stopListener() waits
  // for it through listenerDone instead of joining.
  std::mutex listenerMutex;
  std::condition_variable listenerDone;
  bool listenerStarted = false;
  bool listenerRunning = false;
  std::thread::id listenerId;
  std::atomic<bool> stopping{false};
  // An eventfd that wakes the listener from its poll; constant once the listener started.
  int wakeFd = -1;

  // Listener thread only.
  std::deque<Notice> notices;
  std::string reportedOwner;  // the owner last reported with onZVRConnected
};

}  // namespace

Core::~Core() {
  service.reset();
  bus.reset();
  commands.reset();
  if (wakeFd >= 0) close(wakeFd);
}

// --- Command side ----------------------------------------------------------------------------

bool Core::connect_l() {
  if (commands) return true;
  try {
    commands = connectToBus();
    bus = sdbus::createProxy(*commands, kBusName, kBusPath);
    bus->finishRegistration();
    return true;
  } catch (const std::exception& e) {
    logLine(kLogError, "cannot connect to the bus: %s\n", e.what());
    bus.reset();
    commands.reset();
    return false;
  }
}

// The proxies go first: they cancel their pending calls on the connection.
void Core::disconnect_l() {
  owner.clear();
  service.reset();
  bus.reset();
  commands.reset();
}

bool Core::connectionWorks_l() {
  if (!commands) return false;
  try {
    for (int i = 0; i < kDrainLimit && commands->processPendingRequest(); ++i) {
    }
    commands->getEventLoopPollData();  // fails once the connection is closed
    return true;
  } catch (const std::exception& e) {
    logLine(kLogError, "lost the bus: %s\n", e.what());
    disconnect_l();
    return false;
  }
}

template <typename Build, typename Read>
bool Core::call_l(sdbus::IProxy& target, const char* interface, const char* method,
                  std::chrono::milliseconds timeout, const NoCancellation& caller, Build&& build,
                  Read&& read, CallError* error) {
  try {
    sdbus::MethodCall call = target.createMethodCall(interface, method);
    build(call);
    auto answer = std::make_shared<Answer>();
    // Runs inside processPendingRequest() below, on this thread.
    auto handler = [answer](sdbus::MethodReply& reply, const sdbus::Error* failure) {
      answer->arrived = true;
      try {
        if (failure != nullptr) {
          answer->failed = true;
          answer->error = {failure->getName(), failure->getMessage()};
        } else {
          answer->reply = reply;
        }
      } catch (const std::exception&) {
        answer->failed = true;  // no memory for the error's text
      }
    };
    sdbus::PendingAsyncCall pending = target.callMethod(
        call, handler, std::chrono::duration_cast<std::chrono::microseconds>(timeout).count());
    const auto abandon = std::chrono::steady_clock::now() + timeout + kAbandonMargin;
    while (!answer->arrived) {
      if (commands->processPendingRequest()) continue;
      const sdbus::IConnection::PollData data = commands->getEventLoopPollData();
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(abandon - std::chrono::steady_clock::now())
              .count();
      if (left <= 0) {
        pending.cancel();
        answer->failed = true;
        answer->error = {"", "no answer, not even a time-out"};
        break;
      }
      int wait = data.getPollTimeout();
      if (wait < 0 || wait > left) wait = static_cast<int>(left);
      pollfd descriptor = {data.fd, data.events, 0};
      caller.poll(&descriptor, 1, wait);
    }
    if (!answer->failed) {
      read(answer->reply);
      return true;
    }
    *error = std::move(answer->error);
  } catch (const sdbus::Error& e) {
    *error = {e.getName(), e.getMessage()};
  } catch (const std::exception& e) {
    *error = {"", e.what()};
  } catch (...) {
    // Only the unwinding of a thread cancelled in the poll above gets here. The call is still
    // pending on the command connection, whose next reply would not be this caller's: a
    // connection in that state is not used again.
    logLine(kLogError, "%s cancelled; the next call connects anew\n", method);
    disconnect_l();
    throw;
  }
  connectionWorks_l();
  return false;
}

std::string Core::lookUpOwner_l(const NoCancellation& caller, CallError* error) {
  std::string name;
  if (!call_l(
          *bus, kBusInterface, "GetNameOwner", kCallTimeout, caller,
          [](sdbus::MethodCall& call) { call << std::string(zvr_bus::kServiceName); },
          [&name](sdbus::MethodReply& reply) { reply >> name; }, error)) {
    return std::string();
  }
  return name;
}

template <typename Build, typename Read>
int Core::callService(const char* method, const NoCancellation& caller, Build&& build,
                      Read&& read) {
  std::lock_guard<std::mutex> lock(mutex);
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!connect_l()) return -1;
    if (owner.empty()) {
      CallError error;
      owner = lookUpOwner_l(caller, &error);
      if (owner.empty()) {
        logLine(kLogError, "no media service on the bus: %s\n",
                (error.name.empty() ? error.text : error.name).c_str());
        return -1;
      }
    }
    if (!service) {
      try {
        service = sdbus::createProxy(*commands, owner, zvr_bus::kObjectPath);
        service->finishRegistration();
      } catch (const std::exception& e) {
        logLine(kLogError, "no proxy for the media service %s: %s\n", owner.c_str(), e.what());
        owner.clear();
        service.reset();
        return -1;
      }
    }
    int result = -1;
    CallError error;
    if (call_l(
            *service, zvr_bus::kInterface, method, kCallTimeout, caller, build,
            [&](sdbus::MethodReply& reply) { result = read(reply); }, &error)) {
      return result;
    }
    logLine(kLogError, "%s failed: %s %s\n", method, error.name.c_str(), error.text.c_str());
    if (!commands) return -1;  // the connection went with the call
    // A service that went away leaves a unique name that no longer exists: ask again once.
    const bool gone = error.name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
                      error.name == "org.freedesktop.DBus.Error.NameHasNoOwner";
    owner.clear();
    service.reset();
    if (!gone) return -1;
  }
  return -1;
}

int Core::startService(const NoCancellation& caller) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!connect_l()) return -1;
  uint32_t reply = 0;
  CallError error;
  if (!call_l(
          *bus, kBusInterface, "StartServiceByName", kStartServiceTimeout, caller,
          [](sdbus::MethodCall& call) {
            call << std::string(zvr_bus::kServiceName) << uint32_t(0);
          },
          [&reply](sdbus::MethodReply& answer) { answer >> reply; }, &error)) {
    logLine(kLogError, "cannot start the media service: %s %s\n", error.name.c_str(),
            error.text.c_str());
    return -1;
  }
  logLine(kLogProgress, "service start: %s\n", reply == 1 ? "started" : "already running");
  owner.clear();
  service.reset();
  return 0;
}

// --- Listener side ---------------------------------------------------------------------------

std::unique_ptr<sdbus::IConnection> Core::subscribe(std::string* failure) {
  try {
    std::unique_ptr<sdbus::IConnection> events = connectToBus();
    events->addMatch(
        std::string("type='signal',interface='") + zvr_bus::kInterface + "',member='" +
            zvr_bus::kEventSignal + "'",
        [this](sdbus::Message& m) { onEvent(m); }, sdbus::floating_slot);
    events->addMatch(
        std::string("type='signal',sender='") + kBusName + "',interface='" + kBusInterface +
            "',member='NameOwnerChanged',arg0='" + zvr_bus::kServiceName + "'",
        [this](sdbus::Message& m) { onOwnerChanged(m); }, sdbus::floating_slot);
    return events;
  } catch (const std::exception& e) {
    *failure = e.what();
    return nullptr;
  }
}

// The handlers run inside the bus library's processing: they only queue what arrived.
void Core::onEvent(sdbus::Message& message) {
  try {
    Notice notice;
    message >> notice.record;
    notices.push_back(std::move(notice));
  } catch (const std::exception& e) {
    logLine(kLogError, "dropped an event that is not a list of strings: %s\n", e.what());
  }
}

void Core::onOwnerChanged(sdbus::Message& message) {
  try {
    std::string name, oldOwner;
    Notice notice;
    notice.ownerChange = true;
    message >> name >> oldOwner >> notice.newOwner;
    if (name == zvr_bus::kServiceName) notices.push_back(std::move(notice));
  } catch (const std::exception& e) {
    logLine(kLogError, "dropped an owner change: %s\n", e.what());
  }
}

void Core::ownerChanged(const std::string& newOwner) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    owner = newOwner;
    service.reset();
  }
  if (newOwner.empty()) {
    reportedOwner.clear();
  } else {
    reportOwner(newOwner);
  }
}

void Core::reportOwner(const std::string& current) {
  if (current.empty() || current == reportedOwner) return;
  reportedOwner = current;
  logLine(kLogProgress, "media service appeared as %s\n", current.c_str());
  try {
    client->onZVRConnected();
  } catch (const std::exception& e) {
    logLine(kLogError, "connection handler threw: %s\n", e.what());
  } catch (...) {
    if (unwindingCancelledThread()) throw;
    logLine(kLogError, "connection handler threw\n");
  }
}

// Between losing the bus and subscribing again the service may have come back: its
// NameOwnerChanged went by unseen, so the owner is asked for.
void Core::reportOwnerAfterReconnect() {
  const NoCancellation caller;
  std::string current;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!connect_l()) return;
    CallError ignored;
    current = lookUpOwner_l(caller, &ignored);
    if (!current.empty() && owner != current) {
      owner = current;
      service.reset();
    }
  }
  reportOwner(current);
}

void Core::deliver() {
  while (!notices.empty() && !stopping.load()) {
    Notice notice = std::move(notices.front());
    notices.pop_front();
    if (notice.ownerChange) {
      ownerChanged(notice.newOwner);
      continue;
    }
    try {
      client->onZVREvent(notice.record);
    } catch (const std::exception& e) {
      logLine(kLogError, "event handler threw: %s\n", e.what());
    } catch (...) {
      if (unwindingCancelledThread()) throw;
      logLine(kLogError, "event handler threw\n");
    }
  }
}

bool Core::dispatch(sdbus::IConnection& events) {
  for (;;) {
    sdbus::IConnection::PollData data;
    try {
      bool processed;
      do {
        processed = events.processPendingRequest();
        deliver();
        if (stopping.load()) return true;
      } while (processed);
      data = events.getEventLoopPollData();
    } catch (const std::exception& e) {
      logLine(kLogError, "event listener lost the bus: %s\n", e.what());
      return false;
    }
    pollfd descriptors[2] = {{data.fd, data.events, 0}, {wakeFd, POLLIN, 0}};
    ::poll(descriptors, 2, data.getPollTimeout());
  }
}

bool Core::pauseUnlessStopping(std::chrono::milliseconds pause) {
  pollfd descriptor = {wakeFd, POLLIN, 0};
  const auto end = std::chrono::steady_clock::now() + pause;
  for (;;) {
    if (stopping.load()) return false;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now())
            .count();
    if (left <= 0) return true;
    ::poll(&descriptor, 1, static_cast<int>(left));
  }
}

void Core::wake() {
  const uint64_t one = 1;
  if (write(wakeFd, &one, sizeof one) < 0) {
    // The counter is full, so the listener is awake anyway.
  }
}

void Core::listen(std::unique_ptr<sdbus::IConnection> first) {
  // Marks the listener ended however it ends, a client callback that exits the thread included.
  struct Ended {
    Core& core;
    ~Ended() {
      std::lock_guard<std::mutex> lock(core.listenerMutex);
      core.listenerRunning = false;
      core.listenerDone.notify_all();
    }
  } ended{*this};
  std::unique_ptr<sdbus::IConnection> events = std::move(first);  // closed before `ended` runs
  // Nobody cancels the listener; should someone try, it goes on until it is stopped.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);

  std::chrono::milliseconds retry = kFirstRetry;
  std::string failure;
  bool failureLogged = false;
  auto connectedAt = std::chrono::steady_clock::now();
  while (!stopping.load()) {
    if (!events) {
      events = subscribe(&failure);
      if (!events) {
        if (!failureLogged) logLine(kLogError, "cannot reach the bus yet: %s\n", failure.c_str());
        failureLogged = true;
        if (!pauseUnlessStopping(retry)) break;
        retry = std::min(retry * 2, kLongestRetry);
        continue;
      }
      logLine(kLogProgress, "event listener connected to the bus again\n");
      failureLogged = false;
      connectedAt = std::chrono::steady_clock::now();
      reportOwnerAfterReconnect();
    }
    if (dispatch(*events)) break;
    // The bus went away: the command connection went with it.
    events.reset();
    // A bus that takes connections and drops them at once must not make this a busy loop: the
    // pauses start again from the shortest only after a connection that lasted.
    if (std::chrono::steady_clock::now() - connectedAt >= kLongestRetry) {
      retry = kFirstRetry;
    } else {
      if (!pauseUnlessStopping(retry)) break;
      retry = std::min(retry * 2, kLongestRetry);
    }
    reportedOwner.clear();
    notices.clear();
    std::lock_guard<std::mutex> lock(mutex);
    disconnect_l();
  }
}

void Core::stopListener() {
  std::unique_lock<std::mutex> lock(listenerMutex);
  stopping.store(true);
  if (!listenerRunning) return;
  wake();
  if (listenerId == std::this_thread::get_id()) return;  // destroyed from a callback
  listenerDone.wait(lock, [this] { return !listenerRunning; });
}

// --- ZVRModelAccess --------------------------------------------------------------------------

struct ZVRModelAccess::Impl {
  explicit Impl(ZVRModelAccessClient* client) : core(std::make_shared<Core>(client)) {}
  std::shared_ptr<Core> core;
};

ZVRModelAccess::ZVRModelAccess(ZVRModelAccessClient* client) : impl_(new Impl(client)) {}

ZVRModelAccess::~ZVRModelAccess() {
  const NoCancellation caller;
  impl_->core->stopListener();
}

int ZVRModelAccess::start() {
  const NoCancellation caller;
  try {
    std::lock_guard<std::mutex> lock(impl_->core->mutex);
    return impl_->core->connect_l() ? 0 : -1;
  } catch (const std::exception& e) {
    logLine(kLogError, "cannot start: %s\n", e.what());
    return -1;
  }
}

int ZVRModelAccess::startEventListener() {
  const NoCancellation caller;
  const std::shared_ptr<Core>& core = impl_->core;
  try {
    std::lock_guard<std::mutex> lock(core->listenerMutex);
    if (core->listenerStarted) return 0;
    const int wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd < 0) {
      logLine(kLogError, "cannot start the event listener: no eventfd\n");
      return -1;
    }
    std::string failure;
    std::unique_ptr<sdbus::IConnection> events = core->subscribe(&failure);
    if (!events) {
      close(wakeFd);
      logLine(kLogError, "cannot start the event listener: %s\n", failure.c_str());
      return -1;
    }
    core->wakeFd = wakeFd;
    // The thread's own reference keeps the state alive until it ends.
    std::thread listener(
        [core, first = std::move(events)]() mutable { core->listen(std::move(first)); });
    core->listenerStarted = true;
    core->listenerRunning = true;
    core->listenerId = listener.get_id();
    listener.detach();
    return 0;
  } catch (const std::exception& e) {
    logLine(kLogError, "cannot start the event listener: %s\n", e.what());
    return -1;
  }
}

int ZVRModelAccess::requestStartZVRService() {
  const NoCancellation caller;
  try {
    return impl_->core->startService(caller);
  } catch (const std::exception& e) {
    logLine(kLogError, "cannot start the media service: %s\n", e.what());
    return -1;
  } catch (...) {
    if (unwindingCancelledThread()) throw;
    logLine(kLogError, "cannot start the media service\n");
    return -1;
  }
}

int ZVRModelAccess::setAccessValue(std::string key, std::vector<std::string> values) {
  const NoCancellation caller;
  try {
    return impl_->core->callService(
        "SetValue", caller, [&](sdbus::MethodCall& call) { call << key << values; },
        [](sdbus::MethodReply& reply) {
          int32_t result = -1;
          reply >> result;
          return result == 0 ? 0 : -1;
        });
  } catch (const std::exception& e) {
    logLine(kLogError, "SetValue failed: %s\n", e.what());
    return -1;
  } catch (...) {
    if (unwindingCancelledThread()) throw;
    logLine(kLogError, "SetValue failed\n");
    return -1;
  }
}

int ZVRModelAccess::getAccessValue(std::string key, std::vector<std::string>& values) {
  const NoCancellation caller;
  try {
    return impl_->core->callService(
        "GetValue", caller, [&](sdbus::MethodCall& call) { call << key; },
        [&](sdbus::MethodReply& reply) {
          int32_t result = -1;
          std::vector<std::string> read;
          reply >> result >> read;
          if (result != 0) return -1;
          values = std::move(read);
          return 0;
        });
  } catch (const std::exception& e) {
    logLine(kLogError, "GetValue failed: %s\n", e.what());
    return -1;
  } catch (...) {
    if (unwindingCancelledThread()) throw;
    logLine(kLogError, "GetValue failed\n");
    return -1;
  }
}

}  // namespace velmora
