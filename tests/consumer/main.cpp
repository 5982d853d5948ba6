// A host built against the installed library alone: its headers and its shared library.

#include <zvr_media_manager_interface.h>
#include <zvr_media_proxy_interface.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {
void onChange(std::string, std::string, std::string) {}
}  // namespace

int main() {
  velmora::ZVRMediaProxyManagerInterface* manager = requestZVRMediaProxy();
  if (manager == nullptr || manager != requestZVRMediaProxy()) return 1;
  manager->setZVRCallback(&onChange);
  std::shared_ptr<velmora::ZVRMediaProxyInterface> proxy = manager->createNewZVRMediaProxy("abc");
  if (!proxy || proxy->id() != "abc" || proxy->getState() != 0) return 2;
  if (velmora::ZVRMediaProxyInterface::getObjectById("abc") != proxy) return 3;
  std::printf("consumer: proxy %s in state %d\n", proxy->id().c_str(), proxy->getState());
  return 0;
}
