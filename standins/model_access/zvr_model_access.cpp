// Desktop build of the platform model-access library, over D-Bus (sdbus-c++).
//
// Two connections to the bus named by ZVR_DBUS_ADDRESS (default: the session bus):
//   - the command connection carries the method calls (SetValue, GetValue, and the bus daemon's
//     GetNameOwner and StartServiceByName). It runs no event loop, so a call blocks only its own
//     caller, on that caller's thread, never waiting for another thread to read the reply.
//   - the event connection runs the listener thread started by startEventListener(). It receives
//     the Event signal from any sender (so that stock tools can inject events) and the bus
//     daemon's NameOwnerChanged for the service, and calls the client there.
// Calls go to the service's unique name, never to its well-known name, so no call ever makes the
// bus start the service; with no service on the bus a call fails at once. Only
// requestStartZVRService() starts it (D-Bus activation).
//
// Every operation may be called from any thread, also from inside the client's callbacks on the
// listener thread. Nothing throws out of this library: failures are logged and return -1.

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
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

std::unique_ptr<sdbus::IConnection> connectToBus() {
  const char* address = std::getenv(zvr_bus::kAddressVariable);
  const std::string choice = address != nullptr ? address : "";
  if (choice.empty() || choice == "session") return sdbus::createSessionBusConnection();
  if (choice == "system") return sdbus::createSystemBusConnection();
  return sdbus::createSessionBusConnectionWithAddress(choice);
}

}  // namespace

struct ZVRModelAccess::Impl {
  explicit Impl(ZVRModelAccessClient* c) : client(c) {}

  // The command connection, made on first need. Call with mutex held.
  bool connect_l();
  // The service's unique name, asked of the bus when not known. Call with mutex held.
  std::string serviceOwner_l();
  void forgetOwner(const std::string& owner);
  void onOwnerChanged(sdbus::Message& message);
  void onEvent(sdbus::Message& message);

  // A method call to the service; retries once when the cached owner has gone.
  template <typename Call>
  int callService(const char* method, Call&& call);

  ZVRModelAccessClient* const client;

  // Guards everything below. Method calls are made under it, so calls are serialised; each is
  // bounded by kCallTimeoutMs.
  std::mutex mutex;
  std::unique_ptr<sdbus::IConnection> commands;
  std::unique_ptr<sdbus::IProxy> bus;
  std::string owner;
  std::unique_ptr<sdbus::IProxy> service;  // addressed to `owner`

  // Built once by startEventListener(); only the listener thread uses it afterwards.
  std::unique_ptr<sdbus::IConnection> events;

  // The listener thread is detached, since it may end by itself when the bus goes away; the
  // destructor waits for it through these instead of joining.
  std::mutex listenerMutex;
  std::condition_variable listenerDone;
  bool listenerRunning = false;
  std::thread::id listenerId;
};

bool ZVRModelAccess::Impl::connect_l() {
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

std::string ZVRModelAccess::Impl::serviceOwner_l() {
  if (!owner.empty()) return owner;
  std::string name;
  try {
    bus->callMethod("GetNameOwner")
        .onInterface(kBusInterface)
        .withTimeout(std::chrono::milliseconds(zvr_bus::kCallTimeoutMs))
        .withArguments(std::string(zvr_bus::kServiceName))
        .storeResultsTo(name);
  } catch (const sdbus::Error& e) {
    logLine(kLogError, "no media service on the bus: %s\n", e.getName().c_str());
    return std::string();
  }
  owner = name;
  service = sdbus::createProxy(*commands, owner, zvr_bus::kObjectPath);
  service->finishRegistration();
  return owner;
}

void ZVRModelAccess::Impl::forgetOwner(const std::string& gone) {
  std::lock_guard<std::mutex> lock(mutex);
  if (gone.empty() || owner == gone) {
    owner.clear();
    service.reset();
  }
}

template <typename Call>
int ZVRModelAccess::Impl::callService(const char* method, Call&& call) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!connect_l()) return -1;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (serviceOwner_l().empty()) return -1;
    try {
      return call(*service);
    } catch (const sdbus::Error& e) {
      // A service that went away leaves a unique name that no longer exists: ask again once.
      const bool gone = e.getName() == "org.freedesktop.DBus.Error.ServiceUnknown" ||
                        e.getName() == "org.freedesktop.DBus.Error.NameHasNoOwner";
      logLine(kLogError, "%s failed: %s %s\n", method, e.getName().c_str(), e.getMessage().c_str());
      owner.clear();
      service.reset();
      if (!gone) return -1;
    } catch (const std::exception& e) {
      logLine(kLogError, "%s failed: %s\n", method, e.what());
      return -1;
    }
  }
  return -1;
}

void ZVRModelAccess::Impl::onOwnerChanged(sdbus::Message& message) {
  std::string name, oldOwner, newOwner;
  try {
    message >> name >> oldOwner >> newOwner;
  } catch (const std::exception&) {
    return;
  }
  if (name != zvr_bus::kServiceName) return;
  {
    std::lock_guard<std::mutex> lock(mutex);
    owner = newOwner;
    service.reset();
    if (!newOwner.empty() && commands) {
      service = sdbus::createProxy(*commands, owner, zvr_bus::kObjectPath);
      service->finishRegistration();
    }
  }
  if (!newOwner.empty()) {
    logLine(kLogProgress, "media service appeared as %s\n", newOwner.c_str());
    client->onZVRConnected();
  }
}

void ZVRModelAccess::Impl::onEvent(sdbus::Message& message) {
  std::vector<std::string> record;
  try {
    message >> record;
  } catch (const std::exception& e) {
    logLine(kLogError, "dropped an event that is not a list of strings: %s\n", e.what());
    return;
  }
  try {
    client->onZVREvent(record);
  } catch (const std::exception& e) {
    logLine(kLogError, "event handler threw: %s\n", e.what());
  } catch (...) {
    logLine(kLogError, "event handler threw\n");
  }
}

ZVRModelAccess::ZVRModelAccess(ZVRModelAccessClient* client) : impl_(new Impl(client)) {}

ZVRModelAccess::~ZVRModelAccess() {
  if (!impl_->events) return;
  try {
    impl_->events->leaveEventLoop();
  } catch (...) {
  }
  std::unique_lock<std::mutex> lock(impl_->listenerMutex);
  if (impl_->listenerId == std::this_thread::get_id()) return;  // destroyed from a callback
  impl_->listenerDone.wait(lock, [this] { return !impl_->listenerRunning; });
}

int ZVRModelAccess::start() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->connect_l() ? 0 : -1;
}

int ZVRModelAccess::startEventListener() {
  if (impl_->events) return 0;
  try {
    std::unique_ptr<sdbus::IConnection> events = connectToBus();
    Impl* impl = impl_.get();
    events->addMatch(
        std::string("type='signal',interface='") + zvr_bus::kInterface + "',member='" +
            zvr_bus::kEventSignal + "'",
        [impl](sdbus::Message& m) { impl->onEvent(m); }, sdbus::floating_slot);
    events->addMatch(
        std::string("type='signal',sender='") + kBusName + "',interface='" + kBusInterface +
            "',member='NameOwnerChanged',arg0='" + zvr_bus::kServiceName + "'",
        [impl](sdbus::Message& m) { impl->onOwnerChanged(m); }, sdbus::floating_slot);
    impl_->events = std::move(events);
    // The loop runs on a thread of ours rather than the library's own, so that losing the bus
    // ends the listener with a log line instead of an uncaught exception.
    std::lock_guard<std::mutex> lock(impl->listenerMutex);
    impl->listenerRunning = true;
    std::thread listener([impl] {
      try {
        impl->events->enterEventLoop();
      } catch (const std::exception& e) {
        logLine(kLogError, "event listener stopped: %s\n", e.what());
      }
      std::lock_guard<std::mutex> lock(impl->listenerMutex);
      impl->listenerRunning = false;
      impl->listenerDone.notify_all();
    });
    impl->listenerId = listener.get_id();
    listener.detach();
  } catch (const std::exception& e) {
    logLine(kLogError, "cannot start the event listener: %s\n", e.what());
    return -1;
  }
  return 0;
}

int ZVRModelAccess::requestStartZVRService() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->connect_l()) return -1;
  try {
    uint32_t reply = 0;
    impl_->bus->callMethod("StartServiceByName")
        .onInterface(kBusInterface)
        .withTimeout(std::chrono::seconds(2))
        .withArguments(std::string(zvr_bus::kServiceName), uint32_t(0))
        .storeResultsTo(reply);
    logLine(kLogProgress, "service start: %s\n", reply == 1 ? "started" : "already running");
    impl_->owner.clear();
    impl_->service.reset();
    return 0;
  } catch (const std::exception& e) {
    logLine(kLogError, "cannot start the media service: %s\n", e.what());
    return -1;
  }
}

int ZVRModelAccess::setAccessValue(std::string key, std::vector<std::string> values) {
  return impl_->callService("SetValue", [&](sdbus::IProxy& service) {
    int32_t result = -1;
    service.callMethod("SetValue")
        .onInterface(zvr_bus::kInterface)
        .withTimeout(std::chrono::milliseconds(zvr_bus::kCallTimeoutMs))
        .withArguments(key, values)
        .storeResultsTo(result);
    return result == 0 ? 0 : -1;
  });
}

int ZVRModelAccess::getAccessValue(std::string key, std::vector<std::string>& values) {
  return impl_->callService("GetValue", [&](sdbus::IProxy& service) {
    int32_t result = -1;
    std::vector<std::string> read;
    service.callMethod("GetValue")
        .onInterface(zvr_bus::kInterface)
        .withTimeout(std::chrono::milliseconds(zvr_bus::kCallTimeoutMs))
        .withArguments(key)
        .storeResultsTo(result, read);
    if (result != 0) return -1;
    values = std::move(read);
    return 0;
  });
}

}  // namespace velmora
