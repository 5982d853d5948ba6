// A recording model access, linked into unit tests in place of libzvr_model_access.
//
// Every ZVRModelAccess built in the process reports to one ModelAccessRecorder, which records
// each setAccessValue (key and whole list, in order), serves getAccessValue from values a test
// set, counts the lifecycle calls, and can be told to throw where the platform would refuse.
// deliver() hands a record to the newest connection's listener thread, which calls the client's
// onZVREvent there, as the platform does.
//
// A test may install a service hook that runs on the sending thread for each setAccessValue,
// after it was recorded; service doubles are built on it.

#ifndef ZVR_TESTS_DOUBLES_RECORDING_MODEL_ACCESS_H_
#define ZVR_TESTS_DOUBLES_RECORDING_MODEL_ACCESS_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace zvr_test {

extern const char kCommandKey[];
extern const char kEventKey[];

struct AccessCall {
  std::string key;
  std::vector<std::string> values;
};

class ModelAccessRecorder {
 public:
  using Hook = std::function<void(const std::string& key, const std::vector<std::string>& values)>;

  // The process-wide recorder; never destroyed.
  static ModelAccessRecorder& instance();

  // Failure injection.
  void setThrowFromConstructor(bool enabled);
  void setThrowFromStart(bool enabled);
  void setThrowFromStartEventListener(bool enabled);
  // While set to "construct", "start" or "listen", that lifecycle call of every connection
  // blocks in a cancellation point (poll) until the block is lifted ("" lifts it), so that a
  // test can cancel the calling thread inside it. blockedIn() tells how many threads wait there.
  void setLifecycleBlock(const std::string& step);
  int blockedIn(const std::string& step) const;

  // getAccessValue(key) copies these values and returns 0; an unset key returns -1.
  void setValue(const std::string& key, std::vector<std::string> values);
  void setHook(Hook hook);

  // Everything written, in order; and only the command messages.
  std::vector<AccessCall> calls() const;
  std::vector<std::vector<std::string>> commands() const;
  void clearCalls();

  int constructed() const;
  int destroyed() const;
  int starts() const;
  int listenerStarts() const;
  int serviceStartRequests() const;
  int getCalls() const;
  // Constructor attempts, refused ones included.
  int constructorAttempts() const;
  // The lifecycle calls in order: "construct", "refuse", "start", "listen", "service",
  // "destroy".
  std::vector<std::string> lifecycle() const;

  // Queues a record for the newest connection's listener thread and returns at once.
  void deliver(std::vector<std::string> record);
  // Waits until `count` records in all have been handed to onZVREvent and it returned.
  bool waitDelivered(int count, std::chrono::milliseconds timeout);
  int delivered() const;
  // Records queued by deliver() that the listener thread has not yet handed over.
  int pendingDeliveries() const;

  // Waits until at least `count` command messages were sent.
  bool waitCommands(std::size_t count, std::chrono::milliseconds timeout);

 private:
  ModelAccessRecorder() = default;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_DOUBLES_RECORDING_MODEL_ACCESS_H_
