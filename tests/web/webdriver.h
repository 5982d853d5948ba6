// A small W3C WebDriver client over plain HTTP and JSON: one session on a driver listening on a
// loopback port (WPEWebDriver, chromedriver). Every command is bounded by the read time-out
// given for it; a failed command throws WebDriverError with the driver's error and message.

#ifndef ZVR_TESTS_WEB_WEBDRIVER_H_
#define ZVR_TESTS_WEB_WEBDRIVER_H_

#include <json/json.h>

#include <stdexcept>
#include <string>

namespace zvr_test {

class WebDriverError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class WebDriver {
 public:
  explicit WebDriver(int port) : port_(port) {}

  int port() const { return port_; }
  bool hasSession() const { return !session_.empty(); }

  // GET /status: whether the driver answers and says it is ready for a new session.
  bool ready();

  // POST /session with {"capabilities": {"alwaysMatch": capabilities}}; returns the
  // capabilities the driver reports.
  Json::Value createSession(const Json::Value& capabilities, int timeoutSeconds = 30);
  // DELETE /session/{id}; ends the browser. Does nothing without a session; never throws.
  void deleteSession(int timeoutSeconds = 5);

  // Navigates and waits for the page's load event, as the driver does.
  void navigate(const std::string& url, int timeoutSeconds = 30);
  // Runs `script` as a function body with `args` (a JSON array) and returns its result.
  Json::Value executeSync(const std::string& script, const Json::Value& args = Json::Value(),
                          int timeoutSeconds = 10);
  // As executeSync, but the result is what the script passes to its last argument, a callback.
  // The driver's script time-out is set to `timeoutSeconds` first.
  Json::Value executeAsync(const std::string& script, const Json::Value& args = Json::Value(),
                           int timeoutSeconds = 10);
  // The page's viewport as PNG bytes.
  std::string screenshotPng(int timeoutSeconds = 15);

 private:
  // Sends one command; returns the answer's "value", or throws.
  Json::Value command(const char* method, const std::string& path, const Json::Value* body,
                      int timeoutSeconds);
  std::string sessionPath(const std::string& tail) const;

  int port_;
  std::string session_;
};

// Serialises `value` on one line.
std::string toJson(const Json::Value& value);

}  // namespace zvr_test

#endif  // ZVR_TESTS_WEB_WEBDRIVER_H_
