// uuid_generate is wrapped at link time, so the bytes behind a UUID text are known.

#include <gtest/gtest.h>
#include <uuid/uuid.h>

#include <cstring>

#include "zvr_media_proxy_manager.h"

extern "C" void __wrap_uuid_generate(uuid_t out) {
  static const unsigned char kBytes[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                           0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  std::memcpy(out, kBytes, sizeof kBytes);
}

namespace {

TEST(UuidFormatTest, FirstThreeGroupsShowTheirBytesReversed) {
  velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
  EXPECT_EQ(manager->generateUUID(), "33221100-5544-7766-8899AABBCCDDEEFF");
  EXPECT_EQ(manager->getNextSessionId(), "ses-33221100-5544-7766-8899AABBCCDDEEFF");
}

}  // namespace
