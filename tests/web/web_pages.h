// The page of the web tests, the demo and the benchmark, and the probes that run in it.
//
// The page holds nothing but a muted, autoplaying 320x240 video at its top left corner, on
// black, and records the video's events from the start. Each probe is the body of an
// asynchronous WebDriver script: its last argument is the callback that takes its answer.

#ifndef ZVR_TESTS_WEB_WEB_PAGES_H_
#define ZVR_TESTS_WEB_WEB_PAGES_H_

#include <string>

namespace zvr_test {

inline std::string htmlAttribute(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

// A page with nothing but a muted, autoplaying 320x240 video of `src` at its top left corner,
// on black. window.zvrEvents lists the video's events as {name, at (ms since navigation), t}.
inline std::string videoPage(const std::string& src) {
  return R"(<!DOCTYPE html>
<html><head><meta charset="utf-8"><title>zvr video</title>
<style>html, body { margin: 0; background: #000; overflow: hidden; }
video { display: block; width: 320px; height: 240px; }</style></head>
<body><video id="v" muted autoplay playsinline src=")" +
         htmlAttribute(src) + R"("></video>
<script>
window.zvrEvents = [];
(function () {
  var v = document.getElementById('v');
  ['loadstart', 'loadedmetadata', 'canplay', 'playing', 'seeking', 'seeked', 'stalled',
   'error', 'ended'].forEach(function (name) {
    v.addEventListener(name, function () {
      window.zvrEvents.push({name: name, at: performance.now(), t: v.currentTime});
    });
  });
})();
</script></body></html>
)";
}

// Waits until the video's currentTime reaches `target` seconds, it fails, or `limitMs` pass.
// Answers {reached, currentTime, width, height, error, seekableEnd, elapsedMs, events}.
inline const char* playProbe() {
  return R"(
var target = arguments[0], limit = arguments[1], done = arguments[arguments.length - 1];
var v = document.getElementById('v');
var begin = performance.now();
function answer(reached) {
  var end = v.seekable.length ? v.seekable.end(v.seekable.length - 1) : 0;
  done({reached: reached, currentTime: v.currentTime, width: v.videoWidth,
        height: v.videoHeight, error: v.error ? v.error.code : 0,
        errorMessage: v.error ? String(v.error.message) : '',
        seekableEnd: end, seekableRanges: v.seekable.length,
        elapsedMs: performance.now() - begin,
        events: window.zvrEvents.map(function (e) { return e.name; }).join(',')});
}
var timer = setInterval(function () {
  if (v.currentTime >= target) { clearInterval(timer); answer(true); }
  else if (v.error) { clearInterval(timer); answer(false); }
  else if (performance.now() - begin > limit) { clearInterval(timer); answer(false); }
}, 10);
)";
}

// Seeks to `position` and waits for "seeked" (at most `limitMs`).
// Answers {seeked, currentTime, seekMs}.
inline const char* seekProbe() {
  return R"(
var position = arguments[0], limit = arguments[1], done = arguments[arguments.length - 1];
var v = document.getElementById('v');
var begin = performance.now();
var timer = setTimeout(function () {
  done({seeked: false, currentTime: v.currentTime, seekMs: performance.now() - begin});
}, limit);
v.addEventListener('seeked', function () {
  clearTimeout(timer);
  done({seeked: true, currentTime: v.currentTime, seekMs: performance.now() - begin});
}, {once: true});
v.currentTime = position;
)";
}

// Waits for the video's "error" event, counted from navigation (at most `limitMs` after it).
// Answers {error, errorAtMs, currentTime, events}.
inline const char* errorProbe() {
  return R"(
var limit = arguments[0], done = arguments[arguments.length - 1];
var v = document.getElementById('v');
function found() {
  for (var i = 0; i < window.zvrEvents.length; ++i) {
    if (window.zvrEvents[i].name === 'error') return window.zvrEvents[i];
  }
  return null;
}
var timer = setInterval(function () {
  var e = found();
  if (e || performance.now() > limit) {
    clearInterval(timer);
    done({error: v.error ? v.error.code : 0, errorAtMs: e ? e.at : -1,
          currentTime: v.currentTime,
          events: window.zvrEvents.map(function (x) { return x.name; }).join(',')});
  }
}, 10);
)";
}

// Ends the video's player: the element lets its media go, as when a page drops a video.
inline const char* releaseVideoScript() {
  return R"(
var v = document.getElementById('v');
v.pause();
v.removeAttribute('src');
v.load();
return true;
)";
}

// Waits for the video's "playing" event (at most `limitMs` after navigation).
// Answers {playingAtMs (since navigation, -1 when it did not come), error, events}.
inline const char* playingProbe() {
  return R"(
var limit = arguments[0], done = arguments[arguments.length - 1];
var v = document.getElementById('v');
var timer = setInterval(function () {
  var playing = null;
  for (var i = 0; i < window.zvrEvents.length; ++i) {
    if (window.zvrEvents[i].name === 'playing') { playing = window.zvrEvents[i]; break; }
  }
  if (playing || v.error || performance.now() > limit) {
    clearInterval(timer);
    done({playingAtMs: playing ? playing.at : -1, error: v.error ? v.error.code : 0,
          events: window.zvrEvents.map(function (x) { return x.name; }).join(',')});
  }
}, 5);
)";
}

// The video's rectangle in the viewport's pixels: {x, y, width, height}.
inline const char* videoRectScript() {
  return R"(
var r = document.getElementById('v').getBoundingClientRect();
var scale = window.devicePixelRatio || 1;
return {x: Math.round(r.left * scale), y: Math.round(r.top * scale),
        width: Math.round(r.width * scale), height: Math.round(r.height * scale)};
)";
}

}  // namespace zvr_test

#endif  // ZVR_TESTS_WEB_WEB_PAGES_H_
