// The web tests' fixture: real browsers (WPE WebKit, Chromium) play what the library delivers.
//
// A test starts the emulator on a PrivateBus, serves a page with one <video> from a loopback
// server of its own, and runs the page in a fresh browser (BrowserRunner) through WebDriver.
// The page records its video's events from the start; probes run in it as asynchronous scripts
// and return what they measured as JSON.
//
// A play that fails may be retried once, in a new browser with a new profile; the retry is
// printed ("[ RETRY    ]") and recorded as the test's property "retry". A second failure fails
// the test.

#ifndef ZVR_TESTS_WEB_WEB_TEST_SUPPORT_H_
#define ZVR_TESTS_WEB_WEB_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <stdlib.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "browser_runner.h"
#include "media_test_support.h"
#include "private_bus.h"
#include "test_support.h"
#include "web_pages.h"
#include "webdriver.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace zvr_test {

// A loopback HTTP server of pages held in memory.
class PageServer {
 public:
  PageServer() {
    server_.Get(R"(/page-(\d+)\.html)",
                [this](const httplib::Request& request, httplib::Response& response) {
                  std::lock_guard<std::mutex> lock(mutex_);
                  auto page = pages_.find(request.matches[1].str());
                  if (page == pages_.end()) {
                    response.status = 404;
                    return;
                  }
                  response.set_header("Cache-Control", "no-store");
                  response.set_content(page->second, "text/html; charset=utf-8");
                });
    port_ = startLoopbackServer(server_, thread_);
  }
  ~PageServer() {
    server_.stop();
    thread_.join();
  }
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  // Serves `html`; returns its URL.
  std::string add(const std::string& html) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::string n = std::to_string(pages_.size() + 1);
    pages_[n] = html;
    return "http://127.0.0.1:" + std::to_string(port_) + "/page-" + n + ".html";
  }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::mutex mutex_;
  std::map<std::string, std::string> pages_;
};

// What one page run measured; `failure` is empty when it went as expected.
struct PageRun {
  std::string failure;
  Json::Value play;
  Json::Value seek;
  Json::Value error;
  bool reapedAll = false;
  int attempts = 0;
};

// How long a seek may take to fire "seeked": three times the 300 ms a player takes at most on
// this machine, so that a loaded machine does not fail the test.
constexpr double kSeekedWithinMs = 3 * 300.0;

// Playback to 2.0 s at 320x240; with `seek`, a seek to 1.5 s that lands within 0.3 s of it and
// fires "seeked" within kSeekedWithinMs. Returns what is wrong, or "".
inline std::string checkPlayback(const Json::Value& play, const Json::Value* seek) {
  std::ostringstream wrong;
  if (!play.get("reached", false).asBool()) {
    wrong << "currentTime stayed at " << play.get("currentTime", -1).asDouble() << " (error "
          << play.get("error", 0).asInt() << " " << play.get("errorMessage", "").asString()
          << "; events " << play.get("events", "").asString() << "); ";
  }
  if (play.get("width", 0).asInt() != 320 || play.get("height", 0).asInt() != 240) {
    wrong << "video size " << play.get("width", 0).asInt() << "x" << play.get("height", 0).asInt()
          << "; ";
  }
  if (seek != nullptr) {
    if (!seek->get("seeked", false).asBool()) {
      wrong << "no seeked event within " << seek->get("seekMs", 0).asDouble() << " ms; ";
    } else if (std::fabs(seek->get("currentTime", -1).asDouble() - 1.5) > 0.3) {
      wrong << "seeked at " << seek->get("currentTime", -1).asDouble() << " s; ";
    } else if (seek->get("seekMs", 0).asDouble() > kSeekedWithinMs) {
      wrong << "seeked came " << seek->get("seekMs", 0).asDouble() << " ms after the seek; ";
    }
  }
  return wrong.str();
}

class WebPlaybackTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("ZVR_LOG_LEVEL", "1000", 1); }

  void TearDown() override {
    if (proxy_) proxy_->stop();
  }

  void startBus(const std::vector<std::string>& options = {}) {
    bus_ = std::make_unique<PrivateBus>(options);
    ASSERT_TRUE(bus_->startEmulator());
  }

  velmora::ZVRMediaProxyManager* manager() { return velmora::ZVRMediaProxyManager::getInstance(); }

  // Creates a proxy through the library, starts `clip` and waits for its local URL.
  std::string startLocalUrl(const std::string& clip) {
    proxy_ = manager()->createNewZVRMediaProxySync();
    if (proxy_->id().empty()) return "";
    proxy_->start("file://" + clipPath(clip), 1);
    eventually([this] { return !proxy_->localURL().empty(); }, std::chrono::seconds(10));
    return proxy_->localURL();
  }

  // The browser's environment: this test's bus, and the element's plugin when built.
  std::map<std::string, std::string> browserEnvironment() const {
    std::map<std::string, std::string> environment;
    if (bus_) {
      environment["ZVR_DBUS_ADDRESS"] = bus_->address();
      environment["DBUS_SESSION_BUS_ADDRESS"] = bus_->address();
    }
    environment["ZVR_LOG_LEVEL"] = "1";
#ifdef ZVR_GST_PLUGIN_DIR
    environment["GST_PLUGIN_PATH"] = ZVR_GST_PLUGIN_DIR;
#endif
    return environment;
  }

  // Runs `pageUrl` in a fresh browser and `check`s it; once more in another fresh browser when
  // that fails. `check` fills the run and returns what went wrong, or "".
  PageRun runPage(Engine engine, const std::string& pageUrl,
                  const std::function<std::string(WebDriver&, PageRun&)>& check) {
    PageRun run;
    bool reapedAll = true;  // over every attempt, the failed one included
    for (int attempt = 1; attempt <= 2; ++attempt) {
      run = PageRun();
      run.attempts = attempt;
      {
        BrowserOptions options;
        options.engine = engine;
        options.environment = browserEnvironment();
        BrowserRunner browser(options);
        std::string error;
        if (!browser.start(&error)) {
          run.failure = error;
        } else {
          try {
            browser.driver().navigate(pageUrl, 30);
            run.failure = check(browser.driver(), run);
          } catch (const WebDriverError& e) {
            run.failure = e.what();
          }
        }
        const std::string log = browser.logTail();
        browser.stop();
        reapedAll = reapedAll && browser.reapedAll();
        run.reapedAll = reapedAll;
        if (!run.failure.empty()) run.failure += "\n--- browser output:\n" + log;
      }
      if (run.failure.empty() || attempt == 2) break;
      const std::string reason = run.failure.substr(0, run.failure.find('\n'));
      std::cout << "[ RETRY    ] " << engineName(engine) << ": the first play failed (" << reason
                << "); retrying once in a fresh browser" << std::endl;
      RecordProperty("retry", reason);
    }
    return run;
  }

  // The usual check: play to 2.0 s, then seek to 1.5 s.
  static std::string playAndSeek(WebDriver& driver, PageRun& run) {
    Json::Value args(Json::arrayValue);
    args.append(2.0);
    args.append(15000);
    run.play = driver.executeAsync(playProbe(), args, 20);
    if (!run.play.get("reached", false).asBool()) return checkPlayback(run.play, nullptr);
    Json::Value seekArgs(Json::arrayValue);
    seekArgs.append(1.5);
    seekArgs.append(5000);
    run.seek = driver.executeAsync(seekProbe(), seekArgs, 10);
    return checkPlayback(run.play, &run.seek);
  }

  void recordRun(const PageRun& run) {
    RecordProperty("attempts", run.attempts);
    if (!run.play.isNull()) RecordProperty("play", toJson(run.play));
    if (!run.seek.isNull()) RecordProperty("seek", toJson(run.seek));
    if (!run.error.isNull()) RecordProperty("error", toJson(run.error));
  }

  // Whether the emulator recorded a "create", then a "start" of a source ending in `clip` and
  // a "stop" for the started proxy; names that proxy in `id`.
  ::testing::AssertionResult createStartStopRecorded(const std::string& clip,
                                                     std::string* id = nullptr) {
    const std::vector<std::vector<std::string>> recorded = bus_->recordedCommands();
    std::string text;
    std::size_t create = recorded.size(), start = recorded.size();
    for (std::size_t i = 0; i < recorded.size(); ++i) {
      const std::vector<std::string>& r = recorded[i];
      if (r.size() < 7) continue;
      text += r[0] + " " + r[3] + " " + r[6] + "\n";
      if (r[0] == "create") create = i;
      if (r[0] == "start" && create < i && r[6].size() >= clip.size() &&
          r[6].compare(r[6].size() - clip.size(), clip.size(), clip) == 0) {
        start = i;
      }
    }
    if (start == recorded.size()) {
      return ::testing::AssertionFailure() << "no create and start of " << clip << " in:\n" << text;
    }
    for (std::size_t i = start + 1; i < recorded.size(); ++i) {
      if (recorded[i][0] == "stop" && recorded[i][3] == recorded[start][3]) {
        if (id != nullptr) *id = recorded[start][3];
        return ::testing::AssertionSuccess();
      }
    }
    return ::testing::AssertionFailure() << "no stop for " << recorded[start][3] << " in:\n"
                                         << text;
  }

  // Waits until the emulator's record holds create, start and stop for `clip`. Each look is a
  // call to the emulator's bus thread, which also answers the player's stop: not too often.
  ::testing::AssertionResult waitCreateStartStop(const std::string& clip, int timeoutMs) {
    eventually([&] { return createStartStopRecorded(clip); }, std::chrono::milliseconds(timeoutMs),
               std::chrono::milliseconds(25));
    return createStartStopRecorded(clip);
  }

  std::unique_ptr<PrivateBus> bus_;
  PageServer pages_;
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy_;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_WEB_WEB_TEST_SUPPORT_H_
