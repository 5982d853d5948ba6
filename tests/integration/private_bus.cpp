#include "private_bus.h"

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "zvr_bus_protocol.h"

extern char** environ;

namespace zvr_test {

namespace {

using Clock = std::chrono::steady_clock;

std::string readFile(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
  return text;
}

bool acceptsConnections(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  const bool accepted = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return accepted;
}

// The single-letter state of a process, or 0 once it no longer exists.
char processState(int pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(stat, text)) return 0;
  const std::size_t end = text.rfind(')');  // the name in parentheses may hold anything
  return end != std::string::npos && end + 2 < text.size() ? text[end + 2] : 0;
}

template <typename Condition>
bool pollUntil(Condition condition, int timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace

PrivateBus::PrivateBus(const std::vector<std::string>& emulatorOptions, bool activatable) {
  char pattern[] = "/tmp/zvr-bus.XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir_ = pattern;
  address_ = "unix:path=" + dir_ + "/bus.socket";
  std::filesystem::create_directory(dir_ + "/services");

  const std::string templates = ZVR_BUS_TEMPLATE_DIR;
  std::ofstream(dir_ + "/bus.conf")
      << replaceAll(readFile(templates + "/private-bus.conf.in"), "@DIR@", dir_);
  if (activatable) {
    std::ofstream(dir_ + "/services/velmora.zvr.MediaService.service") << replaceAll(
        replaceAll(readFile(templates + "/velmora.zvr.MediaService.service.in"), "@DIR@", dir_),
        "@EMULATOR@", ZVR_EMULATOR_PATH);
  }
  std::ofstream config(dir_ + "/emulator.conf");
  for (const std::string& option : emulatorOptions) config << option << "\n";
  config.close();

  // A daemon that outlived a failed construction would hold the test's output open.
  if (!startDaemon()) {
    stopDaemon();
    throw std::runtime_error("dbus-daemon did not come up");
  }
  setenv(zvr_bus::kAddressVariable, address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  stopDaemon();
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

bool PrivateBus::startDaemon() {
  const std::string socket = dir_ + "/bus.socket";
  unlink(socket.c_str());  // left behind by a daemon that was killed
  const std::string configArgument = "--config-file=" + dir_ + "/bus.conf";
  char* const argv[] = {const_cast<char*>("dbus-daemon"), const_cast<char*>(configArgument.c_str()),
                        const_cast<char*>("--nofork"), nullptr};
  // The daemon and the emulator it activates inherit standard output and error only: a lock
  // such as `flock /tmp/zvr_shm.lock ctest` holds would otherwise outlive the test in them.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, "dbus-daemon", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return false;
  daemonPid_ = pid;
  // The socket file appears at bind(), a moment before the daemon listens; a refused plain
  // connection is what is waited out (a failed sdbus-c++ connection leaks).
  if (!pollUntil([&] { return acceptsConnections(socket); }, 10000)) return false;
  try {
    connection_ = sdbus::createSessionBusConnectionWithAddress(address_);
  } catch (const sdbus::Error&) {
    return false;
  }
  return true;
}

// The emulator goes first: it ends cleanly on SIGTERM, while losing its bus would abort it.
void PrivateBus::stopDaemon() {
  const int emulator = emulatorPid();
  if (emulator > 0) {
    // A test may have left it stopped. Only a stopped process is continued: a SIGCONT that
    // reaches a sanitized emulator while LeakSanitizer inspects it at exit can hang it.
    if (processState(emulator) == 'T') kill(emulator, SIGCONT);
    // Its parent, the daemon, reaps it. An emulator told to stop before its media server got to
    // listen never ends (cpp-httplib's stop() is lost then), so it is killed after a while.
    const auto gone = [emulator] {
      const char state = processState(emulator);
      return state == 0 || state == 'Z';
    };
    kill(emulator, SIGTERM);
    if (!pollUntil(gone, 5000)) {
      kill(emulator, SIGKILL);
      pollUntil(gone, 5000);
    }
  }
  emulatorProxy_.reset();
  daemonProxy_.reset();
  connection_.reset();
  if (daemonPid_ > 0) {
    kill(daemonPid_, SIGTERM);
    int status = 0;
    waitpid(daemonPid_, &status, 0);
    daemonPid_ = -1;
  }
}

bool PrivateBus::restartDaemon() {
  stopDaemon();
  return startDaemon();
}

bool PrivateBus::stopEmulator() {
  const int pid = emulatorPid();
  if (pid <= 0 || kill(pid, SIGSTOP) != 0) return false;
  return pollUntil([pid] { return processState(pid) == 'T'; }, 10000);
}

void PrivateBus::continueEmulator() {
  const int pid = emulatorPid();
  if (pid > 0) kill(pid, SIGCONT);
}

int PrivateBus::emulatorPid() {
  try {
    uint32_t pid = 0;
    daemon()
        .callMethod("GetConnectionUnixProcessID")
        .onInterface("org.freedesktop.DBus")
        .withArguments(std::string(zvr_bus::kServiceName))
        .storeResultsTo(pid);
    return pid != 0 ? static_cast<int>(pid) : -1;
  } catch (const std::exception&) {
    return -1;  // no emulator on the bus
  }
}

sdbus::IProxy& PrivateBus::daemon() {
  if (!connection_) throw std::logic_error("the bus daemon is stopped");
  if (!daemonProxy_) {
    daemonProxy_ =
        sdbus::createProxy(*connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    daemonProxy_->finishRegistration();
  }
  return *daemonProxy_;
}

sdbus::IProxy& PrivateBus::emulator() {
  if (!connection_) throw std::logic_error("the bus daemon is stopped");
  if (!emulatorProxy_) {
    emulatorProxy_ = sdbus::createProxy(*connection_, zvr_bus::kServiceName, zvr_bus::kObjectPath);
    emulatorProxy_->finishRegistration();
  }
  return *emulatorProxy_;
}

bool PrivateBus::emulatorRunning() {
  bool owned = false;
  try {
    daemon()
        .callMethod("NameHasOwner")
        .onInterface("org.freedesktop.DBus")
        .withArguments(std::string(zvr_bus::kServiceName))
        .storeResultsTo(owned);
  } catch (const std::exception&) {
    return false;
  }
  return owned;
}

bool PrivateBus::startEmulator() {
  try {
    uint32_t result = 0;
    daemon()
        .callMethod("StartServiceByName")
        .onInterface("org.freedesktop.DBus")
        .withTimeout(std::chrono::seconds(10))
        .withArguments(std::string(zvr_bus::kServiceName), uint32_t(0))
        .storeResultsTo(result);
  } catch (const std::exception&) {
    return false;
  }
  return pollUntil([this] { return emulatorRunning(); }, 10000);
}

bool PrivateBus::waitEmulatorGone(int timeoutMs) {
  return pollUntil([this] { return !emulatorRunning(); }, timeoutMs);
}

bool PrivateBus::setOption(const std::string& option) {
  int32_t result = -1;
  std::string error;
  try {
    emulator()
        .callMethod("SetOption")
        .onInterface(zvr_bus::kEmulatorInterface)
        .withArguments(option)
        .storeResultsTo(result, error);
  } catch (const std::exception&) {
    return false;
  }
  return result == 0;
}

std::vector<std::vector<std::string>> PrivateBus::recordedCommands() {
  std::vector<std::vector<std::string>> commands;
  try {
    emulator()
        .callMethod("RecordedCommands")
        .onInterface(zvr_bus::kEmulatorInterface)
        .storeResultsTo(commands);
  } catch (const std::exception&) {
  }
  return commands;
}

bool PrivateBus::waitRecorded(std::size_t count, int timeoutMs) {
  return pollUntil([&] { return recordedCommands().size() >= count; }, timeoutMs);
}

int PrivateBus::run(const std::string& commandLine) {
  const std::string full = "env ZVR_DBUS_ADDRESS='" + address_ + "' DBUS_SESSION_BUS_ADDRESS='" +
                           address_ + "' " + commandLine;
  const int status = std::system(full.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace zvr_test
