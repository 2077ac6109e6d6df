// The serial link: the one byte transport for every receiver on a serial
// line (NMEA, Garmin, Magellan, Emtac Trine, GlobalSat). Reads are one byte
// at a time with a short time limit, so that a batch ends at the first
// silence of the line, which is what separates a receiver's bursts. Writes
// are byte-exact and paced.
//
// Nothing here sets gblerr: every failure closes the port, and a closed port
// reads nothing and swallows writes, slowly enough that polling it doesn't
// spin. A port belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "platform/serial_port.h"

namespace norvanta {

// The read constant a port starts with: a one-byte read gives up after this
// plus 1 ms.
inline constexpr int32_t default_serial_timeout_ms = 100;

// On other systems a port carries its own wait events and overlap records
// beside the handle; here every wait is a poll on the descriptor itself, so
// the record needs nothing more than these.
struct SerialPort {
    serial_io::DeviceHandle device;  // serial_io::no_device once closed
    int32_t read_timeout_ms;         // the read constant; see set_serial_timeout
    serial_io::SavedLine saved_line; // settings found at opening, put back at closing
};
static_assert(std::is_trivially_copyable_v<SerialPort> && std::is_standard_layout_v<SerialPort>);

// The device path of a link text: "COM<n>" (also written "\\.\COM<n>"; no
// digits read as 0) is the n-th serial port, /dev/ttyS<n-1>; COM0 names no
// device and gives "". Any other text is a device path as it stands.
std::string serial_device_path(const char* link_text);

// Opens the device named by device_name (through serial_device_path) at
// baud, 8N1, and sets the read constant to default_serial_timeout_ms.
// out_port is null when the device is missing, busy, not a serial line, or
// refuses the settings.
void open_serial(const char* device_name, uint32_t baud, SerialPort*& out_port);
// Puts the line back as it was found and closes it; the record stays, closed.
void close_serial(SerialPort* port);
// close_serial, then the record is freed and the variable nulled.
void free_serial(SerialPort*& port);

// 1 with a byte, 0 with none in the time allowed, -1 when the device failed
// (the port is then closed).
int read_serial_byte(SerialPort* port, uint8_t& out_byte);
// Bytes up to capacity, ending at the first read that brings none; -1 when
// the device fails, and the bytes of this call are then lost. port is a
// SerialPort: this is the byte source of a parser on a serial link.
long read_serial(void* port, std::size_t capacity, char* buffer);

void write_serial(SerialPort* port, const void* buffer, std::size_t count);
void write_serial_byte(SerialPort* port, uint8_t byte);
// Two bytes, the high byte first.
void write_serial_word(SerialPort* port, uint16_t word);

// The read constant in milliseconds; the link reads with 100, the transfer
// protocols set their own.
void set_serial_timeout(SerialPort* port, int32_t timeout_ms);

} // namespace norvanta
