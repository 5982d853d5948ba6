// The process-wide proxy manager.
//
// ZVRMediaProxyManager owns the connection to the media service, the registry of live proxies,
// the command channel (one 11-string message per command, sent asynchronously or followed by a
// 250 ms wait for the answer) and the event channel (the platform listener, the shared-memory
// buffer "/ZVR_PROXY" and the service's event value). It is created by the first getInstance()
// and never destroyed.
//
// Threads: host threads call the creation and request operations; the platform's listener thread
// calls onZVREvent. A synchronous wait that finds its answer also runs onZVREvent, on the waiting
// thread. Every operation is safe to call from any thread, but a synchronous request must not be
// called while the caller holds the manager mutex, nor for a proxy from inside that proxy's "url"
// notification (the answer's handler would wait for the mutex the notifying thread holds); the
// proxy's own commands, which are deferred there, are the way to act on it.

#ifndef ZVR_MEDIA_PROXY_MANAGER_H_
#define ZVR_MEDIA_PROXY_MANAGER_H_

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zvr_media_manager_interface.h"
#include "zvr_media_proxy_export.h"

#pragma GCC visibility push(default)
#include "zvr_model_access.h"
#pragma GCC visibility pop

namespace velmora {

class ZVRMediaProxyObject;

class ZVR_EXPORT ZVRMediaProxyManager : public ZVRModelAccessClient {
 public:
  // The singleton, created on first use. Throws what construction throws (the platform refused
  // to start the event listener); the pointer then stays unset and the next call tries again.
  static ZVRMediaProxyManager* getInstance();

  // Public for tests and tools; the library itself only uses getInstance().
  ZVRMediaProxyManager();
  virtual ~ZVRMediaProxyManager();

  ZVRMediaProxyManager(const ZVRMediaProxyManager&) = delete;
  ZVRMediaProxyManager& operator=(const ZVRMediaProxyManager&) = delete;

  // ZVRModelAccessClient. onZVRConnected does nothing. onZVREvent routes one event record:
  // "created" and "status" are the manager's own, anything else goes to the proxy whose id
  // stands at position 3. Runs on the listener thread and on synchronous waiters.
  void onZVRConnected() override;
  void onZVREvent(std::vector<std::string>& record) override;

  // Service connection and application notifications.
  void createModelAccess();
  int requestStartZVRService();
  void setZVRCallback(ZVRCallback callback);
  // Call the application callback on the calling thread, with no manager lock held.
  void notifyDefinitionsChanged(const std::string& id, std::string definitions);
  void notifyURLChanged(const std::string& id, std::string url);

  // Registry and identifiers.
  void cacheProxyObject(std::shared_ptr<ZVRMediaProxyObject> object);
  std::shared_ptr<ZVRMediaProxyObject> findProxyObjectFromCache(std::string id);
  void removeProxyObjectFromCache(std::string id);
  std::shared_ptr<ZVRMediaProxyObject> findObjectById(std::string id);
  std::string getRemoteObjectId(std::string id);
  std::string generateUUID();
  std::string getNextSessionId();

  // Proxy creation.
  std::shared_ptr<ZVRMediaProxyObject> createNewZVRMediaProxy();
  std::shared_ptr<ZVRMediaProxyObject> createNewZVRMediaProxy(std::string id);
  std::shared_ptr<ZVRMediaProxyObject> createNewZVRMediaProxySync();
  std::shared_ptr<ZVRMediaProxyObject> createNewZVRMediaProxySync(std::string id);
  void requestCreateRemoteObject(std::string sessionId);
  int requestCreateRemoteObjectSync(std::string sessionId);

  // Asynchronous requests: send one command message and return. In sync mode each runs its
  // synchronous twin instead.
  static void setCommandParameter(std::vector<std::string>& list, unsigned int position,
                                  const std::string& text);
  void requestRemoteObjectStart(const std::string& id, const std::string& url, int mode);
  void requestRemoteObjectStop(const std::string& id);
  void requestRemoteObjectSeek(const std::string& id, double position, const std::string& text);
  void requestRemoteObjectPreload(const std::string& id, double position, const std::string& text1,
                                  const std::string& text2, const std::string& text3);
  void requestRemoteObjectPause(const std::string& id);
  void requestRemoteObjectInspect();

  // Synchronous requests: send, then wait up to 250 ms for the answer carrying the message's
  // session id. 0 when the answer came (whatever its result code), -1 otherwise.
  int requestRemoteObjectStartSync(const std::string& id, const std::string& url, int mode);
  int requestRemoteObjectStopSync(const std::string& id);
  int requestRemoteObjectSeekSync(const std::string& id, double position, const std::string& text);
  int requestRemoteObjectPreloadSync(const std::string& id, double position,
                                     const std::string& text1, const std::string& text2,
                                     const std::string& text3);
  int requestRemoteObjectPauseSync(const std::string& id);
  int requestRemoteObjectInspectSync();
  // True when anything wakes the completion signal within 200 ms of an inspect request.
  bool checkZVRServiceAlive();
  int waitRequestRemoteObjectCompleted(std::string sessionId, std::string name);

  // Event channel.
  int checkZVREventMemory();
  std::vector<std::string> readZVREventMemory();
  std::vector<std::string> readZVREvent();
  void initializeZVREvent();

 private:
  // A std::mutex that knows which thread holds it. Event dispatch uses this to tell whether it
  // runs inside a creation attempt or a liveness probe that already holds the manager mutex.
  class OwnedMutex {
   public:
    void lock();
    void unlock();
    bool heldByCurrentThread() const;

   private:
    std::mutex mutex_;
    std::atomic<std::thread::id> owner_{};
  };

  // The manager mutex, unless the current thread already holds it.
  class DispatchLock {
   public:
    explicit DispatchLock(OwnedMutex& mutex);
    ~DispatchLock();
    DispatchLock(const DispatchLock&) = delete;
    DispatchLock& operator=(const DispatchLock&) = delete;

   private:
    OwnedMutex& mutex_;
    const bool locked_;
  };

  static constexpr std::size_t kEventMemorySize = 4096;

  // The model access after createModelAccess(), or null ("No Access").
  std::shared_ptr<ZVRModelAccess> connection();
  // Sends one command message under the command key and returns its session id.
  std::string sendCommand(ZVRModelAccess& access, const char* word,
                          const std::vector<std::pair<unsigned int, std::string>>& fields,
                          bool stamped);
  void sendCreateCommand(ZVRModelAccess& access, const std::string& sessionId);
  void clearResponseIds();
  // The newest response id into *id; false when there is none.
  bool lastResponseId(std::string* id);

  std::atomic<ZVRCallback> callback_{nullptr};
  const std::map<std::string, std::string> remoteIdMap_;

  // Appended under mutex_ by event dispatch and read under mutex_ by the asynchronous creation;
  // the synchronous creation uses it without mutex_. responseMutex_ is a leaf lock that makes
  // every access safe.
  std::vector<std::string> responseIds_;
  std::mutex responseMutex_;

  // Written under registryMutex_ alone by cacheProxyObject, and under mutex_ then registryMutex_
  // by lookup and removal. registryMutex_ is a leaf: nothing is called while it is held.
  std::map<std::string, std::shared_ptr<ZVRMediaProxyObject>> proxyRegistry_;
  std::mutex registryMutex_;

  // The manager mutex: registry lookup and removal, responseIds_, the completion waits.
  OwnedMutex mutex_;

  // Read and replaced with the atomic shared_ptr functions; never locked.
  std::shared_ptr<ZVRModelAccess> modelAccess_;

  // Notified under mutex_ by successful "created" and by "status" events.
  std::condition_variable_any completion_;

  // Only ever changes from false to true while the manager lives.
  std::atomic<bool> syncMode_{false};
  // Set once the constructor has started the first connection's listener.
  std::atomic<bool> constructed_{false};

  // Guarded by eventMutex_, a leaf lock held only to copy the mapped segment.
  char eventBuffer_[kEventMemorySize] = {};
  const char* eventMemory_ = nullptr;
  std::mutex eventMutex_;
};

}  // namespace velmora

#endif  // ZVR_MEDIA_PROXY_MANAGER_H_
