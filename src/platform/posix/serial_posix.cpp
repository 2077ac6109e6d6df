// The serial seam on Linux: a tty opened non-blocking and held exclusively,
// set raw through termios, read and written with poll for the waits.
//
// Exclusivity takes two locks because neither is enough alone: TIOCEXCL makes
// the kernel refuse further opens of the tty, but a privileged process passes
// through it; flock is honoured by every cooperating opener, root included,
// but not by programs that never ask for it.
#include "platform/serial_port.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace norvanta::serial_io {

namespace {

static_assert(sizeof(termios) <= saved_line_capacity, "SavedLine cannot hold a termios");

struct SpeedRow {
    uint32_t baud;
    speed_t speed;
};
constexpr std::array<SpeedRow, 6> speed_table{{
    {.baud = 4800, .speed = B4800},
    {.baud = 9600, .speed = B9600},
    {.baud = 19200, .speed = B19200},
    {.baud = 38400, .speed = B38400},
    {.baud = 57600, .speed = B57600},
    {.baud = 115200, .speed = B115200},
}};
static_assert(speed_table.size() == std::size(supported_bauds));

bool speed_of(uint32_t baud, speed_t& out_speed) {
    for (const SpeedRow& row : speed_table) {
        if (row.baud == baud) {
            out_speed = row.speed;
            return true;
        }
    }
    return false;
}

using Clock = std::chrono::steady_clock;

Clock::time_point deadline_after(int32_t wait_ms) {
    return Clock::now() + std::chrono::milliseconds(std::max(wait_ms, 0));
}

// Milliseconds left before the deadline, rounded up so that a poll never
// ends just short of it; 0 once it has passed.
int remaining_ms(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

int descriptor(DeviceHandle device) {
    return static_cast<int>(device);
}

} // namespace

bool is_supported_baud(uint32_t baud) {
    speed_t ignored{};
    return speed_of(baud, ignored);
}

DeviceHandle open_device(const char* path) {
    if (!path || !*path) return no_device;
    // Non-blocking, so that a line without carrier cannot hold the open.
    const int fd = ::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return no_device;
    if (!::isatty(fd) || ::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::ioctl(fd, TIOCEXCL) != 0) {
        ::close(fd);
        return no_device;
    }
    return fd;
}

bool configure_line(DeviceHandle device, uint32_t baud, SavedLine& out_saved) {
    const int fd = descriptor(device);
    speed_t speed{};
    if (!speed_of(baud, speed)) return false;
    termios original{};
    if (::tcgetattr(fd, &original) != 0) return false;
    std::memcpy(out_saved.bytes, &original, sizeof original);

    termios line = original;
    ::cfmakeraw(&line);
    line.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
    line.c_cflag |= CS8 | CLOCAL | CREAD;
    line.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    // Reads never wait inside the driver: poll does all the waiting.
    line.c_cc[VMIN] = 0;
    line.c_cc[VTIME] = 0;
    if (::cfsetispeed(&line, speed) != 0 || ::cfsetospeed(&line, speed) != 0) return false;

    // tcsetattr succeeds when any one change took, so read the line back; a
    // line that took only part of it goes back to what it was.
    termios applied{};
    if (::tcsetattr(fd, TCSANOW, &line) != 0 || ::tcgetattr(fd, &applied) != 0 ||
        (applied.c_cflag & CSIZE) != CS8 || (applied.c_cflag & (PARENB | CSTOPB)) != 0 ||
        ::cfgetospeed(&applied) != speed) {
        ::tcsetattr(fd, TCSANOW, &original);
        return false;
    }

    // Some receivers take their power or their go-ahead from DTR and RTS.
    // Lines without modem signals (pseudo-terminals, some USB adapters)
    // refuse the call, which is no reason to refuse the port.
    int signals = TIOCM_DTR | TIOCM_RTS;
    ::ioctl(fd, TIOCMBIS, &signals);
    return true;
}

ReadResult read_byte(DeviceHandle device, int32_t wait_ms, uint8_t& out_byte) {
    const int fd = descriptor(device);
    const auto deadline = deadline_after(wait_ms);
    for (;;) {
        pollfd watch{.fd = fd, .events = POLLIN, .revents = 0};
        const int ready = ::poll(&watch, 1, remaining_ms(deadline));
        if (ready < 0) {
            if (errno == EINTR) continue;
            return ReadResult::failed;
        }
        if (ready == 0) return ReadResult::nothing;
        // Bytes still queued are taken even when the line has hung up; the
        // failure then shows at the read after them.
        if (watch.revents & POLLIN) {
            const ssize_t count = ::read(fd, &out_byte, 1);
            if (count == 1) return ReadResult::byte;
            if (count < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
                if (remaining_ms(deadline) == 0) return ReadResult::nothing;
                continue;
            }
            // Nothing from a readable tty is the end of file of a hung-up line.
            return ReadResult::failed;
        }
        if (watch.revents & (POLLHUP | POLLERR | POLLNVAL)) return ReadResult::failed;
    }
}

WriteResult write_bytes(DeviceHandle device, const void* data, std::size_t count,
                        int32_t stall_limit_ms) {
    const int fd = descriptor(device);
    const auto* cursor = static_cast<const unsigned char*>(data);
    std::size_t left = count;
    auto deadline = deadline_after(stall_limit_ms);
    while (left > 0) {
        const ssize_t written = ::write(fd, cursor, left);
        if (written > 0) {
            cursor += written;
            left -= static_cast<std::size_t>(written);
            deadline = deadline_after(stall_limit_ms);
            continue;
        }
        if (written < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)
            return WriteResult::failed;
        const int wait_ms = remaining_ms(deadline);
        if (wait_ms == 0) return WriteResult::stalled;
        pollfd watch{.fd = fd, .events = POLLOUT, .revents = 0};
        if (::poll(&watch, 1, wait_ms) < 0 && errno != EINTR) return WriteResult::failed;
        if (watch.revents & (POLLHUP | POLLERR | POLLNVAL)) return WriteResult::failed;
    }
    return WriteResult::complete;
}

void close_device(DeviceHandle device, const SavedLine* saved) {
    if (device == no_device) return;
    const int fd = descriptor(device);
    if (saved) {
        // Input nobody read would otherwise be echoed back to the receiver
        // when the saved settings turn echo on again.
        ::tcflush(fd, TCIFLUSH);
        termios original{};
        std::memcpy(&original, saved->bytes, sizeof original);
        // TCSANOW: waiting for the output to drain could wait for ever on a
        // line whose other end has stopped reading.
        ::tcsetattr(fd, TCSANOW, &original);
    }
    // The exclusive flag belongs to the tty, not to this descriptor: it would
    // outlive the close while another descriptor keeps the tty open.
    ::ioctl(fd, TIOCNXCL);
    ::close(fd);
}

namespace {

// The names in a directory that begin with prefix, without . and ..
std::vector<std::string> names_in(const std::string& dir, std::string_view prefix) {
    std::vector<std::string> names;
    DIR* stream = ::opendir(dir.c_str());
    if (!stream) return names;
    while (const dirent* entry = ::readdir(stream)) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == ".." || !name.starts_with(prefix)) continue;
        names.emplace_back(name);
    }
    ::closedir(stream);
    return names;
}

// The digits after the prefix as a number, so that ttyUSB10 comes after
// ttyUSB2; -1 for a name that has anything else there.
long device_number(std::string_view name, std::size_t prefix_length) {
    if (name.size() <= prefix_length) return -1;
    long number = 0;
    constexpr long number_limit = 1000000;
    for (const char c : name.substr(prefix_length)) {
        if (c < '0' || c > '9') return -1;
        number = std::min(number * 10 + (c - '0'), number_limit);
    }
    return number;
}

// The final name of the path a symbolic link points to; empty for no link.
std::string link_target_name(const std::string& path) {
    std::array<char, 4096> target{};
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size() - 1);
    if (length <= 0) return {};
    const std::string_view text(target.data(), static_cast<std::size_t>(length));
    const std::size_t slash = text.rfind('/');
    return std::string(slash == std::string_view::npos ? text : text.substr(slash + 1));
}

// The kernel makes a ttyS for every port the legacy driver might find, and
// those with no hardware are platform devices of that driver.
bool has_serial_hardware(const std::string& tty_class_dir, const std::string& name) {
    const std::string device = tty_class_dir + "/" + name + "/device";
    struct stat info {};
    if (::stat(device.c_str(), &info) != 0) return false;
    return link_target_name(device + "/subsystem") != "platform" ||
           link_target_name(device + "/driver") != "serial8250";
}

struct DeviceFamily {
    std::string_view prefix;
    bool needs_hardware_check;
};
constexpr std::array<DeviceFamily, 3> numbered_families{{
    {"ttyUSB", false},
    {"ttyACM", false},
    {"ttyS", true},
}};

} // namespace

std::vector<std::string> list_serial_devices_in(const std::string& dev_dir,
                                                const std::string& tty_class_dir) {
    std::vector<std::string> devices;
    const std::string by_id = dev_dir + "/serial/by-id";
    std::vector<std::string> stable = names_in(by_id, "");
    std::sort(stable.begin(), stable.end());
    for (const std::string& name : stable)
        devices.push_back(by_id + "/" + name);
    for (const DeviceFamily& family : numbered_families) {
        std::vector<std::pair<long, std::string>> found;
        for (std::string& name : names_in(dev_dir, family.prefix)) {
            const long number = device_number(name, family.prefix.size());
            if (number < 0) continue;
            if (family.needs_hardware_check && !has_serial_hardware(tty_class_dir, name)) continue;
            found.emplace_back(number, std::move(name));
        }
        std::sort(found.begin(), found.end());
        for (const auto& [number, name] : found)
            devices.push_back(dev_dir + "/" + name);
    }
    return devices;
}

std::vector<std::string> list_serial_devices() {
    return list_serial_devices_in("/dev", "/sys/class/tty");
}

} // namespace norvanta::serial_io
