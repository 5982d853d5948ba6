// The emulator's side of "/ZVR_PROXY": it creates the segment (or reuses the one a previous run
// left), and writes each event's zero-terminated JSON into it. The segment is never removed on
// exit, so clients that mapped it keep a valid mapping across a restart.
//
// Whoever can write the segment can forge events for the host, so it is made readable and
// writable by its owner and one group only (mode 0660, set explicitly whatever the umask and
// whatever mode a segment left behind had), and given the group shared with the host when one
// is named.

#ifndef ZVR_EMULATOR_EVENT_SEGMENT_H_
#define ZVR_EMULATOR_EVENT_SEGMENT_H_

#include <mutex>
#include <string>
#include <vector>

namespace zvr_emulator {

class EventSegment {
 public:
  static constexpr std::size_t kSize = 4096;

  // Opens or creates the segment, sets its mode and, when `group` is not empty, its group;
  // throws std::runtime_error when it cannot.
  explicit EventSegment(const std::string& group = std::string());
  ~EventSegment();
  EventSegment(const EventSegment&) = delete;
  EventSegment& operator=(const EventSegment&) = delete;

  // The JSON text of a record: members "0".."n-1".
  static std::string json(const std::vector<std::string>& record);

  void writeRecord(const std::vector<std::string>& record);
  // Writes text that is not valid JSON.
  void writeMalformed();
  // Fills every byte with a non-zero character: no terminator anywhere.
  void writeWithoutTerminator();
  // Removes the name; the mapping stays valid.
  void removeName();

 private:
  void write(const std::string& text);

  std::mutex mutex_;
  char* memory_ = nullptr;
};

}  // namespace zvr_emulator

#endif  // ZVR_EMULATOR_EVENT_SEGMENT_H_
