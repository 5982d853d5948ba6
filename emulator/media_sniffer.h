// Recognises a media container by its first bytes, the way a player's type finder does, and
// names it by its MIME type. The name of the file plays no part.

#ifndef ZVR_EMULATOR_MEDIA_SNIFFER_H_
#define ZVR_EMULATOR_MEDIA_SNIFFER_H_

#include <cstddef>
#include <string>

namespace zvr_emulator {

// How many leading bytes containerType() looks at, at most.
constexpr std::size_t kSniffBytes = 4096;

// "video/webm", "video/x-matroska", "video/mp4", "video/quicktime", "video/mp2t" or
// "video/ogg"; "" when the bytes start no container this knows.
std::string containerType(const unsigned char* data, std::size_t size);

}  // namespace zvr_emulator

#endif  // ZVR_EMULATOR_MEDIA_SNIFFER_H_
