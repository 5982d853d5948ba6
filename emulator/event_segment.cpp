#include "event_segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace zvr_emulator {

namespace {
const char kName[] = "/ZVR_PROXY";
}

EventSegment::EventSegment() {
  const int fd = shm_open(kName, O_RDWR | O_CREAT, 0666);
  if (fd < 0) throw std::runtime_error("cannot open /ZVR_PROXY");
  if (ftruncate(fd, kSize) != 0) {
    close(fd);
    throw std::runtime_error("cannot size /ZVR_PROXY");
  }
  void* address = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (address == MAP_FAILED) throw std::runtime_error("cannot map /ZVR_PROXY");
  memory_ = static_cast<char*>(address);
}

EventSegment::~EventSegment() { munmap(memory_, kSize); }

std::string EventSegment::json(const std::vector<std::string>& record) {
  std::string text = "{";
  for (std::size_t i = 0; i < record.size(); ++i) {
    if (i != 0) text += ",";
    text += "\"" + std::to_string(i) + "\":\"";
    for (unsigned char c : record[i]) {
      if (c == '"' || c == '\\') {
        text += '\\';
        text += static_cast<char>(c);
      } else if (c < 0x20) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
        text += escaped;
      } else {
        text += static_cast<char>(c);
      }
    }
    text += "\"";
  }
  return text + "}";
}

void EventSegment::write(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::size_t length = text.size() < kSize ? text.size() : kSize - 1;
  std::memcpy(memory_, text.data(), length);
  memory_[length] = '\0';
}

void EventSegment::writeRecord(const std::vector<std::string>& record) { write(json(record)); }

void EventSegment::writeMalformed() { write("{\"0\":\"created\",\"1\":"); }

void EventSegment::writeWithoutTerminator() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::memset(memory_, '{', kSize);
}

void EventSegment::removeName() { shm_unlink(kName); }

}  // namespace zvr_emulator
