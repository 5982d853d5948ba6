// Runs one headless browser behind its WebDriver server, for one test or one run of a program:
// WPE WebKit (WPEWebDriver starting cog on its headless platform) or Chromium (chromedriver).
//
// Every run gets a fresh temporary folder holding its HOME, XDG folders and browser profile,
// and a free loopback port for the driver. The driver runs under zvr_browser_keeper, which
// holds it in a process group of its own and adopts every process the browser leaves behind;
// stop() (and the destructor) ends the session, closes the keeper's input and waits for the
// keeper, which kills and reaps all of them, then removes the folder. Every wait is bounded.

#ifndef ZVR_TESTS_WEB_BROWSER_RUNNER_H_
#define ZVR_TESTS_WEB_BROWSER_RUNNER_H_

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "webdriver.h"

namespace zvr_test {

enum class Engine { kWpe, kChromium };

const char* engineName(Engine engine);

struct BrowserOptions {
  Engine engine = Engine::kWpe;
  // Added to the driver's (and so the browser's) environment, e.g. GST_PLUGIN_PATH and the bus.
  std::map<std::string, std::string> environment;
  // Added to the browser's command line.
  std::vector<std::string> arguments;
};

class BrowserRunner {
 public:
  explicit BrowserRunner(BrowserOptions options);
  ~BrowserRunner();
  BrowserRunner(const BrowserRunner&) = delete;
  BrowserRunner& operator=(const BrowserRunner&) = delete;

  // Starts the driver and opens a session, which starts the browser. False with `error` set
  // when the driver does not become ready within 15 s or the session cannot be created.
  bool start(std::string* error);
  // Ends the session and every process of the run; waits at most about 15 s. Idempotent.
  void stop();

  WebDriver& driver() { return *driver_; }
  // The run's temporary folder (HOME, profile, the driver's log).
  const std::string& folder() const { return dir_; }
  // The last `bytes` of the driver's and browser's output.
  std::string logTail(std::size_t bytes = 3000) const;
  // The keeper's process while the run lasts, else -1; every process of the run descends
  // from it.
  pid_t keeperPid() const { return keeper_; }
  // The loopback port the driver listens on, once started.
  int driverPort() const { return driverPort_; }
  // Whether the keeper reaped every process of the run; valid after stop().
  bool reapedAll() const { return reapedAll_; }

 private:
  bool spawnKeeper(int port, std::string* error);
  Json::Value capabilities() const;
  void waitKeeper();

  BrowserOptions options_;
  std::string dir_;
  pid_t keeper_ = -1;
  int keeperInput_ = -1;
  int driverPort_ = -1;
  bool reapedAll_ = false;
  std::unique_ptr<WebDriver> driver_;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_WEB_BROWSER_RUNNER_H_
