// Concurrency stress of the whole client: host threads creating proxies and driving them, the
// platform's listener flooded with records, and registry maintenance and liveness probes, all at
// once. Meant to run under ThreadSanitizer as well as in the normal builds. Each run is bounded
// by counts; a watchdog ends the process if a run hangs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "capturing_log.h"
#include "outcome_recorder.h"
#include "recording_model_access.h"
#include "service_double.h"
#include "shm_writer.h"
#include "test_support.h"
#include "zvr_log.h"
#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_diagnostics.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyManagerInterface;
using velmora::logging::kError;
using velmora::logging::kHeadline;
using velmora::logging::kProgress;
using zvr_test::CapturedLog;
using zvr_test::LogLine;
using zvr_test::ModelAccessRecorder;
using zvr_test::ServiceDouble;
using zvr_test::ShmWriter;

using Proxy = std::shared_ptr<ZVRMediaProxyInterface>;

constexpr std::chrono::seconds kWatchdogLimit(50);
constexpr std::chrono::milliseconds kStateWait(10000);
constexpr std::chrono::milliseconds kDeliveryWait(20000);
constexpr char kPlayURL[] = "http://example.test/stream.m3u8";

ModelAccessRecorder& recorder() { return ModelAccessRecorder::instance(); }
CapturedLog& log() { return CapturedLog::instance(); }

// The application callback of both runs: counts its calls by kind and keeps the ids it saw.
struct CallbackCounts {
  std::atomic<int> url{0};
  std::atomic<int> definitions{0};
  std::atomic<int> other{0};
  std::mutex mutex;
  std::set<std::string> ids;
};

CallbackCounts& callbackCounts() {
  static CallbackCounts* const counts = new CallbackCounts;
  return *counts;
}

void countingCallback(std::string id, std::string kind, std::string /*value*/) {
  CallbackCounts& counts = callbackCounts();
  if (kind == "url") {
    ++counts.url;
  } else if (kind == "definitions") {
    ++counts.definitions;
  } else {
    ++counts.other;
  }
  std::lock_guard<std::mutex> lock(counts.mutex);
  counts.ids.insert(id);
}

std::set<std::string> notifiedIds() {
  std::lock_guard<std::mutex> lock(callbackCounts().mutex);
  return callbackCounts().ids;
}

// The number of command messages whose word is one of `words`.
int commandsOf(const std::set<std::string>& words) {
  int n = 0;
  for (const std::vector<std::string>& command : recorder().commands()) {
    if (!command.empty() && words.count(command[0]) != 0) ++n;
  }
  return n;
}

// The number of B-LOG lines at `severity` whose message begins with `prefix` and contains
// `part`.
int linesLike(const std::vector<LogLine>& lines, unsigned int severity, const std::string& prefix,
              const std::string& part = "") {
  int n = 0;
  for (const LogLine& line : lines) {
    if (line.severity == severity && line.message.compare(0, prefix.size(), prefix) == 0 &&
        line.message.find(part, prefix.size()) != std::string::npos) {
      ++n;
    }
  }
  return n;
}

bool validState(int state) { return state == 0 || state == 1 || state == 2; }

// A second outcome listener that calls back into the library for every outcome it receives.
void readCountersOnEveryOutcome(const velmora::ZVROutcome& outcome, void*) {
  Proxy proxy = ZVRMediaProxyInterface::getObjectById(outcome.proxyId);
  if (proxy) {
    EXPECT_NE(velmora::getZVRProxyCounters(proxy), nullptr);
  }
  EXPECT_NE(velmora::getZVRProcessCounters(), nullptr);
}

// The number of failed answers of event `name` among `outcomes`.
int failuresOf(const std::vector<velmora::ZVROutcome>& outcomes, const std::string& name) {
  int n = 0;
  for (const velmora::ZVROutcome& o : outcomes) {
    if (o.kind == velmora::ZVROutcome::kFailedAnswer && o.name == name) ++n;
  }
  return n;
}

std::vector<std::string> record(const std::string& name, const std::string& code,
                                const std::string& session, const std::string& id) {
  std::vector<std::string> r(11);
  r[0] = name;
  r[1] = code;
  r[2] = session;
  r[3] = id;
  return r;
}

// --- Asynchronous mode -------------------------------------------------------------------------

// What the flooding thread sent, by kind.
struct FloodCounts {
  int startedOk = 0;    // "started" 200 for ids that may be registered
  int definition = 0;   // "definition" for registered ids
  int unknown = 0;      // object events for ids that are never registered
  int createdOk = 0;    // "created" 200
  int createdFail = 0;  // "created" 500
  int seekedFail = 0;   // "seeked" 500 for registered ids
  int status = 0;
  int total = 0;
};

void asyncStress() {
  constexpr int kHostThreads = 4;
  constexpr int kProxiesPerThread = 3;
  constexpr int kRounds = 120;
  constexpr int kFloodRecords = 12000;
  constexpr int kMaintenanceSteps = 600;
  constexpr int kProbeEvery = 100;

  ZVRMediaProxyManagerInterface* facade = requestZVRMediaProxy();
  ASSERT_NE(facade, nullptr);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  ServiceDouble service(nullptr, ServiceDouble::Delivery::kListener);
  facade->setZVRCallback(&countingCallback);
  zvr_test::OutcomeRecorder outcomes;
  velmora::addZVROutcomeListener(&readCountersOnEveryOutcome, nullptr);

  std::vector<std::string> explicitIds;
  for (int t = 0; t < kHostThreads; ++t) {
    for (int i = 0; i < kProxiesPerThread; ++i) {
      explicitIds.push_back("p" + std::to_string(t) + "-" + std::to_string(i));
    }
  }
  const std::vector<std::string> transientIds = {"transient-0", "transient-1"};

  // The flood and the maintenance begin once every host thread has made its proxies, so that
  // records for the explicit ids always find their object.
  zvr_test::Latch allCreated(kHostThreads + 2);
  std::atomic<int> finished{0};
  // Each host thread writes only its own slots; they are read after the joins.
  std::vector<std::vector<Proxy>> held(kHostThreads);
  std::vector<int> waitedStarts(kHostThreads, 0);
  FloodCounts flood;

  std::vector<std::thread> threads;
  for (int t = 0; t < kHostThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<Proxy>& mine = held[t];
      for (int i = 0; i < kProxiesPerThread; ++i) {
        Proxy proxy = facade->createNewZVRMediaProxy(explicitIds[t * kProxiesPerThread + i]);
        EXPECT_NE(proxy, nullptr);
        if (proxy) mine.push_back(proxy);
      }
      Proxy answered = facade->createNewZVRMediaProxy();
      EXPECT_NE(answered, nullptr);
      if (answered) mine.push_back(answered);
      Proxy created = ZVRMediaProxyInterface::create();
      EXPECT_NE(created, nullptr);
      if (created) mine.push_back(created);

      allCreated.arriveAndWait();

      // Concurrent creations without id may hand two objects the same id; only the registered
      // one receives the answers to its commands.
      std::vector<bool> reachable;
      for (const Proxy& proxy : mine) {
        reachable.push_back(ZVRMediaProxyInterface::getObjectById(proxy->id()).get() ==
                            proxy.get());
      }
      for (int round = 0; round < kRounds; ++round) {
        for (std::size_t k = 0; k < mine.size(); ++k) {
          const Proxy& proxy = mine[k];
          proxy->start(kPlayURL, 1);
          proxy->seek(1.5 * round, "seek-text");
          (void)proxy->id();
          (void)proxy->localURL();
          if (reachable[k]) {
            // Only a "started" record that finds the proxy starting moves it on, and that
            // record also reports the URL to the application.
            if (zvr_test::eventually([&] { return proxy->getState() == 2; }, kStateWait)) {
              ++waitedStarts[t];
            } else {
              ADD_FAILURE() << proxy->id() << " never reached state 2 after start";
            }
          }
          proxy->preload(0.5 * round, "text-1", "text-2", "text-3");
          EXPECT_TRUE(validState(proxy->getState()));
          proxy->stop();
          if (round % 8 == 0) proxy->pause();
        }
        if (round % 5 == 0) {
          Proxy transient = facade->createNewZVRMediaProxy(transientIds[t % 2]);
          EXPECT_NE(transient, nullptr);
          if (transient) {
            transient->start(kPlayURL, 1);
            transient->stop();
          }
        }
      }
      ++finished;
    });
  }

  threads.emplace_back([&] {
    allCreated.arriveAndWait();
    for (int n = 0; n < kFloodRecords; ++n) {
      const std::string& known = explicitIds[n % explicitIds.size()];
      const std::string session = "ses-flood-" + std::to_string(n);
      std::vector<std::string> r;
      switch (n % 8) {
        case 0:
          r = record("started", "200", session, known);
          r[6] = "http://127.0.0.1:8099/flood/" + std::to_string(n);
          ++flood.startedOk;
          break;
        case 1:
          r = record("definition", "200", session, known);
          r[7] = "SD,HD";
          ++flood.definition;
          break;
        case 2:
          r = record("stopped", "200", session, known);
          break;
        case 3:
          r = record("seeked", "500", session, known);
          r[8] = "seek refused";
          ++flood.seekedFail;
          break;
        case 4:
          r = record("started", "200", session, "nobody-" + std::to_string(n));
          ++flood.unknown;
          break;
        case 5:
          r = record("created", (n / 8) % 2 == 0 ? "200" : "500", session,
                     "flood-" + std::to_string(n));
          ++((n / 8) % 2 == 0 ? flood.createdOk : flood.createdFail);
          break;
        case 6:
          r = record("status", "200", session, "service");
          ++flood.status;
          break;
        default:
          r = record("started", "200", session, transientIds[n % 2]);
          ++flood.startedOk;
          break;
      }
      recorder().deliver(r);
      ++flood.total;
    }
    ++finished;
  });

  threads.emplace_back([&] {
    allCreated.arriveAndWait();
    for (int m = 0; m < kMaintenanceSteps; ++m) {
      const std::string& known = explicitIds[m % explicitIds.size()];
      std::shared_ptr<velmora::ZVRMediaProxyObject> found = manager->findObjectById(known);
      EXPECT_NE(found, nullptr) << known;
      if (found) {
        EXPECT_EQ(found->id(), known);
      }
      EXPECT_EQ(manager->findObjectById("nobody-" + std::to_string(m)), nullptr);
      manager->removeProxyObjectFromCache(transientIds[m % 2]);
      if (m % kProbeEvery == 0) manager->checkZVRServiceAlive();
    }
    ++finished;
  });

  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(finished.load(), kHostThreads + 2);

  // Every record sent, by the flood and by the service double, reached onZVREvent exactly once.
  const int sent = flood.total + service.answered();
  EXPECT_TRUE(recorder().waitDelivered(sent, kDeliveryWait));
  EXPECT_EQ(recorder().delivered(), sent);
  EXPECT_EQ(flood.total, kFloodRecords);

  std::set<std::string> knownIds(explicitIds.begin(), explicitIds.end());
  knownIds.insert(transientIds.begin(), transientIds.end());
  int proxies = 0;
  for (int t = 0; t < kHostThreads; ++t) {
    for (const Proxy& proxy : held[t]) {
      ++proxies;
      EXPECT_TRUE(validState(proxy->getState())) << proxy->id() << ": " << proxy->getState();
      knownIds.insert(proxy->id());
    }
    for (int i = 0; i < kProxiesPerThread; ++i) {
      const std::string& id = explicitIds[t * kProxiesPerThread + i];
      EXPECT_EQ(ZVRMediaProxyInterface::getObjectById(id).get(), held[t][i].get()) << id;
    }
  }
  EXPECT_EQ(proxies, kHostThreads * (kProxiesPerThread + 2));

  // The callback saw only proxies of this run, at least once per awaited start, and never more
  // often than successful "started" and "definition" records could cause.
  int awaited = 0;
  for (int n : waitedStarts) awaited += n;
  const int url = callbackCounts().url.load();
  EXPECT_GT(url, 0);
  EXPECT_GE(url, awaited);
  EXPECT_LE(url, commandsOf({"start", "preload"}) + flood.startedOk);
  EXPECT_LE(callbackCounts().definitions.load(), flood.definition);
  EXPECT_EQ(callbackCounts().other.load(), 0);
  for (const std::string& id : notifiedIds()) {
    EXPECT_EQ(knownIds.count(id), 1u) << "callback for unknown id " << id;
  }

  // Every record was routed by its name: the manager's own records each logged once, object
  // records for unknown ids each refused once, and none for an id that stayed registered.
  const std::vector<LogLine> lines = log().lines();
  EXPECT_EQ(linesLike(lines, kError, "unable to find object for event: ", ",nobody-"),
            flood.unknown);
  for (const std::string& id : explicitIds) {
    EXPECT_EQ(linesLike(lines, kError, "unable to find object for event: ", "," + id + "\n"), 0)
        << id;
  }
  EXPECT_EQ(linesLike(lines, kProgress, "zvr service alive: "),
            flood.status + commandsOf({"inspect"}));
  EXPECT_EQ(linesLike(lines, kHeadline, "New Created Object: "),
            flood.createdOk + commandsOf({"create"}));
  EXPECT_EQ(linesLike(lines, kError, "Create Failed: "), flood.createdFail);

  // Every failed answer reached the outcome listeners once.
  EXPECT_TRUE(outcomes.waitCount(flood.seekedFail + flood.createdFail, kDeliveryWait));
  velmora::removeZVROutcomeListener(&readCountersOnEveryOutcome, nullptr);
  EXPECT_EQ(failuresOf(outcomes.outcomes(), "seeked"), flood.seekedFail);
  EXPECT_EQ(failuresOf(outcomes.outcomes(), "created"), flood.createdFail);
}

TEST(StressTest, HostThreadsListenerFloodAndRegistryMaintenanceRunTogether) {
  zvr_test::withWatchdog("the asynchronous stress run", kWatchdogLimit, asyncStress);
}

// --- Sync mode ---------------------------------------------------------------------------------

void syncStress() {
  constexpr int kCommandThreads = 3;
  constexpr int kProxiesPerThread = 2;
  constexpr int kRounds = 16;
  constexpr int kCreations = 4;

  ShmWriter writer;
  ServiceDouble service(&writer, ServiceDouble::Delivery::kBoth);
  ZVRMediaProxyManagerInterface* facade = requestZVRMediaProxy();
  ASSERT_NE(facade, nullptr);
  ZVRMediaProxyManager* manager = ZVRMediaProxyManager::getInstance();
  facade->setZVRCallback(&countingCallback);
  zvr_test::OutcomeRecorder outcomes;
  velmora::addZVROutcomeListener(&readCountersOnEveryOutcome, nullptr);

  // Switches the manager into sync mode: from here on every command waits for its answer.
  Proxy seed = facade->createNewZVRMediaProxySync("seed");
  ASSERT_NE(seed, nullptr);
  ASSERT_EQ(seed->id(), "seed");
  seed->start(kPlayURL, 1);
  EXPECT_TRUE(zvr_test::eventually([&] { return seed->getState() == 2; }, kStateWait));

  std::atomic<int> finished{0};
  std::vector<std::vector<Proxy>> held(kCommandThreads);
  std::vector<int> waitedStarts(kCommandThreads, 0);
  std::vector<Proxy> created;

  std::vector<std::thread> threads;
  for (int t = 0; t < kCommandThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<Proxy>& mine = held[t];
      for (int i = 0; i < kProxiesPerThread; ++i) {
        Proxy proxy =
            facade->createNewZVRMediaProxy("q" + std::to_string(t) + "-" + std::to_string(i));
        EXPECT_NE(proxy, nullptr);
        if (proxy) mine.push_back(proxy);
      }
      for (int round = 0; round < kRounds; ++round) {
        for (const Proxy& proxy : mine) {
          proxy->start(kPlayURL, 1);
          // The answer reaches the proxy through the wait or through the listener.
          if (zvr_test::eventually([&] { return proxy->getState() == 2; }, kStateWait)) {
            ++waitedStarts[t];
          } else {
            ADD_FAILURE() << proxy->id() << " never reached state 2 after start";
          }
          proxy->seek(2.0 * round, "seek-text");
          (void)proxy->id();
          (void)proxy->localURL();
          EXPECT_TRUE(validState(proxy->getState()));
          proxy->preload(0.25 * round, "text-1", "text-2", "text-3");
          proxy->stop();
          if (round % 2 == 0) proxy->pause();
        }
      }
      ++finished;
    });
  }

  threads.emplace_back([&] {
    for (int n = 0; n < kCreations; ++n) {
      Proxy proxy = facade->createNewZVRMediaProxy();
      EXPECT_NE(proxy, nullptr);
      if (proxy) created.push_back(proxy);
      manager->checkZVRServiceAlive();
    }
    ++finished;
  });

  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(finished.load(), kCommandThreads + 1);

  // With answers on both roads, each answer reached the listener once.
  const int sent = service.answered();
  EXPECT_TRUE(recorder().waitDelivered(sent, kDeliveryWait));
  EXPECT_EQ(recorder().delivered(), sent);

  std::set<std::string> knownIds = {"seed"};
  EXPECT_TRUE(validState(seed->getState()));
  EXPECT_EQ(ZVRMediaProxyInterface::getObjectById("seed").get(), seed.get());
  for (int t = 0; t < kCommandThreads; ++t) {
    ASSERT_EQ(held[t].size(), static_cast<std::size_t>(kProxiesPerThread));
    for (const Proxy& proxy : held[t]) {
      EXPECT_TRUE(validState(proxy->getState())) << proxy->id() << ": " << proxy->getState();
      EXPECT_EQ(ZVRMediaProxyInterface::getObjectById(proxy->id()).get(), proxy.get());
      knownIds.insert(proxy->id());
    }
  }
  EXPECT_EQ(created.size(), static_cast<std::size_t>(kCreations));
  for (const Proxy& proxy : created) {
    EXPECT_TRUE(validState(proxy->getState()));
    EXPECT_NE(ZVRMediaProxyInterface::getObjectById(proxy->id()), nullptr) << proxy->id();
    knownIds.insert(proxy->id());
  }

  int awaited = 0;
  for (int n : waitedStarts) awaited += n;
  EXPECT_EQ(awaited, kCommandThreads * kProxiesPerThread * kRounds);
  const int url = callbackCounts().url.load();
  EXPECT_GT(url, 0);
  // The seed's start and every awaited start each moved a starting proxy on.
  EXPECT_GE(url, awaited + 1);
  EXPECT_EQ(callbackCounts().definitions.load(), 0);
  EXPECT_EQ(callbackCounts().other.load(), 0);
  for (const std::string& id : notifiedIds()) {
    EXPECT_EQ(knownIds.count(id), 1u) << "callback for unknown id " << id;
  }

  // The service answered everything: no failure reached the listeners, and any wait that ran
  // out under load was reported for its command and proxy.
  velmora::removeZVROutcomeListener(&readCountersOnEveryOutcome, nullptr);
  for (const velmora::ZVROutcome& o : outcomes.outcomes()) {
    EXPECT_NE(o.kind, velmora::ZVROutcome::kFailedAnswer) << o;
    if (o.kind == velmora::ZVROutcome::kWaitTimedOut && o.name != "create" && o.name != "inspect") {
      EXPECT_EQ(knownIds.count(o.proxyId), 1u) << o;
    }
  }
}

TEST(StressTest, SyncModeCommandsCreationsAndProbesRunTogether) {
  zvr_test::withWatchdog("the synchronous stress run", kWatchdogLimit, syncStress);
}

}  // namespace
