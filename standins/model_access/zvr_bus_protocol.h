// Names shared by the desktop model-access library and the media-service emulator on D-Bus.
//
// The service owns kServiceName and exports kObjectPath with the interface kInterface:
//   method SetValue(s key, as values) -> (i result)   write a named value (the command key)
//   method GetValue(s key) -> (i result, as values)    read a named value (the event key)
//   signal Event(as record)                            one event record
// The emulator adds kEmulatorInterface on the same object for tests and tools.

#ifndef ZVR_BUS_PROTOCOL_H_
#define ZVR_BUS_PROTOCOL_H_

namespace zvr_bus {

constexpr const char* kServiceName = "velmora.zvr.MediaService";
constexpr const char* kObjectPath = "/velmora/zvr/MediaService";
constexpr const char* kInterface = "velmora.zvr.ModelAccess";
constexpr const char* kEmulatorInterface = "velmora.zvr.Emulator";
constexpr const char* kEventSignal = "Event";

// The bus to use: unset or "session" for the session bus, "system" for the system bus, anything
// else is a D-Bus address such as "unix:path=/tmp/bus".
constexpr const char* kAddressVariable = "ZVR_DBUS_ADDRESS";

// Method calls to the service give up after this long.
constexpr unsigned int kCallTimeoutMs = 500;

}  // namespace zvr_bus

#endif  // ZVR_BUS_PROTOCOL_H_
