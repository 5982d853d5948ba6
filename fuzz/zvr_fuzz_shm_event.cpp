// Fuzzes the shared-memory event buffer: whatever the service leaves in "/ZVR_PROXY" must come
// back from readZVREventMemory() as an empty record or as exactly 11 positions, and from
// readZVREvent() as that record or, when it is empty, as the model-access event value.
//
// Input: the segment's content.
//   - First byte 0xFF: the remaining bytes (at most 4096) are written without any zero byte
//     (zero bytes become blanks) and the rest of the segment is filled with blanks, so the
//     segment holds 4096 bytes and no terminator at all. A well-formed record can still end
//     there, padded with blanks.
//   - Anything else: the input (at most 4095 bytes) is written as it is, followed by a zero
//     byte. Zero bytes inside the input end the text early, as they would for the service.
//
// Oracle: the same text parsed by JsonCpp here, unless it is nested more than 64 levels deep,
// which the library refuses before parsing. The record is empty exactly when the text does not
// parse or is refused; otherwise position n holds member "n" (strings as they are, numbers and
// booleans in JsonCpp's text form, "" for null, objects and arrays). The "buf: " log line must show
// exactly the text up to the first zero byte or the whole 4096 bytes, never more.
//
// This harness creates, writes and at exit removes "/ZVR_PROXY": never run it beside anything
// else that uses the segment (CTest holds the zvr_proxy_shared_memory lock, scripts/fuzz a
// flock). Logging is fully on here, so the library's log formatting sees every text; the
// capturing log keeps each line, so it is cleared after every input.

#include <fcntl.h>
#include <json/json.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "capturing_log.h"
#include "recording_model_access.h"
#include "zvr_json_nesting.h"
#include "zvr_media_proxy_manager.h"

namespace {

using Record = std::vector<std::string>;

constexpr std::size_t kSegmentSize = 4096;
constexpr char kSegmentName[] = "/ZVR_PROXY";
constexpr std::uint8_t kNoTerminator = 0xFF;
constexpr std::size_t kPositions = 11;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "zvr_fuzz_shm_event: %s\n", what);
  std::abort();
}

// The service's side of the segment: created once, removed at exit.
class Segment {
 public:
  Segment() {
    shm_unlink(kSegmentName);
    const int fd = shm_open(kSegmentName, O_RDWR | O_CREAT, 0666);
    if (fd < 0) fail("cannot create the segment");
    if (ftruncate(fd, kSegmentSize) != 0) fail("cannot size the segment");
    void* address = mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (address == MAP_FAILED) fail("cannot map the segment");
    memory_ = static_cast<char*>(address);
  }
  ~Segment() {
    munmap(memory_, kSegmentSize);
    shm_unlink(kSegmentName);
  }
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  char* memory() { return memory_; }

 private:
  char* memory_ = nullptr;
};

// The record position that member `value` must give.
std::string expectedText(const Json::Value& value) {
  if (value.isNull() || value.isObject() || value.isArray()) return std::string();
  return value.asString();
}

struct Harness {
  Harness() {
    zvr_test::CapturedLog::instance().enableAll();
    // What readZVREvent falls back to: the reset record, as initializeZVREvent leaves it.
    fallback.assign(9, std::string());
    fallback[0] = "unknown";
    zvr_test::ModelAccessRecorder::instance().setValue(zvr_test::kEventKey, fallback);
    manager = velmora::ZVRMediaProxyManager::getInstance();
    // One mapping for the whole run: every call would add one, and they are never unmapped.
    if (manager->checkZVREventMemory() != 0) fail("checkZVREventMemory failed");
  }

  Segment segment;
  Record fallback;
  velmora::ZVRMediaProxyManager* manager = nullptr;
};

// Writes the input into the segment and returns the text that the library must read.
std::string writeSegment(char* memory, const std::uint8_t* data, std::size_t size) {
  if (size > 0 && data[0] == kNoTerminator) {
    std::memset(memory, ' ', kSegmentSize);
    const std::size_t n = std::min(size - 1, kSegmentSize);
    for (std::size_t i = 0; i < n; ++i) memory[i] = data[1 + i] != 0 ? char(data[1 + i]) : ' ';
    return std::string(memory, kSegmentSize);
  }
  const std::size_t n = std::min(size, kSegmentSize - 1);
  if (n > 0) std::memcpy(memory, data, n);
  memory[n] = '\0';
  return std::string(memory, strnlen(memory, kSegmentSize));
}

void checkRecord(const std::string& text, const Record& record) {
  if (!record.empty() && record.size() != kPositions) fail("record is neither empty nor 11 long");

  // Text nested deeper than a record can be is refused before parsing; the harness's own parse
  // applies the same bound (it runs on the fuzzer's main thread, whose stack would survive it,
  // but the library must refuse such text on any thread).
  Json::Value root;
  bool parsed = false;
  if (velmora::jsonNestingWithin(text)) {
    try {
      Json::Reader reader;
      parsed = reader.parse(text, root, true);
    } catch (const std::exception&) {
      parsed = false;
    }
  }
  if (parsed != !record.empty()) fail("record does not match the parse result");
  if (!parsed) return;
  for (std::size_t n = 0; n < kPositions; ++n) {
    std::string expected;
    if (root.isObject()) {
      const std::string name = std::to_string(n);
      if (root.isMember(name)) {
        try {
          expected = expectedText(root[name]);
        } catch (const std::exception&) {
          expected.clear();
        }
      }
    }
    if (record[n] != expected) fail("record position differs from the JSON member");
  }
}

void checkBufferLine(const std::string& text) {
  const std::string expected = "buf: " + text + "\n";
  int seen = 0;
  for (const std::string& message : zvr_test::CapturedLog::instance().messages()) {
    if (message.compare(0, 5, "buf: ") != 0) continue;
    if (message != expected) fail("buf line shows other text than the segment's");
    ++seen;
  }
  // Once from readZVREventMemory, once from readZVREvent.
  if (seen != 2) fail("expected two buf lines");
}

}  // namespace

// ASan keeps every distinct allocation stack for the life of the process. The system's JsonCpp is
// built without frame pointers, so the fast unwinder walks from its frames into stack garbage and
// nearly every parse adds new "distinct" stacks: the process grew by about 1.4 KB per input and
// ran into the RSS limit within minutes. Two frames (the allocator and its direct caller) keep
// that bounded. For a report with full allocation stacks, run the reproducer with
// ASAN_OPTIONS=malloc_context_size=30 (the environment overrides this default).
extern "C" const char* __asan_default_options() { return "malloc_context_size=2"; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Destroyed at exit, which removes the segment; the manager is never destroyed.
  static Harness harness;

  zvr_test::CapturedLog::instance().clear();
  const std::string text = writeSegment(harness.segment.memory(), data, size);

  const Record record = harness.manager->readZVREventMemory();
  checkRecord(text, record);

  // The segment did not change, so the second read gives the same record; an empty one makes
  // readZVREvent fall back to the model-access event value.
  const Record event = harness.manager->readZVREvent();
  if (!record.empty() ? event != record : event != harness.fallback) {
    fail("readZVREvent differs from readZVREventMemory and the fallback");
  }

  checkBufferLine(text);
  zvr_test::CapturedLog::instance().clear();
  return 0;
}
