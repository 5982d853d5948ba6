#include "recording_model_access.h"

#include <poll.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "zvr_model_access.h"

namespace zvr_test {

const char kCommandKey[] = "varek.sl2.vstr.videoplayer.zvr.command";
const char kEventKey[] = "varek.sl2.vstr.videoplayer.zvr.event";

namespace {

// One connection's listener: a queue of records and the thread that hands them to the client.
struct Connection {
  explicit Connection(velmora::ZVRModelAccessClient* c) : client(c) {}

  void listen();

  velmora::ZVRModelAccessClient* const client;
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::vector<std::string>> queue;
  bool stopping = false;
  std::thread listener;
};

// The recorder's state. Leaked, so that listener threads still running at exit never meet a
// destroyed mutex.
struct State {
  mutable std::mutex mutex;
  std::condition_variable changed;
  bool throwFromConstructor = false;
  bool throwFromStart = false;
  bool throwFromStartEventListener = false;
  std::string lifecycleBlock;
  std::map<std::string, int> blockedIn;
  std::map<std::string, std::vector<std::string>> values;
  ModelAccessRecorder::Hook hook;
  std::vector<AccessCall> calls;
  int constructed = 0;
  int destroyed = 0;
  int starts = 0;
  int listenerStarts = 0;
  int serviceStartRequests = 0;
  int getCalls = 0;
  int constructorAttempts = 0;
  std::vector<std::string> lifecycle;
  int delivered = 0;
  int queued = 0;  // records given to deliver(), less those a destroyed connection dropped
  Connection* newest = nullptr;
};

State& state() {
  static State* const s = new State;
  return *s;
}

// Blocks while `step` is the lifecycle block, polling: poll is a cancellation point, so the
// thread can be cancelled here. The count is kept right also when it is.
void waitWhileBlocked(const char* step) {
  State& s = state();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.lifecycleBlock != step) return;
    ++s.blockedIn[step];
  }
  struct Leave {
    const char* step;
    ~Leave() {
      std::lock_guard<std::mutex> lock(state().mutex);
      --state().blockedIn[step];
    }
  } leave{step};
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(s.mutex);
      if (s.lifecycleBlock != step) return;
    }
    poll(nullptr, 0, 5);
  }
}

void Connection::listen() {
  State& s = state();
  for (;;) {
    std::vector<std::string> record;
    {
      std::unique_lock<std::mutex> lock(mutex);
      wake.wait(lock, [this] { return stopping || !queue.empty(); });
      if (stopping) return;
      record = std::move(queue.front());
      queue.pop_front();
    }
    client->onZVREvent(record);
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.delivered;
    s.changed.notify_all();
  }
}

}  // namespace
}  // namespace zvr_test

namespace velmora {

struct ZVRModelAccess::Impl : zvr_test::Connection {
  using Connection::Connection;
};

ZVRModelAccess::ZVRModelAccess(ZVRModelAccessClient* client) {
  zvr_test::waitWhileBlocked("construct");
  zvr_test::State& s = zvr_test::state();
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.constructorAttempts;
  if (s.throwFromConstructor) {
    s.lifecycle.push_back("refuse");
    throw std::runtime_error("connection refused");
  }
  impl_.reset(new Impl(client));
  ++s.constructed;
  s.lifecycle.push_back("construct");
  s.newest = impl_.get();
}

ZVRModelAccess::~ZVRModelAccess() {
  zvr_test::State& s = zvr_test::state();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.destroyed;
    s.lifecycle.push_back("destroy");
    if (s.newest == impl_.get()) s.newest = nullptr;
  }
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->stopping = true;
  }
  impl_->wake.notify_all();
  if (impl_->listener.joinable()) {
    if (impl_->listener.get_id() == std::this_thread::get_id()) {
      impl_->listener.detach();
    } else {
      impl_->listener.join();
    }
  }
  std::size_t dropped;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    dropped = impl_->queue.size();
  }
  std::lock_guard<std::mutex> lock(s.mutex);
  s.queued -= static_cast<int>(dropped);
}

int ZVRModelAccess::start() {
  zvr_test::waitWhileBlocked("start");
  zvr_test::State& s = zvr_test::state();
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.starts;
  s.lifecycle.push_back("start");
  if (s.throwFromStart) throw std::runtime_error("start refused");
  return 0;
}

int ZVRModelAccess::startEventListener() {
  zvr_test::waitWhileBlocked("listen");
  zvr_test::State& s = zvr_test::state();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.listenerStarts;
    s.lifecycle.push_back("listen");
    if (s.throwFromStartEventListener) throw std::runtime_error("listener refused");
  }
  if (!impl_->listener.joinable()) impl_->listener = std::thread([this] { impl_->listen(); });
  return 0;
}

int ZVRModelAccess::requestStartZVRService() {
  zvr_test::State& s = zvr_test::state();
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.serviceStartRequests;
  s.lifecycle.push_back("service");
  s.changed.notify_all();
  return 0;
}

int ZVRModelAccess::setAccessValue(std::string key, std::vector<std::string> values) {
  zvr_test::State& s = zvr_test::state();
  zvr_test::ModelAccessRecorder::Hook hook;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.calls.push_back({key, values});
    hook = s.hook;
    s.changed.notify_all();
  }
  if (hook) hook(key, values);
  return 0;
}

int ZVRModelAccess::getAccessValue(std::string key, std::vector<std::string>& values) {
  zvr_test::State& s = zvr_test::state();
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.getCalls;
  auto it = s.values.find(key);
  if (it == s.values.end()) return -1;
  values = it->second;
  return 0;
}

}  // namespace velmora

namespace zvr_test {

ModelAccessRecorder& ModelAccessRecorder::instance() {
  static ModelAccessRecorder* const recorder = new ModelAccessRecorder;
  return *recorder;
}

void ModelAccessRecorder::setThrowFromConstructor(bool enabled) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().throwFromConstructor = enabled;
}

void ModelAccessRecorder::setThrowFromStart(bool enabled) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().throwFromStart = enabled;
}

void ModelAccessRecorder::setThrowFromStartEventListener(bool enabled) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().throwFromStartEventListener = enabled;
}

void ModelAccessRecorder::setLifecycleBlock(const std::string& step) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().lifecycleBlock = step;
}

int ModelAccessRecorder::blockedIn(const std::string& step) const {
  std::lock_guard<std::mutex> lock(state().mutex);
  auto it = state().blockedIn.find(step);
  return it != state().blockedIn.end() ? it->second : 0;
}

void ModelAccessRecorder::setValue(const std::string& key, std::vector<std::string> values) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().values[key] = std::move(values);
}

void ModelAccessRecorder::setHook(Hook hook) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().hook = std::move(hook);
}

std::vector<AccessCall> ModelAccessRecorder::calls() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().calls;
}

std::vector<std::vector<std::string>> ModelAccessRecorder::commands() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  std::vector<std::vector<std::string>> result;
  for (const AccessCall& call : state().calls) {
    if (call.key == kCommandKey) result.push_back(call.values);
  }
  return result;
}

void ModelAccessRecorder::clearCalls() {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().calls.clear();
}

int ModelAccessRecorder::constructed() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().constructed;
}

int ModelAccessRecorder::destroyed() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().destroyed;
}

int ModelAccessRecorder::starts() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().starts;
}

int ModelAccessRecorder::listenerStarts() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().listenerStarts;
}

int ModelAccessRecorder::serviceStartRequests() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().serviceStartRequests;
}

int ModelAccessRecorder::getCalls() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().getCalls;
}

int ModelAccessRecorder::constructorAttempts() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().constructorAttempts;
}

std::vector<std::string> ModelAccessRecorder::lifecycle() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().lifecycle;
}

void ModelAccessRecorder::deliver(std::vector<std::string> record) {
  Connection* impl;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    impl = state().newest;
    if (impl != nullptr) ++state().queued;
  }
  if (impl == nullptr) throw std::logic_error("deliver: no connection");
  {
    std::lock_guard<std::mutex> lock(impl->mutex);
    impl->queue.push_back(std::move(record));
  }
  impl->wake.notify_all();
}

bool ModelAccessRecorder::waitDelivered(int count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(state().mutex);
  return state().changed.wait_for(lock, timeout, [count] { return state().delivered >= count; });
}

int ModelAccessRecorder::delivered() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().delivered;
}

int ModelAccessRecorder::pendingDeliveries() const {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().queued - state().delivered;
}

bool ModelAccessRecorder::waitCommands(std::size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(state().mutex);
  return state().changed.wait_for(lock, timeout, [count] {
    std::size_t n = 0;
    for (const AccessCall& call : state().calls) n += call.key == kCommandKey ? 1 : 0;
    return n >= count;
  });
}

}  // namespace zvr_test
