#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>

#include "capturing_log.h"
#include "manager_test.h"
#include "recording_model_access.h"
#include "zvr_log.h"
#include "zvr_media_proxy_manager.h"
#include "zvr_media_proxy_object.h"

namespace {

using velmora::ZVRMediaProxyManager;
using velmora::ZVRMediaProxyObject;
using velmora::logging::kProgress;
using zvr_test::log;

class RegistryTest : public zvr_test::ManagerTest {};

TEST_F(RegistryTest, CachedObjectIsFoundByItsId) {
  auto object = ZVRMediaProxyObject::create("abc");
  manager_->cacheProxyObject(object);
  EXPECT_EQ(manager_->findProxyObjectFromCache("abc"), object);
  EXPECT_EQ(manager_->findObjectById("abc"), object);
}

TEST_F(RegistryTest, CachingASecondObjectWithTheSameIdKeepsTheFirst) {
  auto first = ZVRMediaProxyObject::create("abc");
  auto second = ZVRMediaProxyObject::create("abc");
  manager_->cacheProxyObject(first);
  manager_->cacheProxyObject(second);
  EXPECT_EQ(manager_->findProxyObjectFromCache("abc"), first);
  EXPECT_EQ(second.use_count(), 1);  // the registry kept no reference to it
}

TEST_F(RegistryTest, RegistryHoldsAReference) {
  std::weak_ptr<ZVRMediaProxyObject> weak;
  {
    auto object = ZVRMediaProxyObject::create("abc");
    manager_->cacheProxyObject(object);
    weak = object;
  }
  EXPECT_FALSE(weak.expired());
}

TEST_F(RegistryTest, RemovingAnIdThatIsNotPresentChangesNothingAndLogsNothing) {
  auto object = ZVRMediaProxyObject::create("abc");
  manager_->cacheProxyObject(object);
  log().clear();
  manager_->removeProxyObjectFromCache("abd");
  manager_->removeProxyObjectFromCache("ab");
  EXPECT_TRUE(log().lines().empty());
  EXPECT_EQ(manager_->findProxyObjectFromCache("abc"), object);
}

TEST_F(RegistryTest, RemovingAnIdLogsOncePerMatchingEntryAndKeepsTheOthers) {
  auto a = ZVRMediaProxyObject::create("a");
  auto b = ZVRMediaProxyObject::create("b");
  manager_->cacheProxyObject(a);
  manager_->cacheProxyObject(b);
  log().clear();
  manager_->removeProxyObjectFromCache("a");
  EXPECT_EQ(log().messages(), std::vector<std::string>{"find in cache and remove proxy, id:a\n"});
  EXPECT_EQ(log().count("find in cache and remove proxy, id:a\n", kProgress), 1);
  EXPECT_EQ(manager_->findProxyObjectFromCache("a"), nullptr);
  EXPECT_EQ(manager_->findProxyObjectFromCache("b"), b);
}

TEST_F(RegistryTest, RemovalDoesNotEndAHandleTheHostStillHolds) {
  auto object = ZVRMediaProxyObject::create("abc");
  manager_->cacheProxyObject(object);
  auto found = manager_->findProxyObjectFromCache("abc");
  manager_->removeProxyObjectFromCache("abc");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->id(), "abc");
  EXPECT_EQ(found.use_count(), 2);  // `object` and `found`
}

TEST_F(RegistryTest, LookingUpTheEmptyIdFindsNothingUnlessAnObjectHasIt) {
  EXPECT_EQ(manager_->findProxyObjectFromCache(""), nullptr);
  manager_->cacheProxyObject(ZVRMediaProxyObject::create("abc"));
  EXPECT_EQ(manager_->findProxyObjectFromCache(""), nullptr);
  auto empty = ZVRMediaProxyObject::create("");
  manager_->cacheProxyObject(empty);
  EXPECT_EQ(manager_->findProxyObjectFromCache(""), empty);
}

TEST_F(RegistryTest, UnknownLookupsLogNothing) {
  log().clear();
  EXPECT_EQ(manager_->findObjectById("nobody"), nullptr);
  EXPECT_TRUE(log().lines().empty());
}

TEST_F(RegistryTest, RemoteIdMapIsEmpty) {
  EXPECT_EQ(manager_->getRemoteObjectId("abc"), "");
  EXPECT_EQ(manager_->getRemoteObjectId(""), "");
}

TEST_F(RegistryTest, GenerateUUIDIs35UpperCaseCharactersIn8_4_4_16Groups) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string uuid = manager_->generateUUID();
    ASSERT_EQ(uuid.size(), 35u) << uuid;
    for (std::size_t p = 0; p < uuid.size(); ++p) {
      if (p == 8 || p == 13 || p == 18) {
        EXPECT_EQ(uuid[p], '-') << uuid;
      } else {
        EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(uuid[p]))) << uuid;
        EXPECT_FALSE(std::islower(static_cast<unsigned char>(uuid[p]))) << uuid;
      }
    }
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 200u);
}

TEST_F(RegistryTest, SessionIdIs39CharactersBeginningWithSes) {
  const std::string first = manager_->getNextSessionId();
  const std::string second = manager_->getNextSessionId();
  EXPECT_EQ(first.size(), 39u);
  EXPECT_EQ(first.rfind("ses-", 0), 0u);
  EXPECT_EQ(first.find('-', 4), 12u);
  EXPECT_NE(first, second);
}

}  // namespace
