// The serial link over the serial seam: opening with the receiver's line
// settings, one-byte reads that end a batch at the first silence, paced
// writes, and the rule that any failure closes the port for good.
#include "navigation/serial_link.h"

#include <algorithm>
#include <string_view>

#include "core/memory.h"
#include "shell/julian.h"
#include "shell/main.h"

namespace norvanta {

namespace {

// A one-byte read may take the read constant plus this much per byte.
constexpr int32_t read_multiplier_ms_per_byte = 1;
// However long the read constant, one read attempt waits at most this long,
// so that the quitting test comes round at least once a second. Kept on
// purpose: the transfer protocols set 3000 and still see a read give up after
// a second, and they are written to go on asking.
constexpr int32_t read_wait_limit_ms = 1000;
// A write that the device takes nothing of for this long is given up.
constexpr int32_t write_stall_limit_ms = 1000;
// A closed port is polled in loops; each call sleeps this long instead of
// spinning.
constexpr int closed_port_sleep_ms = 20;
constexpr int empty_read_sleep_ms = 10;
// Paces the many small writes of the receiver protocols.
constexpr int write_pace_sleep_ms = 2;
// A call that took this many days is taken for a dead device. Kept on
// purpose: a call lasts at most a few seconds, so this guard never acts in
// ordinary use; it stands where a guard on a stuck driver call belongs.
constexpr double stuck_call_days = 2.0;

constexpr std::string_view device_namespace_prefix = "\\\\.\\";
constexpr std::string_view com_prefix = "COM";
constexpr std::string_view numbered_port_prefix = "/dev/ttyS";
// Port numbers stop growing here, which names no device but cannot overflow.
constexpr uint64_t com_number_limit = 1000000000;

bool is_open(const SerialPort* port) {
    return port && port->device != serial_io::no_device;
}

void close_if_stuck(SerialPort* port, double started_date) {
    if (date_difference(started_date, now_date()) >= stuck_call_days) close_serial(port);
}

int32_t read_wait_ms(const SerialPort& port) {
    const int32_t timeout_ms =
        std::clamp(port.read_timeout_ms, 0, read_wait_limit_ms - read_multiplier_ms_per_byte);
    return timeout_ms + read_multiplier_ms_per_byte;
}

} // namespace

std::string serial_device_path(const char* link_text) {
    if (!link_text) return {};
    std::string_view name = link_text;
    std::string_view rest = name;
    if (rest.starts_with(device_namespace_prefix))
        rest.remove_prefix(device_namespace_prefix.size());
    if (!rest.starts_with(com_prefix)) return std::string(name);
    rest.remove_prefix(com_prefix.size());
    uint64_t number = 0;
    for (const char c : rest) {
        if (c < '0' || c > '9') return std::string(name);
        number = std::min(number * 10 + static_cast<uint64_t>(c - '0'), com_number_limit);
    }
    if (number == 0) return {};
    return std::string(numbered_port_prefix) + std::to_string(number - 1);
}

void open_serial(const char* device_name, uint32_t baud, SerialPort*& out_port) {
    out_port = nullptr;
    const std::string path = serial_device_path(device_name);
    const serial_io::DeviceHandle device = serial_io::open_device(path.c_str());
    if (device == serial_io::no_device) return;

    SerialPort* port = nullptr;
    alloc_zero_mem(port, sizeof(SerialPort));
    port->device = device;
    if (!serial_io::configure_line(device, baud, port->saved_line)) {
        // The line kept its own settings: there is nothing to put back.
        serial_io::close_device(device, nullptr);
        free_mem(port);
        return;
    }
    set_serial_timeout(port, default_serial_timeout_ms);
    out_port = port;
}

void close_serial(SerialPort* port) {
    if (!is_open(port)) return;
    serial_io::close_device(port->device, &port->saved_line);
    port->device = serial_io::no_device;
}

void free_serial(SerialPort*& port) {
    close_serial(port);
    free_mem(port);
}

int read_serial_byte(SerialPort* port, uint8_t& out_byte) {
    const double started_date = now_date();
    if (!is_open(port)) {
        thread_sleep(closed_port_sleep_ms);
        return 0;
    }
    if (ClosingFlag.load() != 0) {
        close_serial(port);
        return 0;
    }
    const serial_io::ReadResult result =
        serial_io::read_byte(port->device, read_wait_ms(*port), out_byte);
    if (result == serial_io::ReadResult::failed) {
        close_serial(port);
        return -1;
    }
    const int count = result == serial_io::ReadResult::byte ? 1 : 0;
    close_if_stuck(port, started_date);
    if (count == 0) thread_sleep(empty_read_sleep_ms);
    return count;
}

long read_serial(void* port, std::size_t capacity, char* buffer) {
    auto* serial = static_cast<SerialPort*>(port);
    std::size_t count = 0;
    while (count < capacity) {
        uint8_t byte = 0;
        const int result = read_serial_byte(serial, byte);
        if (result < 0) return -1;
        if (result == 0) break;
        buffer[count++] = static_cast<char>(byte);
    }
    return static_cast<long>(count);
}

void write_serial(SerialPort* port, const void* buffer, std::size_t count) {
    if (!is_open(port)) {
        thread_sleep(closed_port_sleep_ms);
        return;
    }
    const double started_date = now_date();
    // A stalled write is left as it stands, as a write that timed out: the
    // device is still there and the protocols above decide what follows.
    if (serial_io::write_bytes(port->device, buffer, count, write_stall_limit_ms) ==
        serial_io::WriteResult::failed)
        close_serial(port);
    close_if_stuck(port, started_date);
    thread_sleep(write_pace_sleep_ms);
}

void write_serial_byte(SerialPort* port, uint8_t byte) {
    write_serial(port, &byte, 1);
}

void write_serial_word(SerialPort* port, uint16_t word) {
    const uint8_t bytes[2] = {static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word & 0xFF)};
    write_serial(port, bytes, sizeof bytes);
}

void set_serial_timeout(SerialPort* port, int32_t timeout_ms) {
    if (port) port->read_timeout_ms = timeout_ms;
}

} // namespace norvanta
