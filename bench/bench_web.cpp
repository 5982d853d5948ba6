// Web: what playing through the element costs a page in WPE WebKit.
//
// One WPE WebKit (cog, headless) plays the same page over and over, its <video> pointed either
// at zvr+file://CLIP, where the zvrsrc element creates and starts a proxy of the media service
// and plays its local URL, or straight at a local URL that this program started through the
// library beforehand. Measured: the time from navigation to the video's "playing" event, read
// in the page (performance.now() counts from navigation). One warm-up run of each comes first;
// then --runs runs of each (default 10), alternating. Between runs the browser goes to
// about:blank, which lets the previous player go.
//
//   zvr_bench_web [--runs=N] [--out=FILE]
//
// FILE receives the figure as a row of the benchmark table: the medians, zvr+file:// as the
// library and the direct URL as the baseline. The emulator writes "/ZVR_PROXY", so the run holds
// the machine-wide segment lock.

#include <json/json.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "browser_runner.h"
#include "private_bus.h"
#include "segment_lock.h"
#include "web_pages.h"
#include "webdriver.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double> values) {
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string ms(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", value);
  return text;
}

// Navigates to `page` and answers the ms from navigation to "playing", or -1.
double playingAfter(zvr_test::WebDriver& driver, const std::string& page, std::string* events) {
  driver.navigate("about:blank");
  driver.navigate(page);
  Json::Value args(Json::arrayValue);
  args.append(15000);
  const Json::Value answer = driver.executeAsync(zvr_test::playingProbe(), args, 20);
  *events = answer["events"].asString();
  return answer["playingAtMs"].asDouble();
}

int run(int runs, const std::string& out) {
  zvr_bench::SegmentLock lock;
  zvr_test::PrivateBus bus;
  if (!bus.startEmulator()) {
    std::fprintf(stderr, "zvr_bench_web: the emulator did not start\n");
    return 1;
  }
  // The direct local URL: a proxy started through the library, kept for every run.
  std::shared_ptr<velmora::ZVRMediaProxyObject> proxy =
      velmora::ZVRMediaProxyManager::getInstance()->createNewZVRMediaProxySync();
  proxy->start(std::string("file://") + ZVR_BENCH_MEDIA_FILE, 1);
  const Clock::time_point giveUp = Clock::now() + std::chrono::seconds(10);
  while (proxy->localURL().empty() && Clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (proxy->localURL().empty()) {
    std::fprintf(stderr, "zvr_bench_web: no local URL\n");
    return 1;
  }

  zvr_test::BrowserOptions options;
  options.engine = zvr_test::Engine::kWpe;
  options.environment["GST_PLUGIN_PATH"] = ZVR_GST_PLUGIN_DIR;
  options.environment["ZVR_DBUS_ADDRESS"] = bus.address();
  options.environment["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
  zvr_test::BrowserRunner browser(options);
  std::string error;
  if (!browser.start(&error)) {
    std::fprintf(stderr, "zvr_bench_web: %s\n", error.c_str());
    return 1;
  }
  const std::string folder = browser.folder();
  const std::string zvrPage = "file://" + folder + "/zvr.html";
  const std::string directPage = "file://" + folder + "/direct.html";
  std::ofstream(folder + "/zvr.html")
      << zvr_test::videoPage(std::string("zvr+file://") + ZVR_BENCH_MEDIA_FILE);
  std::ofstream(folder + "/direct.html") << zvr_test::videoPage(proxy->localURL());

  std::vector<double> zvr, direct;
  int failures = 0;
  std::string events;
  for (int i = -1; i < runs; ++i) {  // run -1 of each is the warm-up
    for (int kind = 0; kind < 2; ++kind) {
      const double at = playingAfter(browser.driver(), kind == 0 ? zvrPage : directPage, &events);
      std::fprintf(stderr, "%s run %d: %.1f ms (%s)\n", kind == 0 ? "zvr+file" : "direct", i, at,
                   events.c_str());
      if (i < 0) continue;
      if (at < 0) {
        ++failures;
      } else {
        (kind == 0 ? zvr : direct).push_back(at);
      }
    }
  }
  browser.driver().navigate("about:blank");
  browser.stop();
  proxy->stop();

  // What the element waits for before its player can read anything, measured here through the
  // library: a creation, a start and the local URL.
  std::vector<double> service;
  for (int i = 0; i < runs; ++i) {
    const Clock::time_point begin = Clock::now();
    std::shared_ptr<velmora::ZVRMediaProxyObject> p =
        velmora::ZVRMediaProxyManager::getInstance()->createNewZVRMediaProxySync();
    p->start(std::string("file://") + ZVR_BENCH_MEDIA_FILE, 1);
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(5);
    while (p->localURL().empty() && Clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    if (!p->localURL().empty()) {
      service.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    p->stop();
  }

  const double a = median(zvr), b = median(direct);
  Json::Value values;
  values["zvr_file_median_ms"] = a;
  values["direct_median_ms"] = b;
  values["runs"] = runs;
  values["failures"] = failures;
  values["browsers_reaped"] = browser.reapedAll();
  values["library_create_start_url_median_ms"] = median(service);
  for (double v : zvr) values["zvr_file_ms"].append(v);
  for (double v : direct) values["direct_ms"].append(v);
  Json::Value row;
  row["figure"] = "web: WPE WebKit, navigation -> \"playing\", zvr+file:// vs the direct local URL";
  row["library"] = zvr.empty() ? "failed" : ms(a);
  row["baseline"] = direct.empty() ? "failed" : ms(b);
  row["ratio"] = zvr.empty() || direct.empty() || b <= 0 ? Json::Value() : Json::Value(a / b);
  row["note"] = "goal: at most 1.10; median of " + std::to_string(runs) +
                " alternating runs each after one warm-up; zvr+file includes creating and "
                "starting the proxy (through the library here: " +
                (service.empty() ? std::string("failed") : ms(median(service))) + ")" +
                (failures ? "; " + std::to_string(failures) + " failed" : std::string());
  row["kind"] = "ratio";
  row["values"] = values;
  Json::Value rows;
  rows["rows"].append(row);
  std::printf(
      "zvr+file:// median %.1f ms, direct local URL median %.1f ms, ratio %.3f; creation, "
      "start and local URL through the library %.1f ms\n",
      a, b, b > 0 ? a / b : 0.0, median(service));
  if (!out.empty()) std::ofstream(out) << zvr_test::toJson(rows) << "\n";
  return zvr.size() == static_cast<std::size_t>(runs) &&
                 direct.size() == static_cast<std::size_t>(runs)
             ? 0
             : 1;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 10;
  std::string out;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.compare(0, 7, "--runs=") == 0) runs = std::max(1, std::atoi(argument.c_str() + 7));
    if (argument.compare(0, 6, "--out=") == 0) out = argument.substr(6);
  }
  if (std::getenv("ZVR_LOG_LEVEL") == nullptr) setenv("ZVR_LOG_LEVEL", "0", 1);
  try {
    return run(runs, out);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zvr_bench_web: %s\n", e.what());
    return 1;
  }
}
