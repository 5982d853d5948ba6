// The browser runner: each run has a fresh home and profile, and stopping it leaves no process
// of the browser behind, the ones that outlive their parents included.

#include "browser_runner.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <errno.h>

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

// The parent of `pid` from /proc, or -1.
int parentOf(int pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(stat, text)) return -1;
  const std::size_t end = text.rfind(')');
  if (end == std::string::npos) return -1;
  std::istringstream rest(text.substr(end + 1));
  char state = 0;
  int parent = -1;
  rest >> state >> parent;
  return parent;
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
  // The driver is the keeper's one child while nothing has been orphaned yet.
  int driver = -1;
  for (int pid : processes) {
    if (parentOf(pid) == browser.keeperPid()) driver = pid;
  }
  ASSERT_GT(driver, 0);
  kill(driver, SIGKILL);
  browser.stop();
  EXPECT_TRUE(browser.reapedAll());
  for (int pid : processes) EXPECT_FALSE(exists(pid)) << "process " << pid << " is left";
}

INSTANTIATE_TEST_SUITE_P(Engines, BrowserRunnerTest,
                         ::testing::Values(Engine::kWpe, Engine::kChromium),
                         [](const ::testing::TestParamInfo<Engine>& info) {
                           return std::string(info.param == Engine::kWpe ? "Wpe" : "Chromium");
                         });

}  // namespace
