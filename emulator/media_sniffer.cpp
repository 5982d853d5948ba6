#include "media_sniffer.h"

#include <cstdint>
#include <cstring>

namespace zvr_emulator {

namespace {

// An EBML variable-length integer at data[at]: its length in bytes, and its value with the
// length marker kept (element ids) or removed (sizes). False when the bytes end first.
bool readVint(const unsigned char* data, std::size_t size, std::size_t at, bool keepMarker,
              std::size_t* length, std::uint64_t* value) {
  if (at >= size || data[at] == 0) return false;
  std::size_t n = 1;
  while ((data[at] & (0x80 >> (n - 1))) == 0) ++n;
  if (at + n > size) return false;
  std::uint64_t v = keepMarker ? data[at] : data[at] & (0xFF >> n);
  for (std::size_t i = 1; i < n; ++i) v = (v << 8) | data[at + i];
  *length = n;
  *value = v;
  return true;
}

// WebM is Matroska whose EBML header names the document type "webm".
std::string matroskaType(const unsigned char* data, std::size_t size) {
  const char* const kMatroska = "video/x-matroska";
  std::size_t n = 0;
  std::uint64_t headerSize = 0;
  if (!readVint(data, size, 4, false, &n, &headerSize)) return kMatroska;
  std::size_t at = 4 + n;
  const std::size_t end = headerSize < size - at ? at + headerSize : size;
  while (at < end) {
    std::uint64_t id = 0, childSize = 0;
    std::size_t idLength = 0, sizeLength = 0;
    if (!readVint(data, end, at, true, &idLength, &id) ||
        !readVint(data, end, at + idLength, false, &sizeLength, &childSize)) {
      break;
    }
    at += idLength + sizeLength;
    if (childSize > end - at) break;
    if (id == 0x4282) {  // DocType
      const std::string docType(reinterpret_cast<const char*>(data + at), childSize);
      return docType.compare(0, 4, "webm") == 0 ? "video/webm" : kMatroska;
    }
    at += childSize;
  }
  return kMatroska;
}

// ISO base media (MP4) and QuickTime files are sequences of boxes; the first one tells.
std::string isoType(const unsigned char* data, std::size_t size) {
  if (size < 8) return "";
  const std::uint32_t boxSize = (std::uint32_t{data[0]} << 24) | (std::uint32_t{data[1]} << 16) |
                                (std::uint32_t{data[2]} << 8) | data[3];
  if (boxSize == 1 ? size < 16 : (boxSize != 0 && boxSize < 8)) return "";
  const char* type = reinterpret_cast<const char*>(data + 4);
  if (std::memcmp(type, "ftyp", 4) == 0) {
    if (size >= 12 && std::memcmp(data + 8, "qt  ", 4) == 0) return "video/quicktime";
    return "video/mp4";
  }
  for (const char* old : {"moov", "mdat", "free", "skip", "wide", "pnot"}) {
    if (std::memcmp(type, old, 4) == 0) return "video/quicktime";
  }
  return "";
}

// MPEG transport stream: a sync byte every 188 bytes (every 192 in M2TS, which prefixes each
// packet with a 4-byte timestamp). At least two packets must be seen.
bool isTransportStream(const unsigned char* data, std::size_t size) {
  for (std::size_t packet : {std::size_t{188}, std::size_t{192}}) {
    const std::size_t first = packet - 188;
    if (size < first + packet + 1) continue;
    bool synced = true;
    for (std::size_t at = first; at < size && at < first + 4 * packet; at += packet) {
      if (data[at] != 0x47) {
        synced = false;
        break;
      }
    }
    if (synced) return true;
  }
  return false;
}

}  // namespace

std::string containerType(const unsigned char* data, std::size_t size) {
  if (size >= 4 && data[0] == 0x1A && data[1] == 0x45 && data[2] == 0xDF && data[3] == 0xA3) {
    return matroskaType(data, size);
  }
  if (size >= 5 && std::memcmp(data, "OggS", 4) == 0 && data[4] == 0) return "video/ogg";
  if (isTransportStream(data, size)) return "video/mp2t";
  return isoType(data, size);
}

}  // namespace zvr_emulator
