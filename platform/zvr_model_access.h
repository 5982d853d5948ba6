// Declarations of the platform's model-access client library (libzvr_model_access).
//
// A ZVRModelAccess is the connection to the media service: commands are written as named
// values with setAccessValue, values are read back with getAccessValue, and the service's events
// arrive on the library's own listener thread through the client's onZVREvent. The client must
// outlive the connection. The state hides behind a pointer to an implementation, so a platform
// build, the desktop build over D-Bus and the test doubles are interchangeable at link time.
//
// All int results: 0 on success, -1 on failure.

#ifndef ZVR_PLATFORM_ZVR_MODEL_ACCESS_H_
#define ZVR_PLATFORM_ZVR_MODEL_ACCESS_H_

#include <memory>
#include <string>
#include <vector>

namespace velmora {

class ZVRModelAccessClient {
 public:
  virtual void onZVRConnected() = 0;                              // first operation
  virtual void onZVREvent(std::vector<std::string>& record) = 0;  // second operation
 protected:
  ~ZVRModelAccessClient() = default;
};

class ZVRModelAccess {
 public:
  explicit ZVRModelAccess(ZVRModelAccessClient* client);
  ~ZVRModelAccess();
  int start();
  int startEventListener();
  int requestStartZVRService();
  int setAccessValue(std::string key, std::vector<std::string> values);
  int getAccessValue(std::string key, std::vector<std::string>& values);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace velmora

#endif  // ZVR_PLATFORM_ZVR_MODEL_ACCESS_H_
