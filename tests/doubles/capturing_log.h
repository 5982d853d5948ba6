// A capturing log, linked into unit tests in place of liblog_utils.
//
// Keeps every line given to cspDebugOutput0 with its severity. cspDebugOutput0 carries no
// level, so a line takes the severity of the last level check made on the same thread. All
// severities are enabled until a test chooses otherwise. Thread-safe.

#ifndef ZVR_TESTS_DOUBLES_CAPTURING_LOG_H_
#define ZVR_TESTS_DOUBLES_CAPTURING_LOG_H_

#include <set>
#include <string>
#include <vector>

namespace zvr_test {

struct LogLine {
  unsigned int severity;
  std::string text;      // the whole formatted line
  std::string function;  // for "[B-LOG] file:line:function(): message" lines
  std::string message;   // the part after "(): "; the whole text for other lines
};

class CapturedLog {
 public:
  static CapturedLog& instance();

  // Which severities the level check reports as enabled.
  void enableAll();
  void enableOnly(std::set<unsigned int> severities);

  std::vector<LogLine> lines() const;
  void clear();

  // The number of B-LOG lines whose message is exactly `message`, at `severity`.
  int count(const std::string& message, unsigned int severity) const;
  // The number of B-LOG lines whose message is exactly `message`, at any severity.
  int count(const std::string& message) const;
  // The messages, in order, of all B-LOG lines at `severity`.
  std::vector<std::string> messages(unsigned int severity) const;
  // The messages, in order, of all B-LOG lines.
  std::vector<std::string> messages() const;

  // Every level record checked, in order (three words each).
  std::vector<std::vector<unsigned int>> levelRecords() const;

  // Called on the writing thread after each line is kept, outside the log's lock; null for
  // none. A test can make the output a cancellation point with it.
  void setOutputHook(void (*hook)(const std::string& text));

  int outputCalls() const;
  int levelChecks() const;
  int baseNameCalls() const;

 private:
  CapturedLog() = default;
};

}  // namespace zvr_test

#endif  // ZVR_TESTS_DOUBLES_CAPTURING_LOG_H_
