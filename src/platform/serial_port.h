// The serial seam: one serial device held for reading and writing by this
// process alone, with its line set for a GPS receiver (8 data bits, no parity,
// 1 stop bit, raw bytes, no flow control, DTR and RTS raised). Implemented per
// platform (platform/posix for Linux over termios). Every wait here has a
// bound, so that a silent or stuck device never holds a thread for good.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace norvanta::serial_io {

// A device handle word; no_device never names an open device.
using DeviceHandle = intptr_t;
inline constexpr DeviceHandle no_device = -1;

// The line settings found on a device at opening, kept as opaque bytes so
// that the record holding them stays a plain struct on every platform.
inline constexpr std::size_t saved_line_capacity = 128;
struct SavedLine {
    alignas(8) unsigned char bytes[saved_line_capacity];
};
static_assert(std::is_trivially_copyable_v<SavedLine> && std::is_standard_layout_v<SavedLine>);

// The line speeds a receiver link may ask for.
inline constexpr uint32_t supported_bauds[] = {4800, 9600, 19200, 38400, 57600, 115200};
bool is_supported_baud(uint32_t baud);

// Opens the device for reading and writing, refusing what is not a serial
// line and what another opener already holds; no_device on any failure.
DeviceHandle open_device(const char* path);

// Saves the present settings into out_saved, then sets the line at baud,
// 8N1, raw, no flow control, with DTR and RTS raised where the line has them.
// False when the settings cannot be read or replaced, or the speed is not one
// of supported_bauds; the device is then left with the settings it had.
bool configure_line(DeviceHandle device, uint32_t baud, SavedLine& out_saved);

enum class ReadResult { byte, nothing, failed };
// Waits up to wait_ms for one byte. failed means the device is gone or broken.
ReadResult read_byte(DeviceHandle device, int32_t wait_ms, uint8_t& out_byte);

enum class WriteResult { complete, stalled, failed };
// Writes all count bytes, waiting for room as long as the device takes some;
// gives up with stalled once it has taken nothing for stall_limit_ms.
WriteResult write_bytes(DeviceHandle device, const void* data, std::size_t count,
                        int32_t stall_limit_ms);

// Puts the saved settings back when given, releases the device and closes it.
// Every error is dropped.
void close_device(DeviceHandle device, const SavedLine* saved);

// The serial devices present, as paths a link may open, for the user to
// choose from: the stable names under /dev/serial/by-id first, then the
// ttyUSB, ttyACM and ttyS devices in the order of their numbers. A ttyS
// that the kernel lists with no hardware behind it is left out.
std::vector<std::string> list_serial_devices();
// The same with other directories standing for /dev and /sys/class/tty.
std::vector<std::string> list_serial_devices_in(const std::string& dev_dir,
                                                const std::string& tty_class_dir);

} // namespace norvanta::serial_io
