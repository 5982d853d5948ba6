// Fuzzes the command builders: the asynchronous requests of the manager singleton and
// setCommandParameter, with arbitrary ids, texts, doubles (NaN, infinities and DBL_MAX included)
// and ints. Every message that reaches the model access must be the command key with exactly 11
// strings: the command word, an empty position 1, a fresh well-formed session id, the texts
// passed through unchanged, numbers exactly as std::snprintf prints them into a buffer large
// enough for any double, and empty strings everywhere else.
//
// Input: a sequence of at most 32 operations, each an operation byte followed by its arguments.
// A text is a 2-byte little-endian length and that many bytes (fewer at the end of the input);
// a double is 8 raw bytes, an int 4 raw bytes, both little-endian; missing bytes read as zero.
//   op % 6 == 0  start     id, url, mode (int)
//   op % 6 == 1  stop      id
//   op % 6 == 2  seek      id, position (double), text
//   op % 6 == 3  preload   id, position (double), text1, text2, text3
//   op % 6 == 4  inspect
//   op % 6 == 5  setCommandParameter on a list of (byte % 16) distinct strings, at a position
//                (one byte; 0xFF means a 4-byte position follows), with a text
// The first input also runs a fixed sweep of seek positions (NaN, infinities, the extremes).
//
// Logging is switched off here for speed (enableOnly({})); the other harnesses keep it on. The
// capturing log still records every level check, and the recorder every message, so both are
// cleared for every operation.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "zvr_media_proxy_manager.h"

namespace {

using velmora::ZVRMediaProxyManager;
using Message = std::vector<std::string>;

constexpr std::size_t kPositions = 11;
constexpr std::size_t kMaxOperations = 32;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "zvr_fuzz_command_builders: %s\n", what);
  std::abort();
}

void require(bool condition, const char* what) {
  if (!condition) fail(what);
}

// Reads the input front to back; past its end everything reads as zero.
class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool done() const { return offset_ >= size_; }

  std::uint8_t byte() { return offset_ < size_ ? data_[offset_++] : 0; }

  std::uint32_t u32() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value |= static_cast<std::uint32_t>(byte()) << (8 * i);
    return value;
  }

  double f64() {
    std::uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) bits |= static_cast<std::uint64_t>(byte()) << (8 * i);
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }

  std::string text() {
    std::size_t length = byte();
    length |= static_cast<std::size_t>(byte()) << 8;
    if (length > size_ - std::min(offset_, size_)) length = size_ - std::min(offset_, size_);
    std::string value(reinterpret_cast<const char*>(data_ + offset_), length);
    offset_ += length;
    return value;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t offset_ = 0;
};

// What "%f" and "%d" give, formatted into a buffer far larger than any double needs.
std::string referenceDouble(double value) {
  std::vector<char> buffer(2048);
  const int n = std::snprintf(buffer.data(), buffer.size(), "%f", value);
  require(n > 0 && static_cast<std::size_t>(n) < buffer.size(), "reference buffer too small");
  return std::string(buffer.data(), static_cast<std::size_t>(n));
}

std::string referenceInt(int value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%d", value);
  return buffer;
}

bool isUpperHex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

// "ses-" and an upper-case UUID text in groups 8-4-4-16.
bool isSessionId(const std::string& text) {
  static const char kShape[] = "ses-XXXXXXXX-XXXX-XXXX-XXXXXXXXXXXXXXXX";
  if (text.size() != sizeof kShape - 1) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (kShape[i] == 'X' ? !isUpperHex(text[i]) : text[i] != kShape[i]) return false;
  }
  return true;
}

// A "%f" text: optional minus, digits, the point and six digits, and it prints back the same.
bool isTimestamp(const std::string& text) {
  std::size_t i = text.compare(0, 1, "-") == 0 ? 1 : 0;
  const std::size_t point = text.find('.');
  if (point == std::string::npos || point == i || text.size() != point + 7) return false;
  for (std::size_t k = i; k < text.size(); ++k) {
    if (k != point && (text[k] < '0' || text[k] > '9')) return false;
  }
  return referenceDouble(std::strtod(text.c_str(), nullptr)) == text;
}

class Harness {
 public:
  Harness() {
    zvr_test::CapturedLog::instance().enableOnly({});
    manager_ = ZVRMediaProxyManager::getInstance();
    sweepSpecialPositions();
  }

  void run(const std::uint8_t* data, std::size_t size) {
    Reader in(data, size);
    for (std::size_t n = 0; n < kMaxOperations && !in.done(); ++n) operation(in);
  }

 private:
  void operation(Reader& in) {
    clear();
    switch (in.byte() % 6) {
      case 0: {
        const std::string id = in.text();
        const std::string url = in.text();
        const int mode = static_cast<int>(in.u32());
        manager_->requestRemoteObjectStart(id, url, mode);
        expectCommand("start", id, nullptr, url, "", "", referenceInt(mode));
        break;
      }
      case 1: {
        const std::string id = in.text();
        manager_->requestRemoteObjectStop(id);
        expectCommand("stop", id, nullptr, "", "", "", "");
        break;
      }
      case 2: {
        const std::string id = in.text();
        const double position = in.f64();
        const std::string text = in.text();
        seek(id, position, text);
        break;
      }
      case 3: {
        const std::string id = in.text();
        const double position = in.f64();
        const std::string text1 = in.text();
        const std::string text2 = in.text();
        const std::string text3 = in.text();
        manager_->requestRemoteObjectPreload(id, position, text1, text2, text3);
        const std::string positionText = referenceDouble(position);
        expectCommand("preload", id, &positionText, text1, text2, text3, "");
        break;
      }
      case 4:
        manager_->requestRemoteObjectInspect();
        expectInspect();
        break;
      default:
        setParameter(in);
        break;
    }
  }

  void seek(const std::string& id, double position, const std::string& text) {
    manager_->requestRemoteObjectSeek(id, position, text);
    const std::string positionText = referenceDouble(position);
    expectCommand("seek", id, &positionText, text, "", "", "");
  }

  void sweepSpecialPositions() {
    const double values[] = {0.0,
                             -0.0,
                             12.5,
                             -3.0,
                             std::numeric_limits<double>::quiet_NaN(),
                             -std::numeric_limits<double>::quiet_NaN(),
                             std::numeric_limits<double>::infinity(),
                             -std::numeric_limits<double>::infinity(),
                             DBL_MAX,
                             -DBL_MAX,
                             DBL_MIN,
                             std::numeric_limits<double>::denorm_min(),
                             1e300,
                             -1e-300};
    for (double value : values) {
      clear();
      seek("id-1", value, "sweep");
    }
    clear();
  }

  void setParameter(Reader& in) {
    const std::size_t initial = in.byte() % 16;
    std::uint32_t position = in.byte();
    if (position == 0xFF) position = in.u32();
    const std::string text = in.text();

    std::vector<std::string> list;
    for (std::size_t i = 0; i < initial; ++i) list.push_back("v" + std::to_string(i));
    std::vector<std::string> expected =
        initial < kPositions ? std::vector<std::string>(kPositions) : list;
    if (position < expected.size()) expected[position] = text;

    ZVRMediaProxyManager::setCommandParameter(list, position, text);
    require(list == expected, "setCommandParameter built another list");
    require(zvr_test::ModelAccessRecorder::instance().calls().empty(),
            "setCommandParameter sent something");
  }

  // The one message of the operation, with everything but the session id and the timestamp.
  const Message& takeMessage() {
    const std::vector<zvr_test::AccessCall> calls =
        zvr_test::ModelAccessRecorder::instance().calls();
    require(calls.size() == 1, "expected exactly one message");
    require(calls[0].key == zvr_test::kCommandKey, "message under another key");
    message_ = calls[0].values;
    require(message_.size() == kPositions, "message does not hold 11 strings");
    require(message_[1].empty() && message_[10].empty(), "unused position filled");
    require(isSessionId(message_[2]), "malformed session id");
    require(message_[2] != lastSessionId_, "session id repeated");
    lastSessionId_ = message_[2];
    return message_;
  }

  void expectCommand(const char* word, const std::string& id, const std::string* position,
                     const std::string& text1, const std::string& text2, const std::string& text3,
                     const std::string& integer) {
    const Message& m = takeMessage();
    require(m[0] == word, "wrong command word");
    require(m[3] == id, "object id not passed through");
    require(isTimestamp(m[4]), "malformed timestamp");
    require(m[5] == (position != nullptr ? *position : std::string()), "position text differs");
    require(m[6] == text1, "first text not passed through");
    require(m[7] == text2, "second text not passed through");
    require(m[8] == text3, "third text not passed through");
    require(m[9] == integer, "integer text differs");
  }

  void expectInspect() {
    const Message& m = takeMessage();
    require(m[0] == "inspect", "wrong command word");
    for (std::size_t i : {3, 4, 5, 6, 7, 8, 9}) require(m[i].empty(), "inspect fills a position");
  }

  static void clear() {
    zvr_test::ModelAccessRecorder::instance().clearCalls();
    zvr_test::CapturedLog::instance().clear();
  }

  ZVRMediaProxyManager* manager_ = nullptr;
  Message message_;
  std::string lastSessionId_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Harness* const harness = new Harness;  // never destroyed, like the singleton
  harness->run(data, size);
  return 0;
}
