// One remote media player's proxy: the implementation behind ZVRMediaProxyInterface.
//
// Objects are made by create() and owned through std::shared_ptr; the manager's registry holds
// one reference per id. A proxy turns each command into an asynchronous request of the manager
// and keeps what the service reports back: a state (idle, starting, started), the local URL and
// the definitions text, passing changes on to the application callback.
//
// Threads: commands and getters come from host threads; onZVREvent comes from the manager's
// dispatch (the listener thread or a synchronous waiter) and, inside start(url, 0), from the
// caller's own thread. The object's mutex is released before every manager request, except that
// onMediaStarted holds it across the "url" notification; calls that the application makes on the
// same proxy from there are answered without the mutex (getters) or deferred until the
// notification has ended (commands), see zvr_media_proxy_interface.h.

#ifndef ZVR_MEDIA_PROXY_OBJECT_H_
#define ZVR_MEDIA_PROXY_OBJECT_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zvr_media_proxy_export.h"
#include "zvr_media_proxy_interface.h"

namespace velmora {

class ZVRMediaProxyManager;

class ZVR_EXPORT ZVRMediaProxyObject : public ZVRMediaProxyInterface {
 public:
  enum State : int32_t {
    STATE_IDLE = 0,
    STATE_STARTING = 1,
    STATE_STARTED = 2,
  };

  // A new, unregistered proxy for `id`; sends nothing.
  static std::shared_ptr<ZVRMediaProxyObject> create(std::string id);

  explicit ZVRMediaProxyObject(std::string id);
  ~ZVRMediaProxyObject() override;

  ZVRMediaProxyObject(const ZVRMediaProxyObject&) = delete;
  ZVRMediaProxyObject& operator=(const ZVRMediaProxyObject&) = delete;

  std::string id() override;
  std::string localURL() override;
  int getState() override;
  void start(std::string url, int mode) override;
  void stop() override;
  void pause() override;
  void seek(double position, std::string text) override;
  void preload(double position, std::string text1, std::string text2, std::string text3) override;

  // Handles one event record addressed to this proxy; records for other ids and unknown event
  // names are ignored.
  void onZVREvent(std::vector<std::string>& record);
  void onMediaStarted(std::string url);
  void onMediaStartedFailed(std::string code, std::string detail);
  void onMediaStopped();
  void onMediaStoppedFailed(std::string code, std::string detail);
  void onMediaSeeked();
  void onMediaSeekedFailed(std::string code, std::string detail);
  void onDefinitionsChanged(std::string definitions);

 private:
  // Copies taken under textMutex_ alone.
  std::string copyLocalURL();
  std::string copyDefinitions();
  void setLocalURL_l(std::string url);

  // Atomic because seek() and onDefinitionsChanged() read it without mutex_; written under it.
  std::atomic<int32_t> state_{STATE_IDLE};
  // Written by seek() without mutex_; nothing reads it.
  std::atomic<double> seekPosition_{0.0};
  // Set once in the constructor.
  std::string id_;

  // Written under mutex_ and textMutex_; read under either.
  std::string localURL_;
  std::string unusedText_;  // reserved; never read or written
  std::string definitions_;

  ZVRMediaProxyManager* manager_ = nullptr;
  std::mutex mutex_;
  // Leaf lock for the texts, so that start(url, 0) can read them after releasing mutex_.
  std::mutex textMutex_;
};

}  // namespace velmora

#endif  // ZVR_MEDIA_PROXY_OBJECT_H_
