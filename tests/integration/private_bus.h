// The one bus fixture of the integration tests: a private dbus-daemon whose configuration makes
// the media-service emulator activatable, in a temporary folder of its own.
//
// Construct it before the library's first use: it points ZVR_DBUS_ADDRESS at the private bus.
// On destruction it stops the emulator (if one was activated) and the daemon, and removes the
// folder. Waits are bounded polls, never fixed sleeps.

#ifndef ZVR_TESTS_INTEGRATION_PRIVATE_BUS_H_
#define ZVR_TESTS_INTEGRATION_PRIVATE_BUS_H_

#include <memory>
#include <string>
#include <vector>

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace zvr_test {

class PrivateBus {
 public:
  // `emulatorOptions` become the emulator's configuration file, one option per entry.
  // With `activatable` false the bus knows no media service at all.
  explicit PrivateBus(const std::vector<std::string>& emulatorOptions = {},
                      bool activatable = true);
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return address_; }
  const std::string& folder() const { return dir_; }

  // Starts the emulator through activation and waits until it owns its name.
  bool startEmulator();
  bool emulatorRunning();
  // The process id of the emulator that owns the service name, or -1.
  int emulatorPid();
  // Waits until no process owns the service name.
  bool waitEmulatorGone(int timeoutMs);

  // The emulator's control interface.
  bool setOption(const std::string& option);
  std::vector<std::vector<std::string>> recordedCommands();
  // Waits until the emulator has recorded at least `count` commands.
  bool waitRecorded(std::size_t count, int timeoutMs);

  // Runs a command line with ZVR_DBUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS set to this bus;
  // returns its exit status.
  int run(const std::string& commandLine);

 private:
  sdbus::IProxy& emulator();
  sdbus::IProxy& daemon();
  void stopDaemon();

  std::string dir_;
  std::string address_;
  int daemonPid_ = -1;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> daemonProxy_;
  std::unique_ptr<sdbus::IProxy> emulatorProxy_;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_INTEGRATION_PRIVATE_BUS_H_
