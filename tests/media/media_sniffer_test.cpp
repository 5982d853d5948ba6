// Containers recognised by their first bytes.

#include <gtest/gtest.h>

#include <string>

#include "media_sniffer.h"
#include "media_test_support.h"

namespace {

using zvr_emulator::containerType;

std::string typeOf(const std::string& bytes) {
  return containerType(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string head(const std::string& clip) {
  return zvr_test::readFile(zvr_test::clipPath(clip)).substr(0, zvr_emulator::kSniffBytes);
}

TEST(MediaSnifferTest, GeneratedClipsAreRecognised) {
  EXPECT_EQ(typeOf(head("clip.webm")), "video/webm");
  EXPECT_EQ(typeOf(head("audio.webm")), "video/webm");
  EXPECT_EQ(typeOf(head("clip.mp4")), "video/mp4");
  EXPECT_EQ(typeOf(head("clip.ts")), "video/mp2t");
}

TEST(MediaSnifferTest, MatroskaIsToldFromWebmByItsDocType) {
  // EBML header of 0x13 bytes: EBMLVersion 1, DocType "matroska".
  const std::string matroska("\x1A\x45\xDF\xA3\x93\x42\x86\x81\x01\x42\x82\x88matroska", 20);
  EXPECT_EQ(typeOf(matroska), "video/x-matroska");
  const std::string webm("\x1A\x45\xDF\xA3\x8F\x42\x86\x81\x01\x42\x82\x84webm", 16);
  EXPECT_EQ(typeOf(webm), "video/webm");
  // A header cut short still is Matroska.
  EXPECT_EQ(typeOf(std::string("\x1A\x45\xDF\xA3", 4)), "video/x-matroska");
}

TEST(MediaSnifferTest, TransportStreamNeedsTwoSyncBytesAPacketApart) {
  std::string ts(188 * 3, '\0');
  for (std::size_t at = 0; at < ts.size(); at += 188) ts[at] = 0x47;
  EXPECT_EQ(typeOf(ts), "video/mp2t");
  EXPECT_EQ(typeOf(ts.substr(0, 188)), "");  // one packet proves nothing
  ts[188] = 0;
  EXPECT_EQ(typeOf(ts), "");

  std::string m2ts(192 * 3, '\0');  // 4-byte timestamp before each packet
  for (std::size_t at = 4; at < m2ts.size(); at += 192) m2ts[at] = 0x47;
  EXPECT_EQ(typeOf(m2ts), "video/mp2t");
}

TEST(MediaSnifferTest, IsoBoxesTellMp4AndQuickTime) {
  EXPECT_EQ(typeOf(std::string("\0\0\0\x18"
                               "ftypisom\0\0\0\0isomavc1",
                               24)),
            "video/mp4");
  EXPECT_EQ(typeOf(std::string("\0\0\0\x14"
                               "ftypqt  \0\0\0\0qt  ",
                               20)),
            "video/quicktime");
  EXPECT_EQ(typeOf(std::string("\0\0\0\x08"
                               "moov",
                               8)),
            "video/quicktime");
  EXPECT_EQ(typeOf(std::string("\0\0\0\x04"
                               "ftyp",
                               8)),
            "");  // a box smaller than its header
}

TEST(MediaSnifferTest, OggIsRecognisedAndAnythingElseIsNot) {
  EXPECT_EQ(typeOf(std::string("OggS\0\x02", 6)), "video/ogg");
  EXPECT_EQ(typeOf(""), "");
  EXPECT_EQ(typeOf("<html><body>no media</body></html>"), "");
  EXPECT_EQ(typeOf("ID3\x04"), "");
  EXPECT_EQ(typeOf(std::string(4096, '\0')), "");
}

}  // namespace
