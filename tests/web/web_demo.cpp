// zvr_web_demo --clip=FILE --plugin-dir=DIR --out=PNG
//
// WPE WebKit plays FILE through <video src="zvr+file://FILE"> on the media service of the bus
// in ZVR_DBUS_ADDRESS, with the zvrsrc element found in DIR. Once the video has played a second,
// a WebDriver screenshot of the page is saved as PNG. The screenshot is decoded again (with
// GStreamer's pngdec) and the video's rectangle in it must not be blank: the page draws nothing
// else, on black, so a blank rectangle would be one colour.
//
// Exits 0 when the video played and its rectangle shows a picture; prints what it measured.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <string>

#include "browser_runner.h"
#include "web_pages.h"
#include "webdriver.h"

namespace {

struct Picture {
  int width = 0;
  int height = 0;
  std::string rgbx;  // 4 bytes a pixel, rows without padding
};

// Decodes a PNG file into RGBx pixels with GStreamer; false when it cannot.
bool decodePng(const std::string& path, Picture* picture, std::string* error) {
  gchar* location = g_strescape(path.c_str(), nullptr);
  const std::string description = std::string("filesrc location=\"") + location +
                                  "\" ! pngdec ! videoconvert ! video/x-raw,format=RGBx "
                                  "! appsink name=sink sync=false";
  g_free(location);
  GError* parseError = nullptr;
  GstElement* pipeline = gst_parse_launch(description.c_str(), &parseError);
  if (pipeline == nullptr) {
    *error = parseError != nullptr ? parseError->message : "no pipeline";
    g_clear_error(&parseError);
    return false;
  }
  g_clear_error(&parseError);
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 10 * GST_SECOND);
  bool decoded = false;
  if (sample == nullptr) {
    *error = "pngdec gave no picture";
  } else {
    const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
    gst_structure_get_int(caps, "width", &picture->width);
    gst_structure_get_int(caps, "height", &picture->height);
    GstMapInfo map;
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
      const std::size_t expected = static_cast<std::size_t>(picture->width) * picture->height * 4;
      if (map.size >= expected) {
        picture->rgbx.assign(reinterpret_cast<const char*>(map.data), expected);
        decoded = true;
      } else {
        *error = "the decoded picture is smaller than its size says";
      }
      gst_buffer_unmap(buffer, &map);
    }
    gst_sample_unref(sample);
  }
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
  return decoded;
}

struct Blankness {
  std::size_t colours = 0;  // distinct colours, counted to 4 bits a channel
  double deviation = 0;     // standard deviation of the luma, 0..255
};

Blankness measure(const Picture& picture, int x0, int y0, int width, int height) {
  std::set<int> colours;
  double sum = 0, squares = 0;
  std::size_t count = 0;
  for (int y = std::max(0, y0); y < std::min(picture.height, y0 + height); ++y) {
    for (int x = std::max(0, x0); x < std::min(picture.width, x0 + width); ++x) {
      const auto* p = reinterpret_cast<const unsigned char*>(picture.rgbx.data()) +
                      (static_cast<std::size_t>(y) * picture.width + x) * 4;
      colours.insert(((p[0] >> 4) << 8) | ((p[1] >> 4) << 4) | (p[2] >> 4));
      const double luma = 0.299 * p[0] + 0.587 * p[1] + 0.114 * p[2];
      sum += luma;
      squares += luma * luma;
      ++count;
    }
  }
  Blankness b;
  b.colours = colours.size();
  if (count > 0) {
    const double mean = sum / count;
    b.deviation = std::sqrt(std::max(0.0, squares / count - mean * mean));
  }
  return b;
}

std::string option(int argc, char** argv, const std::string& name) {
  const std::string prefix = "--" + name + "=";
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.compare(0, prefix.size(), prefix) == 0) return argument.substr(prefix.size());
  }
  return "";
}

int run(const std::string& clip, const std::string& pluginDir, const std::string& out) {
  zvr_test::BrowserOptions options;
  options.engine = zvr_test::Engine::kWpe;
  options.environment["GST_PLUGIN_PATH"] = pluginDir;
  // The browser's processes reach no session bus but the demo's private one.
  if (const char* bus = getenv("ZVR_DBUS_ADDRESS")) {
    options.environment["DBUS_SESSION_BUS_ADDRESS"] = bus;
  }
  zvr_test::BrowserRunner browser(options);
  const std::string page = browser.folder() + "/page.html";
  std::ofstream(page) << zvr_test::videoPage("zvr+file://" + clip);
  std::string error;
  if (!browser.start(&error)) {
    std::cerr << "web demo: " << error << "\n";
    return 1;
  }
  zvr_test::WebDriver& driver = browser.driver();
  driver.navigate("file://" + page);
  Json::Value args(Json::arrayValue);
  args.append(1.0);
  args.append(15000);
  const Json::Value played = driver.executeAsync(zvr_test::playProbe(), args, 20);
  std::cout << "web demo: WPE WebKit played zvr+file://" << clip << " to "
            << played["currentTime"].asDouble() << " s at " << played["width"].asInt() << "x"
            << played["height"].asInt() << " (events " << played["events"].asString() << ")\n";
  if (!played["reached"].asBool()) {
    std::cerr << "web demo: the video did not play: " << zvr_test::toJson(played) << "\n"
              << browser.logTail() << "\n";
    return 1;
  }
  const Json::Value rect = driver.executeSync(zvr_test::videoRectScript());
  const std::string png = driver.screenshotPng();
  const Json::Value after = driver.executeSync(
      "var v = document.getElementById('v'); return {t: v.currentTime, paused: v.paused};");
  browser.stop();
  std::ofstream(out, std::ios::binary) << png;
  std::cout << "web demo: screenshot of the playing video (at " << after["t"].asDouble() << " s, "
            << (after["paused"].asBool() ? "paused" : "playing") << ") saved as " << out << "\n";

  Picture picture;
  if (!decodePng(out, &picture, &error)) {
    std::cerr << "web demo: cannot decode the screenshot: " << error << "\n";
    return 1;
  }
  const int x = rect["x"].asInt(), y = rect["y"].asInt();
  const int width = rect["width"].asInt(), height = rect["height"].asInt();
  const Blankness video = measure(picture, x, y, width, height);
  const Blankness rest = measure(picture, x + width, 0, picture.width, picture.height);
  std::cout << "web demo: screenshot " << picture.width << "x" << picture.height
            << "; the video's rectangle " << width << "x" << height << " at " << x << "," << y
            << " holds " << video.colours << " colours, luma deviation " << video.deviation
            << "; the page beside it " << rest.colours << " colour(s)\n";
  // A blank rectangle is one colour; colour bars with a moving pattern are dozens.
  if (width <= 0 || height <= 0 || video.colours < 8 || video.deviation < 10) {
    std::cerr << "web demo: the video's rectangle is blank\n";
    return 1;
  }
  std::cout << "web demo: the video's rectangle is not blank\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string clip = option(argc, argv, "clip");
  const std::string pluginDir = option(argc, argv, "plugin-dir");
  const std::string out = option(argc, argv, "out");
  if (clip.empty() || pluginDir.empty() || out.empty()) {
    std::cerr << "usage: " << argv[0] << " --clip=FILE --plugin-dir=DIR --out=PNG\n";
    return 2;
  }
  gst_init(&argc, &argv);
  try {
    return run(clip, pluginDir, out);
  } catch (const std::exception& e) {
    std::cerr << "web demo: " << e.what() << "\n";
    return 1;
  }
}
