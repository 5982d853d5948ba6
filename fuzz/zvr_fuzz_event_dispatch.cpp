// Fuzzes event dispatch: arbitrary event records reach the manager's onZVREvent, which keeps
// "created" and "status" for itself and hands every other record to the proxy registered under
// position 3. A model of the four proxies predicts each state, local URL and callback.
//
// Input: up to 8 records separated by 0x1E. A record is two control bytes followed by its fields
// separated by 0x1F (at most 12; the twelfth keeps any further separators). Nothing after the
// control bytes is the empty record.
//   control 1, bits 0-2: 0-5 force position 0 to created, status, started, stopped, seeked,
//                        definition; 6-7 leave it
//              bits 3-5: 0-3 force position 3 to a registered id ("id-1", "id-2", "id-3", the
//                        empty id); 4 force an id that is not registered; 5-7 leave it
//              bit 6:    force position 1 to "200"
//              bit 7:    dispatch the record twice (a synchronous waiter and the listener may
//                        both hand on the same answer)
//   control 2, bits 0-2: what happens around the record (see Action), bits 3-4: which proxy the
//                        action is done to, bits 5-7: the start mode minus one for kStart.
// Missing control bytes read as 0xFF and 0x00: nothing forced, plain dispatch.
//
// Every input starts from the same world: the four proxies are created again (which replaces
// their registrations) and driven into their states, so an input behaves the same whatever ran
// before it. "id-1" and the empty id are idle, "id-2" is starting, "id-3" is started with a URL
// and definitions. The application callback is set; proxies report through the singleton.
//
// Bounded memory. Dispatch goes to a manager of the harness's own (`new ZVRMediaProxyManager`),
// not to the singleton, because every successful "created" record appends its object id to the
// manager's response ids and nothing on that path ever clears them. The harness counts what the
// records it dispatched could have appended; past kResponseBudget bytes it builds a fresh
// manager (which becomes the model access's newest connection, the one the listener delivers to)
// and deletes the old one with everything it holds. The recorder's calls and the capturing log
// are cleared at the start of every input; logging stays fully on, so the library formats every
// text it is given.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using Record = std::vector<std::string>;
using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyObject;

constexpr std::uint8_t kRecordSeparator = 0x1E;
constexpr std::uint8_t kFieldSeparator = 0x1F;
constexpr std::size_t kMaxRecords = 8;
constexpr std::size_t kMaxFields = 12;
constexpr std::size_t kResponseBudget = 1 << 20;
// Per appended id, beyond its characters: the string object and the vector's slack, roughly.
constexpr std::size_t kResponseOverhead = 64;

const char* const kNames[] = {"created", "status", "started", "stopped", "seeked", "definition"};
constexpr std::size_t kNameCount = sizeof kNames / sizeof kNames[0];
const char* const kIds[] = {"id-1", "id-2", "id-3", ""};
constexpr std::size_t kProxies = sizeof kIds / sizeof kIds[0];
const char kUnregisteredId[] = "id-9";

enum Action : unsigned {
  kDispatch = 0,  // only the dispatch
  kStart = 1,     // start(url from position 6, mode 1..8) on the proxy, then dispatch
  kStop = 2,      // stop() on the proxy, then dispatch
  kPreload = 3,   // preload(0.5, positions 6, 7, 8) on the proxy, then dispatch
  kSeek = 4,      // seek(2.5, position 8) on the proxy, then dispatch
  kTakeOver = 5,  // the record becomes the event value and the proxy runs start("", 0) instead
  kRecreate = 6,  // the proxy is created again (idle, nothing stored), then dispatch
  kListener = 7,  // dispatch on the model access's listener thread instead of this one
};

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "zvr_fuzz_event_dispatch: %s\n", what);
  std::abort();
}

const std::string& field(const Record& record, std::size_t i) {
  static const std::string* const kEmpty = new std::string();
  return i < record.size() ? record[i] : *kEmpty;
}

struct Notification {
  std::string id;
  std::string kind;
  std::string value;
  bool operator==(const Notification& other) const {
    return id == other.id && kind == other.kind && value == other.value;
  }
};

// The application callback; it may run on the listener thread.
std::mutex gNotificationMutex;
std::vector<Notification> gNotifications;

void onNotification(std::string id, std::string kind, std::string value) {
  if (kind != "url" && kind != "definitions") fail("callback with an unknown kind");
  std::lock_guard<std::mutex> lock(gNotificationMutex);
  gNotifications.push_back({std::move(id), std::move(kind), std::move(value)});
}

std::vector<Notification> takeNotifications() {
  std::lock_guard<std::mutex> lock(gNotificationMutex);
  std::vector<Notification> taken;
  taken.swap(gNotifications);
  return taken;
}

// What one proxy is expected to hold.
struct Model {
  int state = ZVRMediaProxyObject::STATE_IDLE;
  std::string url;
  std::string definitions;
};

// The proxy's own handling of a record (it ignores records for other ids).
void applyToProxy(Model& model, const std::string& id, const Record& record,
                  std::vector<Notification>& expected) {
  if (field(record, 3) != id) return;
  const std::string& name = field(record, 0);
  if (name == "started") {
    if (field(record, 1) != "200") return;
    model.url = field(record, 6);
    if (model.state == ZVRMediaProxyObject::STATE_STARTING) {
      expected.push_back({id, "url", model.url});
    }
    model.state = ZVRMediaProxyObject::STATE_STARTED;
  } else if (name == "definition") {
    model.definitions = field(record, 7);
    if (model.state == ZVRMediaProxyObject::STATE_STARTING ||
        model.state == ZVRMediaProxyObject::STATE_STARTED) {
      expected.push_back({id, "definitions", model.definitions});
    }
  }
}

class Harness {
 public:
  Harness() {
    zvr_test::CapturedLog::instance().enableAll();
    // The singleton first, so that the dispatching manager's connection is the newest one.
    singleton_ = ZVRMediaProxyManager::getInstance();
    singleton_->setZVRCallback(onNotification);
    dispatch_ = new ZVRMediaProxyManager();
    dispatch_->setZVRCallback(onNotification);
  }

  void run(const std::uint8_t* data, std::size_t size) {
    zvr_test::ModelAccessRecorder::instance().clearCalls();
    zvr_test::CapturedLog::instance().clear();
    if (responseBytes_ > kResponseBudget) renewDispatchManager();
    setUpWorld();

    std::size_t start = 0;
    for (std::size_t n = 0; n < kMaxRecords && start <= size; ++n) {
      std::size_t end = start;
      while (end < size && data[end] != kRecordSeparator) ++end;
      runRecord(data + start, end - start);
      start = end + 1;
    }
  }

 private:
  void renewDispatchManager() {
    for (auto& proxy : proxies_) proxy.reset();
    ZVRMediaProxyManager* fresh = new ZVRMediaProxyManager();
    fresh->setZVRCallback(onNotification);
    delete dispatch_;
    dispatch_ = fresh;
    responseBytes_ = 0;
  }

  void setUpWorld() {
    for (std::size_t i = 0; i < kProxies; ++i) {
      proxies_[i] = dispatch_->createNewZVRMediaProxy(kIds[i]);
      models_[i] = Model();
    }
    proxies_[1]->start("file:///media/b.ts", 1);
    models_[1].state = ZVRMediaProxyObject::STATE_STARTING;

    proxies_[2]->start("file:///media/c.ts", 1);
    Record started = {"started", "200", "ses-0", kIds[2], "", "", "http://127.0.0.1:8080/c"};
    dispatch_->onZVREvent(started);
    Record definition = {"definition", "200", "ses-0", kIds[2], "", "", "", "576p,720p"};
    dispatch_->onZVREvent(definition);
    models_[2] = {ZVRMediaProxyObject::STATE_STARTED, started[6], definition[7]};

    takeNotifications();
    check();
  }

  static Record parseRecord(const std::uint8_t* data, std::size_t size, std::uint8_t* control1,
                            std::uint8_t* control2) {
    *control1 = size > 0 ? data[0] : 0xFF;
    *control2 = size > 1 ? data[1] : 0x00;
    Record record;
    if (size <= 2) return record;
    record.emplace_back();
    for (std::size_t i = 2; i < size; ++i) {
      if (data[i] == kFieldSeparator && record.size() < kMaxFields) {
        record.emplace_back();
      } else {
        record.back().push_back(static_cast<char>(data[i]));
      }
    }
    return record;
  }

  static void force(Record& record, std::uint8_t control1) {
    const unsigned name = control1 & 7u;
    if (name < kNameCount) {
      if (record.empty()) record.resize(1);
      record[0] = kNames[name];
    }
    const unsigned id = (control1 >> 3) & 7u;
    if (id <= kProxies) {
      if (record.size() < 4) record.resize(4);
      record[3] = id < kProxies ? kIds[id] : kUnregisteredId;
    }
    if (control1 & 0x40u) {
      if (record.size() < 2) record.resize(2);
      record[1] = "200";
    }
  }

  void runRecord(const std::uint8_t* data, std::size_t size) {
    std::uint8_t control1;
    std::uint8_t control2;
    Record record = parseRecord(data, size, &control1, &control2);
    force(record, control1);
    const int times = (control1 & 0x80u) ? 2 : 1;
    const unsigned action = control2 & 7u;
    const std::size_t subject = (control2 >> 3) & 3u;
    const int mode = 1 + ((control2 >> 5) & 7);

    std::vector<Notification> expected;
    bool dispatch = true;
    switch (action) {
      case kStart:
        proxies_[subject]->start(field(record, 6), mode);
        models_[subject].state = ZVRMediaProxyObject::STATE_STARTING;
        break;
      case kStop:
        proxies_[subject]->stop();
        models_[subject].state = ZVRMediaProxyObject::STATE_IDLE;
        models_[subject].url.clear();
        break;
      case kPreload:
        proxies_[subject]->preload(0.5, field(record, 6), field(record, 7), field(record, 8));
        models_[subject].url.clear();
        break;
      case kSeek:
        proxies_[subject]->seek(2.5, field(record, 8));
        break;
      case kTakeOver:
        takeOver(subject, record, times, expected);
        dispatch = false;
        break;
      case kRecreate:
        proxies_[subject] = dispatch_->createNewZVRMediaProxy(kIds[subject]);
        models_[subject] = Model();
        break;
      default:
        break;
    }

    if (dispatch) {
      for (int t = 0; t < times; ++t) {
        if (action == kListener) {
          zvr_test::ModelAccessRecorder::instance().deliver(record);
          if (!zvr_test::ModelAccessRecorder::instance().waitDelivered(++delivered_,
                                                                       std::chrono::seconds(30))) {
            fail("the listener did not deliver the record");
          }
        } else {
          Record copy = record;
          dispatch_->onZVREvent(copy);
          if (copy != record) fail("dispatch changed the record");
        }
        expectDispatch(record, expected);
      }
    }

    if (takeNotifications() != expected) fail("notifications differ from the model");
    check();
  }

  // start(url, 0): announces what a preload stored, or reads the event value and handles it.
  void takeOver(std::size_t subject, const Record& record, int times,
                std::vector<Notification>& expected) {
    zvr_test::ModelAccessRecorder::instance().setValue(zvr_test::kEventKey, record);
    for (int t = 0; t < times; ++t) {
      proxies_[subject]->start(std::string(), 0);
      Model& model = models_[subject];
      model.state = ZVRMediaProxyObject::STATE_STARTING;
      if (!model.url.empty()) {
        expected.push_back({kIds[subject], "url", model.url});
        expected.push_back({kIds[subject], "definitions", model.definitions});
      } else {
        applyToProxy(model, kIds[subject], record, expected);
      }
    }
  }

  void expectDispatch(const Record& record, std::vector<Notification>& expected) {
    const std::string& name = field(record, 0);
    if (name == "created") {
      if (field(record, 1) == "200") responseBytes_ += field(record, 3).size() + kResponseOverhead;
      return;
    }
    if (name == "status") return;
    for (std::size_t i = 0; i < kProxies; ++i) {
      if (field(record, 3) == kIds[i]) applyToProxy(models_[i], kIds[i], record, expected);
    }
  }

  void check() {
    for (std::size_t i = 0; i < kProxies; ++i) {
      if (proxies_[i]->getState() != models_[i].state) fail("proxy state differs from the model");
      if (proxies_[i]->localURL() != models_[i].url) fail("local URL differs from the model");
      if (proxies_[i]->id() != kIds[i]) fail("proxy id changed");
      if (dispatch_->findProxyObjectFromCache(kIds[i]) != proxies_[i]) {
        fail("registry lost a proxy");
      }
    }
  }

  ZVRMediaProxyManager* singleton_ = nullptr;
  ZVRMediaProxyManager* dispatch_ = nullptr;
  std::shared_ptr<ZVRMediaProxyObject> proxies_[kProxies];
  Model models_[kProxies];
  std::size_t responseBytes_ = 0;
  int delivered_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Harness* const harness = new Harness;  // never destroyed, like the singleton
  harness->run(data, size);
  return 0;
}
