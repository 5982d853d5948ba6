// Plays the media service's side of "/ZVR_PROXY": creates the 4096-byte segment and writes
// event text into it. The segment is removed when the writer goes. Tests that use it hold the
// shared-memory resource lock.

#ifndef ZVR_TESTS_SUPPORT_SHM_WRITER_H_
#define ZVR_TESTS_SUPPORT_SHM_WRITER_H_

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace zvr_test {

class ShmWriter {
 public:
  static constexpr std::size_t kSize = 4096;
  static constexpr const char* kName = "/ZVR_PROXY";

  ShmWriter() {
    shm_unlink(kName);
    const int fd = shm_open(kName, O_RDWR | O_CREAT, 0666);
    if (fd < 0) throw std::runtime_error("shm_open failed");
    if (ftruncate(fd, kSize) != 0) {
      close(fd);
      throw std::runtime_error("ftruncate failed");
    }
    void* address = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (address == MAP_FAILED) throw std::runtime_error("mmap failed");
    memory_ = static_cast<char*>(address);
  }
  ~ShmWriter() {
    munmap(memory_, kSize);
    shm_unlink(kName);
  }
  ShmWriter(const ShmWriter&) = delete;
  ShmWriter& operator=(const ShmWriter&) = delete;

  static bool exists() {
    const int fd = shm_open(kName, O_RDONLY, 0);
    if (fd < 0) return false;
    close(fd);
    return true;
  }
  static void remove() { shm_unlink(kName); }
  // Resizes the segment behind the name, as a service that recreates it with O_TRUNC does.
  static void truncate(off_t size) {
    const int fd = shm_open(kName, O_RDWR, 0);
    if (fd < 0) throw std::runtime_error("shm_open failed");
    const int result = ftruncate(fd, size);
    close(fd);
    if (result != 0) throw std::runtime_error("ftruncate failed");
  }

  // Writes `text` and a zero byte; `text` must be shorter than the segment.
  void writeText(const std::string& text) {
    if (text.size() >= kSize) throw std::length_error("event text too long");
    std::memcpy(memory_, text.data(), text.size());
    memory_[text.size()] = '\0';
  }
  // Fills all 4096 bytes, with no zero byte anywhere.
  void writeWithoutTerminator(char fill) { std::memset(memory_, fill, kSize); }

  // Writes a record as the service does: members "0".."n-1" holding the texts.
  void writeRecord(const std::vector<std::string>& record) { writeText(json(record)); }

  static std::string json(const std::vector<std::string>& record) {
    std::string text = "{";
    for (std::size_t i = 0; i < record.size(); ++i) {
      if (i != 0) text += ",";
      text += "\"" + std::to_string(i) + "\":\"" + escape(record[i]) + "\"";
    }
    return text + "}";
  }

 private:
  static std::string escape(const std::string& value) {
    std::string out;
    for (char c : value) {
      if (c == '"' || c == '\\') out += '\\';
      out += c;
    }
    return out;
  }

  char* memory_ = nullptr;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_SUPPORT_SHM_WRITER_H_
