// The slot order of the two public interfaces is part of the ABI: a host built against one
// build of the library calls another through these vtables.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_interface.h"

namespace {

// The vtable slot a pointer to a virtual member function designates, in the Itanium C++ ABI:
// the pointer holds the slot's byte offset plus one, or on 32-bit ARM the byte offset, with the
// virtual flag in the low bit of the adjustment.
template <typename MemberPointer>
std::ptrdiff_t slotOf(MemberPointer member) {
  struct Representation {
    std::ptrdiff_t pointer;
    std::ptrdiff_t adjustment;
  } representation;
  static_assert(sizeof(member) == sizeof(representation), "Itanium member pointer");
  std::memcpy(&representation, &member, sizeof representation);
#if defined(__arm__) || defined(__aarch64__)
  EXPECT_EQ(representation.adjustment & 1, 1) << "not a virtual member";
  return representation.pointer / static_cast<std::ptrdiff_t>(sizeof(void*));
#else
  EXPECT_EQ(representation.pointer & 1, 1) << "not a virtual member";
  return (representation.pointer - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
#endif
}

using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyManagerInterface;
using Proxy = std::shared_ptr<ZVRMediaProxyInterface>;

TEST(VtableLayoutTest, ProxyHandleSlotsFollowTheTwoDestructorsInOrder) {
  EXPECT_EQ(slotOf(&ZVRMediaProxyInterface::id), 2);
  EXPECT_EQ(slotOf(&ZVRMediaProxyInterface::localURL), 3);
  EXPECT_EQ(slotOf(&ZVRMediaProxyInterface::getState), 4);
  EXPECT_EQ(slotOf(&ZVRMediaProxyInterface::start), 5);
  EXPECT_EQ(slotOf(&ZVRMediaProxyInterface::stop), 6);
  EXPECT_EQ(slotOf(&ZVRMediaProxyInterface::pause), 7);
  EXPECT_EQ(slotOf(&ZVRMediaProxyInterface::seek), 8);
  EXPECT_EQ(slotOf(&ZVRMediaProxyInterface::preload), 9);
}

TEST(VtableLayoutTest, ManagerInterfaceSlotsHaveNoDestructorAndKeepTheirOrder) {
  Proxy (ZVRMediaProxyManagerInterface::*create)() =
      &ZVRMediaProxyManagerInterface::createNewZVRMediaProxy;
  Proxy (ZVRMediaProxyManagerInterface::*createWithId)(std::string) =
      &ZVRMediaProxyManagerInterface::createNewZVRMediaProxy;
  Proxy (ZVRMediaProxyManagerInterface::*createSync)() =
      &ZVRMediaProxyManagerInterface::createNewZVRMediaProxySync;
  Proxy (ZVRMediaProxyManagerInterface::*createSyncWithId)(std::string) =
      &ZVRMediaProxyManagerInterface::createNewZVRMediaProxySync;
  EXPECT_EQ(slotOf(create), 0);
  EXPECT_EQ(slotOf(createWithId), 1);
  EXPECT_EQ(slotOf(createSync), 2);
  EXPECT_EQ(slotOf(createSyncWithId), 3);
  EXPECT_EQ(slotOf(&ZVRMediaProxyManagerInterface::setZVRCallback), 4);
  EXPECT_FALSE(std::has_virtual_destructor<ZVRMediaProxyManagerInterface>::value);
}

}  // namespace
