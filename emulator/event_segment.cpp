#include "event_segment.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace zvr_emulator {

namespace {

const char kName[] = "/ZVR_PROXY";
constexpr mode_t kMode = 0660;

gid_t groupId(const std::string& name) {
  long bufferSize = sysconf(_SC_GETGR_R_SIZE_MAX);
  std::vector<char> buffer(bufferSize > 0 ? static_cast<std::size_t>(bufferSize) : 16384);
  group entry{};
  group* found = nullptr;
  int error = 0;
  while ((error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) ==
         ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) throw std::runtime_error("no group named " + name);
  return found->gr_gid;
}

}  // namespace

EventSegment::EventSegment(const std::string& group) {
  const gid_t gid = group.empty() ? static_cast<gid_t>(-1) : groupId(group);
  const int fd = shm_open(kName, O_RDWR | O_CREAT, kMode);
  if (fd < 0) throw std::runtime_error("cannot open /ZVR_PROXY");
  const auto fail = [fd](const std::string& what) {
    const std::string reason = what + ": " + std::strerror(errno);
    close(fd);
    throw std::runtime_error(reason);
  };
  // Sized first: a host that maps a segment shorter than the mapping faults on reading it.
  if (ftruncate(fd, kSize) != 0) fail("cannot size /ZVR_PROXY");
  // The mode given to shm_open is reduced by the umask and does not apply to a segment that
  // already exists.
  if (fchmod(fd, kMode) != 0) fail("cannot set the mode of /ZVR_PROXY");
  if (!group.empty() && fchown(fd, static_cast<uid_t>(-1), gid) != 0) {
    fail("cannot give /ZVR_PROXY the group " + group);
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
