// zvrctl: a host for the media-proxy library, from the command line.
//
//   zvrctl COMMAND [ARGUMENT...]     run one command
//   zvrctl [-]                       run a script from standard input, one command per line
//
// Commands (ID may be "$last", the id of the last proxy created or attached):
//   create [--sync] [ID]                 create a proxy, or attach one to the remote player ID
//   start ID URL [MODE]                  MODE defaults to 1; 0 takes over a preload
//   stop ID | pause ID
//   seek ID POSITION [TEXT]
//   preload ID POSITION [TEXT1 [TEXT2 [TEXT3]]]
//   inspect                              send an inspect request
//   alive                                the liveness probe; fails when the service is silent
//   state ID | url ID                    print the proxy's state or local URL
//   wait-url ID [MS] | wait-definitions ID [MS]    wait for that callback (default 3000 ms)
//   wait-state ID STATE [MS]             wait until the proxy reaches STATE
//   fetch ID|URL [FILE]                  HTTP GET of the proxy's local URL (or of URL)
//   stats [ID]                           the process's counters, and the proxy's (or every
//                                        proxy's of this process)
//   sleep MS | echo TEXT...
// A command that names an ID this process does not know attaches a proxy to it first.
//
// Every application callback is printed as it arrives ("callback ID url VALUE"), every outcome
// the library reports ("outcome ID started 404 no such file": id, event or command, code or
// kind, detail), every state change after the command that caused it, and each command's
// duration. wait-url ends at once, failing, when the start's answer was a failure. The exit
// status is 0 when every command succeeded; a script stops at its first failure.

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_diagnostics.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"

namespace {

using Clock = std::chrono::steady_clock;
using velmora::ZVRMediaProxyInterface;

std::mutex outputMutex;

void say(const std::string& line) {
  std::lock_guard<std::mutex> lock(outputMutex);
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// What the application callback has reported, per proxy id.
struct Reported {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, std::string> url;
  std::map<std::string, std::string> definitions;
  // The outcome line of a failed "started" answer, by proxy id.
  std::map<std::string, std::string> startFailure;
};

Reported& reported() {
  static Reported* const r = new Reported;
  return *r;
}

// Runs on the listener thread, or on the caller's thread inside a command. It only records and
// prints: a proxy's "url" notification holds that proxy's mutex, so nothing here may call it.
void onChange(std::string id, std::string kind, std::string value) {
  say("  callback " + id + " " + kind + " " + value);
  Reported& r = reported();
  std::lock_guard<std::mutex> lock(r.mutex);
  (kind == "url" ? r.url : r.definitions)[id] = value;
  r.changed.notify_all();
}

// Runs on the library's outcome thread.
void onOutcome(const velmora::ZVROutcome& o, void*) {
  using velmora::ZVROutcome;
  std::string what = o.code;
  if (o.kind == ZVROutcome::kWaitTimedOut) what = "timeout";
  if (o.kind == ZVROutcome::kCreationEmpty) what = "empty";
  if (o.kind == ZVROutcome::kServiceRestart) what = "requested";
  const std::string id = !o.proxyId.empty() ? o.proxyId : !o.sessionId.empty() ? o.sessionId : "-";
  const std::string line = "outcome " + id + " " + o.name + " " + what + " " + o.detail;
  say("  " + line);
  if (o.kind == ZVROutcome::kFailedAnswer && o.name == "started") {
    Reported& r = reported();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.startFailure[o.proxyId] = line;
    r.changed.notify_all();
  }
}

void printCounts(const std::string& label, const std::map<std::string, uint64_t>& counts) {
  std::string line = "    " + label + ":";
  for (const auto& entry : counts) line += " " + entry.first + "=" + std::to_string(entry.second);
  say(line);
}

class Host {
 public:
  Host() : interface_(requestZVRMediaProxy()) {
    interface_->setZVRCallback(&onChange);
    velmora::addZVROutcomeListener(&onOutcome, nullptr);
  }

  // Runs one command line; false when it failed.
  bool run(const std::string& line);

 private:
  bool dispatch(const std::vector<std::string>& words);
  std::shared_ptr<ZVRMediaProxyInterface> proxy(std::string id);
  bool waitReported(bool url, const std::string& id, int timeoutMs);
  void forgetReported(const std::string& id);
  void printStats(const std::string& id);
  void reportStates();
  bool fetch(const std::string& target, const std::string& file);

  velmora::ZVRMediaProxyManagerInterface* const interface_;
  std::map<std::string, std::shared_ptr<ZVRMediaProxyInterface>> proxies_;
  std::map<std::string, int> states_;
  std::string last_;
};

std::vector<std::string> split(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  std::string word;
  while (in >> word) words.push_back(word);
  return words;
}

bool toInt(const std::string& text, int* value) {
  char* end = nullptr;
  const long parsed = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0') return false;
  *value = static_cast<int>(parsed);
  return true;
}

bool toDouble(const std::string& text, double* value) {
  char* end = nullptr;
  *value = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0';
}

bool Host::run(const std::string& line) {
  std::vector<std::string> words = split(line);
  if (words.empty() || words[0][0] == '#') return true;
  for (std::string& w : words) {
    if (w == "$last") w = last_;
  }
  say("> " + line);
  const Clock::time_point begin = Clock::now();
  const bool ok = dispatch(words);
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  char took[64];
  std::snprintf(took, sizeof took, "  %s (%.1f ms)", ok ? "ok" : "FAILED", ms);
  say(took);
  reportStates();
  return ok;
}

std::shared_ptr<ZVRMediaProxyInterface> Host::proxy(std::string id) {
  auto it = proxies_.find(id);
  if (it != proxies_.end()) return it->second;
  std::shared_ptr<ZVRMediaProxyInterface> attached = interface_->createNewZVRMediaProxy(id);
  if (attached) {
    proxies_[id] = attached;
    states_[id] = attached->getState();
    last_ = id;
  }
  return attached;
}

void Host::reportStates() {
  for (auto& entry : proxies_) {
    const int now = entry.second->getState();
    int& before = states_[entry.first];
    if (now != before) {
      say("  state " + entry.first + ": " + std::to_string(before) + " -> " + std::to_string(now));
      before = now;
    }
  }
}

// A failed "started" answer ends a wait for the URL at once.
bool Host::waitReported(bool url, const std::string& id, int timeoutMs) {
  Reported& r = reported();
  std::unique_lock<std::mutex> lock(r.mutex);
  const auto& map = url ? r.url : r.definitions;
  r.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                     [&] { return map.count(id) != 0 || (url && r.startFailure.count(id) != 0); });
  if (map.count(id) != 0) return true;
  if (url && r.startFailure.count(id) != 0) say("  start failed: " + r.startFailure[id]);
  return false;
}

// A new start or preload: what the last one reported no longer counts.
void Host::forgetReported(const std::string& id) {
  Reported& r = reported();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.url.erase(id);
  r.definitions.erase(id);
  r.startFailure.erase(id);
}

void Host::printStats(const std::string& only) {
  const auto process = velmora::getZVRProcessCounters();
  say("  process: creations tried=" + std::to_string(process->creationsTried) +
      " succeeded=" + std::to_string(process->creationsSucceeded) +
      " empty=" + std::to_string(process->creationsEmpty) +
      " attempts=" + std::to_string(process->creationAttempts) +
      " restarts=" + std::to_string(process->serviceRestarts) +
      " mappings=" + std::to_string(process->segmentMappings) +
      " parse-failures=" + std::to_string(process->segmentParseFailures) +
      " unrouted=" + std::to_string(process->unroutedRecords) + " deliveries=" +
      std::to_string(process->listenerDeliveries) + (process->counting ? "" : " (counting off)"));
  for (const auto& entry : proxies_) {
    if (!only.empty() && entry.first != only) continue;
    const auto counters = velmora::getZVRProxyCounters(entry.second);
    if (!counters) continue;
    say("  proxy '" + entry.first + "':");
    printCounts("commands sent", counters->commandsSent);
    printCounts("events received", counters->eventsReceived);
    printCounts("failures", counters->failures);
    say("    waits timed out: " + std::to_string(counters->waitsTimedOut));
    if (counters->lastFailureTime != 0) {
      char time[32];
      std::snprintf(time, sizeof time, "%.3f", counters->lastFailureTime);
      say("    last failure: " + counters->lastFailureName + " " + counters->lastFailureCode + " " +
          counters->lastFailureDetail + " at " + time);
    }
  }
}

bool Host::fetch(const std::string& target, const std::string& file) {
  std::string url = target;
  if (url.compare(0, 7, "http://") != 0) {
    std::shared_ptr<ZVRMediaProxyInterface> p = proxy(target);
    url = p ? p->localURL() : "";
  }
  const std::size_t pathStart = url.find('/', 7);
  if (url.compare(0, 7, "http://") != 0 || pathStart == std::string::npos) {
    say("  no local URL to fetch: '" + url + "'");
    return false;
  }
  httplib::Client client(url.substr(0, pathStart));
  client.set_connection_timeout(2);
  client.set_read_timeout(5);
  httplib::Result result = client.Get(url.substr(pathStart).c_str());
  if (!result || result->status != 200) {
    say("  GET " + url + " failed" +
        (result ? ": status " + std::to_string(result->status) : std::string()));
    return false;
  }
  std::string preview;
  for (char c : result->body.substr(0, 48)) preview += (c >= 32 && c < 127) ? c : '.';
  say("  GET " + url + ": " + std::to_string(result->body.size()) + " bytes \"" + preview + "\"");
  if (!file.empty()) std::ofstream(file, std::ios::binary) << result->body;
  return true;
}

bool Host::dispatch(const std::vector<std::string>& w) {
  const std::string& command = w[0];
  const std::size_t n = w.size();
  int number = 0;
  double position = 0;

  if (command == "create") {
    const bool sync = n > 1 && w[1] == "--sync";
    const std::size_t idAt = sync ? 2 : 1;
    std::shared_ptr<ZVRMediaProxyInterface> created;
    if (n > idAt) {
      created = sync ? interface_->createNewZVRMediaProxySync(w[idAt])
                     : interface_->createNewZVRMediaProxy(w[idAt]);
    } else {
      created =
          sync ? interface_->createNewZVRMediaProxySync() : interface_->createNewZVRMediaProxy();
    }
    if (!created) {
      say("  no manager");
      return false;
    }
    const std::string id = created->id();
    proxies_[id] = created;
    states_[id] = created->getState();
    last_ = id;
    say("  created '" + id + "'");
    return !id.empty();
  }
  if (command == "start" && (n == 3 || n == 4)) {
    if (n == 4 && !toInt(w[3], &number)) return false;
    std::shared_ptr<ZVRMediaProxyInterface> p = proxy(w[1]);
    if (!p) return false;
    forgetReported(w[1]);
    p->start(w[2], n == 4 ? number : 1);
    return true;
  }
  if ((command == "stop" || command == "pause" || command == "state" || command == "url") &&
      n == 2) {
    std::shared_ptr<ZVRMediaProxyInterface> p = proxy(w[1]);
    if (!p) return false;
    if (command == "stop") p->stop();
    if (command == "pause") p->pause();
    if (command == "state") say("  state " + w[1] + " = " + std::to_string(p->getState()));
    if (command == "url") say("  url " + w[1] + " = " + p->localURL());
    return true;
  }
  if (command == "seek" && (n == 3 || n == 4) && toDouble(w[2], &position)) {
    std::shared_ptr<ZVRMediaProxyInterface> p = proxy(w[1]);
    if (!p) return false;
    p->seek(position, n == 4 ? w[3] : "");
    return true;
  }
  if (command == "preload" && n >= 3 && n <= 6 && toDouble(w[2], &position)) {
    std::shared_ptr<ZVRMediaProxyInterface> p = proxy(w[1]);
    if (!p) return false;
    forgetReported(w[1]);
    p->preload(position, n > 3 ? w[3] : "", n > 4 ? w[4] : "", n > 5 ? w[5] : "");
    return true;
  }
  if (command == "inspect" && n == 1) {
    velmora::ZVRMediaProxyManager::getInstance()->requestRemoteObjectInspect();
    return true;
  }
  if (command == "alive" && n == 1) {
    const bool alive = velmora::ZVRMediaProxyManager::getInstance()->checkZVRServiceAlive();
    say(alive ? "  service alive" : "  service silent");
    return alive;
  }
  if ((command == "wait-url" || command == "wait-definitions") && (n == 2 || n == 3)) {
    int timeout = 3000;
    if (n == 3 && !toInt(w[2], &timeout)) return false;
    if (waitReported(command == "wait-url", w[1], timeout)) return true;
    say("  no " + command.substr(5) + " callback for " + w[1]);
    return false;
  }
  if (command == "wait-state" && (n == 3 || n == 4) && toInt(w[2], &number)) {
    int timeout = 3000;
    if (n == 4 && !toInt(w[3], &timeout)) return false;
    std::shared_ptr<ZVRMediaProxyInterface> p = proxy(w[1]);
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout);
    while (p && p->getState() != number) {
      if (Clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return p != nullptr;
  }
  if (command == "fetch" && (n == 2 || n == 3)) return fetch(w[1], n == 3 ? w[2] : "");
  if (command == "stats" && (n == 1 || n == 2)) {
    if (n == 2 && !proxy(w[1])) return false;
    printStats(n == 2 ? w[1] : "");
    return true;
  }
  if (command == "sleep" && n == 2 && toInt(w[1], &number)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(number));
    return true;
  }
  if (command == "echo") {
    std::string text;
    for (std::size_t i = 1; i < n; ++i) text += (i > 1 ? " " : "") + w[i];
    say("  " + text);
    return true;
  }
  say("  unknown command or wrong arguments: " + command);
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  Host host;
  if (argc > 1 && std::string(argv[1]) != "-") {
    std::string line;
    for (int i = 1; i < argc; ++i) line += (i > 1 ? " " : "") + std::string(argv[i]);
    return host.run(line) ? 0 : 1;
  }
  std::string line;
  while (std::getline(std::cin, line)) {
    if (!host.run(line)) return 1;
  }
  return 0;
}
