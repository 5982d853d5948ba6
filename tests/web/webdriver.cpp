#include "webdriver.h"

#include <httplib.h>

#include <memory>
#include <string>

namespace zvr_test {

namespace {

Json::Value parse(const std::string& text) {
  Json::Value parsed;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors)) {
    throw WebDriverError("the driver's answer is not JSON (" + errors +
                         "): " + text.substr(0, 200));
  }
  return parsed;
}

std::string decodeBase64(const std::string& text) {
  auto digit = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  std::string bytes;
  bytes.reserve(text.size() * 3 / 4);
  unsigned bits = 0;
  int count = 0;
  for (char c : text) {
    const int d = digit(c);
    if (d < 0) continue;  // padding and line breaks
    bits = (bits << 6) | static_cast<unsigned>(d);
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes.push_back(static_cast<char>((bits >> count) & 0xff));
    }
  }
  return bytes;
}

}  // namespace

std::string toJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

Json::Value WebDriver::command(const char* method, const std::string& path, const Json::Value* body,
                               int timeoutSeconds) {
  httplib::Client client("127.0.0.1", port_);
  client.set_connection_timeout(5);
  client.set_read_timeout(timeoutSeconds);
  client.set_write_timeout(5);
  httplib::Request request;
  request.method = method;
  request.path = path;
  if (body != nullptr) {
    request.body = toJson(*body);
    request.set_header("Content-Type", "application/json; charset=utf-8");
  }
  httplib::Response response;
  httplib::Error error = httplib::Error::Success;
  if (!client.send(request, response, error)) {
    throw WebDriverError(std::string(method) + " " + path + ": " + httplib::to_string(error));
  }
  Json::Value answer = parse(response.body);
  const Json::Value& value = answer["value"];
  if (response.status != 200 ||
      (value.isObject() && value["error"].isString() && value.isMember("message"))) {
    throw WebDriverError(std::string(method) + " " + path + ": " + std::to_string(response.status) +
                         " " + value.get("error", "").asString() + ": " +
                         value.get("message", "").asString().substr(0, 500));
  }
  return value;
}

std::string WebDriver::sessionPath(const std::string& tail) const {
  if (session_.empty()) throw WebDriverError("no session");
  return "/session/" + session_ + tail;
}

bool WebDriver::ready() {
  try {
    return command("GET", "/status", nullptr, 2).get("ready", false).asBool();
  } catch (const WebDriverError&) {
    return false;
  }
}

Json::Value WebDriver::createSession(const Json::Value& capabilities, int timeoutSeconds) {
  Json::Value body;
  body["capabilities"]["alwaysMatch"] = capabilities;
  const Json::Value value = command("POST", "/session", &body, timeoutSeconds);
  session_ = value.get("sessionId", "").asString();
  if (session_.empty()) throw WebDriverError("no session id in " + toJson(value));
  return value["capabilities"];
}

void WebDriver::deleteSession(int timeoutSeconds) {
  if (session_.empty()) return;
  try {
    command("DELETE", sessionPath(""), nullptr, timeoutSeconds);
  } catch (const WebDriverError&) {
    // The browser may be gone already; the keeper ends what is left of it.
  }
  session_.clear();
}

void WebDriver::navigate(const std::string& url, int timeoutSeconds) {
  Json::Value body;
  body["url"] = url;
  command("POST", sessionPath("/url"), &body, timeoutSeconds);
}

Json::Value WebDriver::executeSync(const std::string& script, const Json::Value& args,
                                   int timeoutSeconds) {
  Json::Value body;
  body["script"] = script;
  body["args"] = args.isArray() ? args : Json::Value(Json::arrayValue);
  return command("POST", sessionPath("/execute/sync"), &body, timeoutSeconds);
}

Json::Value WebDriver::executeAsync(const std::string& script, const Json::Value& args,
                                    int timeoutSeconds) {
  Json::Value timeouts;
  timeouts["script"] = timeoutSeconds * 1000;
  command("POST", sessionPath("/timeouts"), &timeouts, 5);
  Json::Value body;
  body["script"] = script;
  body["args"] = args.isArray() ? args : Json::Value(Json::arrayValue);
  // The driver ends the script at its own time-out; the HTTP read waits a little longer.
  return command("POST", sessionPath("/execute/async"), &body, timeoutSeconds + 5);
}

std::string WebDriver::screenshotPng(int timeoutSeconds) {
  const Json::Value value = command("GET", sessionPath("/screenshot"), nullptr, timeoutSeconds);
  if (!value.isString()) throw WebDriverError("the screenshot is not a string");
  return decodeBase64(value.asString());
}

}  // namespace zvr_test
