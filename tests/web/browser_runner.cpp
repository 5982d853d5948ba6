#include "browser_runner.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

extern char** environ;

namespace zvr_test {

namespace {

using Clock = std::chrono::steady_clock;

// A port that was free a moment ago on the loopback interface. The driver binds it soon after;
// a clash makes start() fail and the caller may try again.
int freeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

// Whether `pid` has ended; reaps it if so.
bool ended(pid_t pid) {
  int status = 0;
  const pid_t result = waitpid(pid, &status, WNOHANG);
  return result == pid || (result < 0 && errno == ECHILD);
}

}  // namespace

const char* engineName(Engine engine) { return engine == Engine::kWpe ? "WPE WebKit" : "Chromium"; }

BrowserRunner::BrowserRunner(BrowserOptions options) : options_(std::move(options)) {
  char pattern[] = "/tmp/zvr-web.XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir_ = pattern;
  for (const char* sub : {"/home", "/profile", "/cache", "/config", "/data", "/runtime"}) {
    std::filesystem::create_directories(dir_ + sub);
  }
  std::filesystem::permissions(dir_ + "/runtime", std::filesystem::perms::owner_all);
}

BrowserRunner::~BrowserRunner() {
  stop();
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

Json::Value BrowserRunner::capabilities() const {
  Json::Value capabilities;
  Json::Value args(Json::arrayValue);
  if (options_.engine == Engine::kWpe) {
    // A muted video plays without a gesture, as on the televisions' pages.
    for (const char* a :
         {"--automation", "-P", "headless", "--media-playback-requires-user-gesture=false"}) {
      args.append(a);
    }
    for (const std::string& a : options_.arguments) args.append(a);
    capabilities["wpe:browserOptions"]["binary"] = ZVR_COG_PATH;
    capabilities["wpe:browserOptions"]["args"] = args;
  } else {
    for (const char* a : {"--headless=new", "--autoplay-policy=no-user-gesture-required",
                          "--disable-gpu", "--no-first-run", "--disable-background-networking",
                          "--disable-dev-shm-usage", "--mute-audio"}) {
      args.append(a);
    }
    // Chromium's sandbox refuses to run as root.
    if (geteuid() == 0) args.append("--no-sandbox");
    args.append("--user-data-dir=" + dir_ + "/profile");
    for (const std::string& a : options_.arguments) args.append(a);
    capabilities["goog:chromeOptions"]["binary"] = ZVR_CHROMIUM_PATH;
    capabilities["goog:chromeOptions"]["args"] = args;
  }
  return capabilities;
}

bool BrowserRunner::spawnKeeper(int port, std::string* error) {
  int input[2];
  if (pipe2(input, O_CLOEXEC) != 0) {
    *error = "pipe failed";
    return false;
  }
  std::vector<std::string> argv = {ZVR_BROWSER_KEEPER_PATH};
  if (options_.engine == Engine::kWpe) {
    argv.push_back(ZVR_WPE_DRIVER_PATH);
    argv.push_back("--port=" + std::to_string(port));
  } else {
    // No --allowed-ips: with it chromedriver listens on every interface and filters peers
    // afterwards; without it, it listens on the loopback only.
    argv.push_back(ZVR_CHROMEDRIVER_PATH);
    argv.push_back("--port=" + std::to_string(port));
  }

  std::map<std::string, std::string> environment;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    const std::size_t equals = entry.find('=');
    if (equals != std::string::npos)
      environment[entry.substr(0, equals)] = entry.substr(equals + 1);
  }
  environment["HOME"] = dir_ + "/home";
  environment["XDG_CACHE_HOME"] = dir_ + "/cache";
  environment["XDG_CONFIG_HOME"] = dir_ + "/config";
  environment["XDG_DATA_HOME"] = dir_ + "/data";
  environment["XDG_RUNTIME_DIR"] = dir_ + "/runtime";
  environment["TMPDIR"] = dir_;
  // No display: both browsers run headless, and nothing may reach a desktop session.
  environment.erase("DISPLAY");
  environment.erase("WAYLAND_DISPLAY");
  for (const auto& entry : options_.environment) environment[entry.first] = entry.second;

  std::vector<std::string> envStrings;
  for (const auto& entry : environment) envStrings.push_back(entry.first + "=" + entry.second);
  std::vector<char*> envp;
  for (std::string& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<char*> args;
  for (std::string& s : argv) args.push_back(s.data());
  args.push_back(nullptr);

  const std::string log = dir_ + "/driver.log";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], 0);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  // The test's own descriptors (its page server's socket, a lock) stay with the test.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(input[0]);
  if (spawned != 0) {
    close(input[1]);
    *error = std::string("cannot run ") + args[0];
    return false;
  }
  keeper_ = pid;
  keeperInput_ = input[1];
  driverPort_ = port;
  return true;
}

bool BrowserRunner::start(std::string* error) {
  stop();
  const int port = freeLoopbackPort();
  if (port < 0) {
    *error = "no free loopback port";
    return false;
  }
  if (!spawnKeeper(port, error)) return false;
  driver_ = std::make_unique<WebDriver>(port);

  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(15);
  while (!driver_->ready()) {
    if (ended(keeper_)) {
      keeper_ = -1;
      *error = std::string(engineName(options_.engine)) + "'s driver ended at start: " + logTail();
      stop();
      return false;
    }
    if (Clock::now() >= deadline) {
      *error = std::string(engineName(options_.engine)) + "'s driver not ready within 15 s";
      stop();
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  try {
    driver_->createSession(capabilities(), 30);
  } catch (const WebDriverError& e) {
    *error = std::string("no ") + engineName(options_.engine) + " session: " + e.what();
    stop();
    return false;
  }
  return true;
}

void BrowserRunner::waitKeeper() {
  // The keeper gives up on its own after about 11 s; past 15 s it is itself stuck.
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(15);
  int status = 0;
  for (;;) {
    const pid_t result = waitpid(keeper_, &status, WNOHANG);
    if (result == keeper_) {
      reapedAll_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
      break;
    }
    if (result < 0) break;
    if (Clock::now() >= deadline) {
      kill(keeper_, SIGKILL);
      waitpid(keeper_, &status, 0);
      reapedAll_ = false;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  keeper_ = -1;
}

void BrowserRunner::stop() {
  if (driver_) driver_->deleteSession(5);
  if (keeperInput_ >= 0) {
    close(keeperInput_);
    keeperInput_ = -1;
  }
  if (keeper_ > 0) waitKeeper();
}

std::string BrowserRunner::logTail(std::size_t bytes) const {
  std::ifstream file(dir_ + "/driver.log", std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  const std::string all = text.str();
  return all.size() > bytes ? all.substr(all.size() - bytes) : all;
}

}  // namespace zvr_test
