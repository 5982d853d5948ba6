// zvr_emulator: a media-service emulator for desktop integration and tests.
//
// Owns the service name on the bus, creates "/ZVR_PROXY", answers the client library's command
// messages with events (written into the segment, then emitted as the Event signal), serves the
// media of each start at a local URL over HTTP on 127.0.0.1, probes it with GStreamer for its
// definitions, and misbehaves on request.
//
//   zvr_emulator [--config FILE] [--bus ADDRESS] [--OPTION=VALUE ...]
//
// Options (also accepted one per line in the config file, and at run time through the
// velmora.zvr.Emulator.SetOption method):
//   delay=WORD:MS          answer WORD (create, start, preload, stop, seek, inspect) after MS
//   result=WORD:CODE       answer WORD with result code CODE (default 200)
//   silent=WORD|all        never answer WORD; "silent=" answers everything again
//   answer=WORD            answer WORD again
//   twice=1                emit every answer twice
//   repeat-id=1            answer "create" with the id of the previous creation again
//   stale-session=1        answer with a session id that no command carried
//   exit-after=N           exit once N commands were handled and answered
//   refuse-start=1         exit at once with status 3, before taking the bus name
//   segment=normal|malformed|no-terminator   what is written into /ZVR_PROXY
//   remove-segment         (run time only) remove the name /ZVR_PROXY now
//   segment-group=NAME     (start only) give /ZVR_PROXY the group NAME, shared with the host
//   definitions=TEXT       the text of every "definition" event instead of the probed one;
//                          nothing is probed and seeks are not checked ("definitions=": probe)
//   definition-delay=MS    least delay of "definition" after "started" (default 400)
//   probe-delay=MS         probing starts MS later
//   throttle=N             local URLs send at most N bytes/s per response (0: off)
//   cut-after=N            local URLs close the connection after N bytes of a body (0: off)
//   no-range=1             local URLs ignore ranges: 200, whole body, "Accept-Ranges: none"
//   first-byte-delay=MS    local URLs answer MS late
//   http-port=N            port of the media server (default: any free port)
//   record=FILE            append every command message to FILE as a JSON array per line

#include <signal.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "emulator.h"
#include "event_segment.h"
#include "media_server.h"
#include "zvr_bus_protocol.h"

namespace {

using zvr_emulator::Emulator;
using zvr_emulator::EventSegment;
using zvr_emulator::MediaServer;
using zvr_emulator::Settings;

bool readConfig(const std::string& path, Settings& settings) {
  std::ifstream file(path);
  if (!file) {
    std::fprintf(stderr, "zvr_emulator: cannot read %s\n", path.c_str());
    return false;
  }
  std::string line;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::string error;
    if (!zvr_emulator::applyOption(settings, line, &error)) {
      std::fprintf(stderr, "zvr_emulator: %s\n", error.c_str());
      return false;
    }
  }
  return true;
}

bool parseArguments(int argc, char** argv, Settings& settings, std::string& bus) {
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (argument.compare(0, 2, "--") != 0) {
      std::fprintf(stderr, "zvr_emulator: unexpected argument %s\n", argv[i]);
      return false;
    }
    argument = argument.substr(2);
    const bool hasValue = argument.find('=') != std::string::npos;
    if (argument == "config" || argument == "bus") {
      if (i + 1 >= argc) return false;
      const std::string value = argv[++i];
      if (argument == "bus") {
        bus = value;
      } else if (!readConfig(value, settings)) {
        return false;
      }
      continue;
    }
    if (!hasValue && i + 1 < argc && std::string(argv[i + 1]).compare(0, 2, "--") != 0) {
      argument += "=" + std::string(argv[++i]);
    }
    std::string error;
    if (!zvr_emulator::applyOption(settings, argument, &error)) {
      std::fprintf(stderr, "zvr_emulator: %s\n", error.c_str());
      return false;
    }
  }
  return true;
}

std::unique_ptr<sdbus::IConnection> connect(const std::string& bus) {
  std::string address = bus;
  if (address.empty()) {
    const char* variable = std::getenv(zvr_bus::kAddressVariable);
    address = variable != nullptr ? variable : "";
  }
  if (address.empty() || address == "session") return sdbus::createSessionBusConnection();
  if (address == "system") return sdbus::createSystemBusConnection();
  return sdbus::createSessionBusConnectionWithAddress(address);
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  std::string bus;
  if (!parseArguments(argc, argv, settings, bus)) return 2;
  if (settings.refuseStart) {
    std::fprintf(stderr, "zvr_emulator: refusing to start\n");
    return 3;
  }

  // Every thread started from here on inherits the blocked set; the main thread collects the
  // termination signals with sigwait.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    EventSegment segment(settings.segmentGroup);
    MediaServer media(settings.httpPort);
    std::unique_ptr<sdbus::IConnection> connection = connect(bus);
    std::unique_ptr<sdbus::IObject> object = sdbus::createObject(*connection, zvr_bus::kObjectPath);
    sdbus::IObject& exported = *object;
    Emulator emulator(
        settings, segment, media, [&exported](const std::vector<std::string>& record) {
          try {
            exported.emitSignal(zvr_bus::kEventSignal)
                .onInterface(zvr_bus::kInterface)
                .withArguments(record);
          } catch (const sdbus::Error& e) {
            std::fprintf(stderr, "zvr_emulator: cannot emit: %s\n", e.getMessage().c_str());
          }
        });

    object->registerMethod("SetValue")
        .onInterface(zvr_bus::kInterface)
        .withInputParamNames("key", "values")
        .withOutputParamNames("result")
        .implementedAs([&emulator](const std::string& key, const std::vector<std::string>& values) {
          return static_cast<int32_t>(emulator.handleSetValue(key, values));
        });
    object->registerMethod("GetValue")
        .onInterface(zvr_bus::kInterface)
        .withInputParamNames("key")
        .withOutputParamNames("result", "values")
        .implementedAs([&emulator](const std::string& key) {
          std::vector<std::string> values;
          const int32_t result = emulator.handleGetValue(key, &values);
          return std::make_tuple(result, values);
        });
    object->registerSignal(zvr_bus::kEventSignal)
        .onInterface(zvr_bus::kInterface)
        .withParameters<std::vector<std::string>>("record");
    object->registerMethod("SetOption")
        .onInterface(zvr_bus::kEmulatorInterface)
        .withInputParamNames("option")
        .withOutputParamNames("result", "error")
        .implementedAs([&emulator](const std::string& option) {
          std::string error;
          const bool ok = emulator.setOption(option, &error);
          return std::make_tuple(static_cast<int32_t>(ok ? 0 : -1), error);
        });
    object->registerMethod("RecordedCommands")
        .onInterface(zvr_bus::kEmulatorInterface)
        .withOutputParamNames("commands")
        .implementedAs([&emulator]() { return emulator.recordedCommands(); });
    object->registerMethod("ClearRecordedCommands")
        .onInterface(zvr_bus::kEmulatorInterface)
        .implementedAs([&emulator]() { emulator.clearRecordedCommands(); });
    object->finishRegistration();

    connection->requestName(zvr_bus::kServiceName);
    connection->enterEventLoopAsync();
    std::fprintf(stderr, "zvr_emulator: serving on the bus as %s, media at %s\n",
                 zvr_bus::kServiceName, media.base().c_str());

    std::thread finisher([&emulator] {
      emulator.waitFinished();
      if (emulator.finished()) kill(getpid(), SIGTERM);
    });
    int received = 0;
    sigwait(&signals, &received);

    connection->leaveEventLoop();
    try {
      connection->releaseName(zvr_bus::kServiceName);
    } catch (const sdbus::Error&) {
    }
    media.stop();
    emulator.shutdown();
    finisher.join();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zvr_emulator: %s\n", e.what());
    return 1;
  }
  return 0;
}
