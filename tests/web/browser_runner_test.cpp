// The browser runner: each run has a fresh home and profile, and stopping it leaves no process
// of the browser behind, the ones that outlive their parents included.

#include "browser_runner.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <errno.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace zvr_test {
// The engine's name in test names and messages.
void PrintTo(Engine engine, std::ostream* out) { *out << engineName(engine); }
}  // namespace zvr_test

namespace {

using zvr_test::BrowserOptions;
using zvr_test::BrowserRunner;
using zvr_test::Engine;

// The parent and the process group of `pid` from /proc; -1 each when it is gone.
struct Lineage {
  int parent = -1;
  int group = -1;
};
Lineage lineageOf(int pid) {
  Lineage lineage;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(stat, text)) return lineage;
  // "pid (name) state ppid pgrp ...": the name may hold anything, so read after its last ')'.
  const std::size_t end = text.rfind(')');
  if (end == std::string::npos) return lineage;
  std::istringstream rest(text.substr(end + 1));
  char state = 0;
  rest >> state >> lineage.parent >> lineage.group;
  return lineage;
}
int parentOf(int pid) { return lineageOf(pid).parent; }

// The local addresses of the TCP sockets listening on `port`, from /proc/net/tcp and tcp6, in
// the kernel's hexadecimal form ("0100007F" is 127.0.0.1).
std::vector<std::string> listeningAddresses(int port) {
  std::vector<std::string> found;
  char portHex[8];
  std::snprintf(portHex, sizeof portHex, "%04X", port);
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream file(table);
    std::string line;
    std::getline(file, line);  // the column names
    while (std::getline(file, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state;
      fields >> slot >> local >> remote >> state;
      const std::size_t colon = local.find(':');
      if (state == "0A" && colon != std::string::npos && local.substr(colon + 1) == portHex) {
        found.push_back(local.substr(0, colon));
      }
    }
  }
  return found;
}

// Every living process that descends from `root`.
std::set<int> descendants(int root) {
  std::set<int> found = {root};
  bool grew = true;
  while (grew) {
    grew = false;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const std::string name = entry.path().filename();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      const int pid = std::stoi(name);
      if (found.count(pid) == 0 && found.count(parentOf(pid)) != 0) {
        found.insert(pid);
        grew = true;
      }
    }
  }
  found.erase(root);
  return found;
}

std::string environmentOf(int pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
  std::string entry;
  while (std::getline(file, entry, '\0')) {
    if (entry.compare(0, name.size() + 1, name + "=") == 0) return entry.substr(name.size() + 1);
  }
  return "";
}

bool exists(int pid) { return kill(pid, 0) == 0 || errno != ESRCH; }

class BrowserRunnerTest : public ::testing::TestWithParam<Engine> {};

TEST_P(BrowserRunnerTest, RunsInAFreshHomeAndStopReapsEveryProcessOfTheBrowser) {
  BrowserOptions options;
  options.engine = GetParam();
  std::string folder;
  std::set<int> processes;
  {
    BrowserRunner browser(options);
    BrowserRunner other(options);
    folder = browser.folder();
    EXPECT_NE(folder, other.folder());
    std::string error;
    ASSERT_TRUE(browser.start(&error)) << error;
    browser.driver().navigate("about:blank");
    processes = descendants(browser.keeperPid());
    // The driver, the browser and the browser's own helpers.
    EXPECT_GE(processes.size(), 3u);
    for (int pid : processes) {
      const std::string home = environmentOf(pid, "HOME");
      if (!home.empty()) {
        EXPECT_EQ(home, folder + "/home") << "process " << pid;
      }
    }
    browser.stop();
    EXPECT_TRUE(browser.reapedAll());
    EXPECT_EQ(browser.keeperPid(), -1);
    for (int pid : processes) EXPECT_FALSE(exists(pid)) << "process " << pid << " is left";
  }
  EXPECT_FALSE(std::filesystem::exists(folder));
}

// The driver's own end (a killed driver) ends the run too: the keeper reaps what is left.
TEST_P(BrowserRunnerTest, AKilledDriverTakesItsBrowserWithIt) {
  BrowserOptions options;
  options.engine = GetParam();
  BrowserRunner browser(options);
  std::string error;
  ASSERT_TRUE(browser.start(&error)) << error;
  const std::set<int> processes = descendants(browser.keeperPid());
  ASSERT_FALSE(processes.empty());
  // The driver is the keeper's child that leads a process group of its own; the orphans the
  // keeper adopted (Chromium's crash handler) are its children too, in the driver's group.
  int driver = -1;
  for (int pid : processes) {
    const Lineage lineage = lineageOf(pid);
    if (lineage.parent == browser.keeperPid() && lineage.group == pid) driver = pid;
  }
  ASSERT_GT(driver, 0);
  kill(driver, SIGKILL);
  browser.stop();
  EXPECT_TRUE(browser.reapedAll());
  for (int pid : processes) EXPECT_FALSE(exists(pid)) << "process " << pid << " is left";
}

// The driver takes commands that start programs: it must be reachable from this machine only.
TEST_P(BrowserRunnerTest, DriverListensOnTheLoopbackOnly) {
  BrowserOptions options;
  options.engine = GetParam();
  BrowserRunner browser(options);
  std::string error;
  ASSERT_TRUE(browser.start(&error)) << error;
  const std::vector<std::string> addresses = listeningAddresses(browser.driverPort());
  ASSERT_FALSE(addresses.empty()) << "nothing listens on port " << browser.driverPort();
  for (const std::string& address : addresses) {
    EXPECT_TRUE(address == "0100007F" || address == "00000000000000000000000001000000")
        << "the driver listens on " << address << ", not on the loopback";
  }
}

INSTANTIATE_TEST_SUITE_P(Engines, BrowserRunnerTest,
                         ::testing::Values(Engine::kWpe, Engine::kChromium),
                         [](const ::testing::TestParamInfo<Engine>& info) {
                           return std::string(info.param == Engine::kWpe ? "Wpe" : "Chromium");
                         });

}  // namespace
