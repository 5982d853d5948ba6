// Reading an event record by position. Internal to the library.

#ifndef ZVR_EVENT_RECORD_H_
#define ZVR_EVENT_RECORD_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Position `i` of a record, or the empty text beyond its end. The reference stays valid as long
// as the record is not changed.
inline const std::string& recordField(const std::vector<std::string>& record, std::size_t i) {
  static const std::string* const kEmpty = new std::string();
  return i < record.size() ? record[i] : *kEmpty;
}

// Event names and the success code, compared without a strlen per comparison.
constexpr std::string_view kEventCreated = "created";
constexpr std::string_view kEventStatus = "status";
constexpr std::string_view kEventStarted = "started";
constexpr std::string_view kEventStopped = "stopped";
constexpr std::string_view kEventSeeked = "seeked";
constexpr std::string_view kEventDefinition = "definition";
constexpr std::string_view kResultOk = "200";

}  // namespace velmora

#endif  // ZVR_EVENT_RECORD_H_
