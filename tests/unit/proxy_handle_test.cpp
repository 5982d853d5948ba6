#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

#include "recording_model_access.h"
#include "zvr_media_proxy_interface.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using velmora::ZVRMediaProxyInterface;
using velmora::ZVRMediaProxyObject;

struct CompleteHandle : ZVRMediaProxyInterface {
  std::string id() override { return ""; }
  std::string localURL() override { return ""; }
  int getState() override { return 0; }
  void start(std::string, int) override {}
  void stop() override {}
  void pause() override {}
  void seek(double, std::string) override {}
  void preload(double, std::string, std::string, std::string) override {}
};

// Each of the following implements every slot but one, and stays abstract: that slot is pure.
template <typename T>
constexpr bool kAbstract = std::is_abstract<T>::value;

struct WithoutId : ZVRMediaProxyInterface {
  std::string localURL() override { return ""; }
  int getState() override { return 0; }
  void start(std::string, int) override {}
  void stop() override {}
  void pause() override {}
  void seek(double, std::string) override {}
  void preload(double, std::string, std::string, std::string) override {}
};
struct WithoutLocalURL : ZVRMediaProxyInterface {
  std::string id() override { return ""; }
  int getState() override { return 0; }
  void start(std::string, int) override {}
  void stop() override {}
  void pause() override {}
  void seek(double, std::string) override {}
  void preload(double, std::string, std::string, std::string) override {}
};
struct WithoutGetState : ZVRMediaProxyInterface {
  std::string id() override { return ""; }
  std::string localURL() override { return ""; }
  void start(std::string, int) override {}
  void stop() override {}
  void pause() override {}
  void seek(double, std::string) override {}
  void preload(double, std::string, std::string, std::string) override {}
};
struct WithoutStart : ZVRMediaProxyInterface {
  std::string id() override { return ""; }
  std::string localURL() override { return ""; }
  int getState() override { return 0; }
  void stop() override {}
  void pause() override {}
  void seek(double, std::string) override {}
  void preload(double, std::string, std::string, std::string) override {}
};
struct WithoutStop : ZVRMediaProxyInterface {
  std::string id() override { return ""; }
  std::string localURL() override { return ""; }
  int getState() override { return 0; }
  void start(std::string, int) override {}
  void pause() override {}
  void seek(double, std::string) override {}
  void preload(double, std::string, std::string, std::string) override {}
};
struct WithoutPause : ZVRMediaProxyInterface {
  std::string id() override { return ""; }
  std::string localURL() override { return ""; }
  int getState() override { return 0; }
  void start(std::string, int) override {}
  void stop() override {}
  void seek(double, std::string) override {}
  void preload(double, std::string, std::string, std::string) override {}
};
struct WithoutSeek : ZVRMediaProxyInterface {
  std::string id() override { return ""; }
  std::string localURL() override { return ""; }
  int getState() override { return 0; }
  void start(std::string, int) override {}
  void stop() override {}
  void pause() override {}
  void preload(double, std::string, std::string, std::string) override {}
};
struct WithoutPreload : ZVRMediaProxyInterface {
  std::string id() override { return ""; }
  std::string localURL() override { return ""; }
  int getState() override { return 0; }
  void start(std::string, int) override {}
  void stop() override {}
  void pause() override {}
  void seek(double, std::string) override {}
};

TEST(ProxyHandleTest, EveryOperationOfSlotsThreeToTenIsPure) {
  static_assert(kAbstract<ZVRMediaProxyInterface>, "the handle cannot be instantiated");
  static_assert(!kAbstract<CompleteHandle>, "the eight operations are all there is");
  static_assert(kAbstract<WithoutId>, "id");
  static_assert(kAbstract<WithoutLocalURL>, "localURL");
  static_assert(kAbstract<WithoutGetState>, "getState");
  static_assert(kAbstract<WithoutStart>, "start");
  static_assert(kAbstract<WithoutStop>, "stop");
  static_assert(kAbstract<WithoutPause>, "pause");
  static_assert(kAbstract<WithoutSeek>, "seek");
  static_assert(kAbstract<WithoutPreload>, "preload");
  static_assert(std::has_virtual_destructor<ZVRMediaProxyInterface>::value, "slots 1 and 2");
  static_assert(!kAbstract<ZVRMediaProxyObject>, "the object implements the handle");
  SUCCEED();
}

TEST(ProxyHandleTest, TheObjectIsReachedThroughTheHandle) {
  std::shared_ptr<ZVRMediaProxyInterface> handle = ZVRMediaProxyObject::create("abc");
  EXPECT_EQ(handle->id(), "abc");
  EXPECT_EQ(handle->localURL(), "");
  EXPECT_EQ(handle->getState(), 0);
}

TEST(ProxyHandleTest, AHandleLivesOnAfterItsRegistryEntryIsRemoved) {
  velmora::ZVRMediaProxyManager* manager = velmora::ZVRMediaProxyManager::getInstance();
  std::shared_ptr<ZVRMediaProxyInterface> handle = manager->createNewZVRMediaProxy("abc");
  std::weak_ptr<ZVRMediaProxyInterface> weak = handle;
  manager->removeProxyObjectFromCache("abc");
  ASSERT_FALSE(weak.expired());
  EXPECT_EQ(handle->id(), "abc");
  handle.reset();
  EXPECT_TRUE(weak.expired());
}

}  // namespace
