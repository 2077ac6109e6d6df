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

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
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

} // namespace norvanta::serial_io
