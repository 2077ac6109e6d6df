// The network seam on Linux: BSD sockets, IPv4 only.
#include "platform/net.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace norvanta::net {

namespace {

static_assert(sizeof(sockaddr_in) == socket_address_bytes);

// The largest payload of one UDP datagram over IPv4 (65535 less the IP and
// UDP headers). Linux has no query for it; the layer above cuts it down to
// its own chunk anyway.
constexpr int32_t udp_ipv4_max_payload_bytes = 65507;

sockaddr_in to_sockaddr(const uint8_t address[socket_address_bytes]) {
    sockaddr_in out{};
    std::memcpy(&out, address, sizeof out);
    return out;
}

} // namespace

bool startup() {
    return true;
}

bool parse_dotted(const char* host, uint8_t out_address[ipv4_address_bytes]) {
    in_addr parsed{};
    if (!host || inet_aton(host, &parsed) == 0) return false;
    std::memcpy(out_address, &parsed, ipv4_address_bytes);
    return true;
}

bool resolve_name(const char* host, uint8_t out_address[ipv4_address_bytes], int32_t& out_length) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* answers = nullptr;
    if (!host || getaddrinfo(host, nullptr, &hints, &answers) != 0 || !answers) return false;
    bool found = false;
    for (const addrinfo* answer = answers; answer; answer = answer->ai_next) {
        if (answer->ai_family != AF_INET || !answer->ai_addr) continue;
        const auto* in = reinterpret_cast<const sockaddr_in*>(answer->ai_addr);
        std::memcpy(out_address, &in->sin_addr, ipv4_address_bytes);
        out_length = ipv4_address_bytes;
        found = true;
        break;
    }
    freeaddrinfo(answers);
    return found;
}

// Descriptor 0 is possible when standard input was closed; the layer above
// reads 0 as "closed", so such a socket is moved to another number.
int32_t open_socket(SocketKind kind) {
    int type = (kind == SocketKind::stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC;
    int fd = ::socket(AF_INET, type, 0);
    if (fd == 0) {
        int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
        ::close(fd);
        fd = moved;
    }
    return fd < 0 ? 0 : fd;
}

int32_t max_message_size(int32_t, SocketKind kind) {
    return kind == SocketKind::datagram ? udp_ipv4_max_payload_bytes : -1;
}

void close_socket(int32_t socket) {
    int saved = errno;
    ::shutdown(socket, SHUT_RDWR);
    ::close(socket);
    errno = saved;
}

bool set_receive_timeout(int32_t socket, int32_t timeout_ms) {
    timeval limit{};
    limit.tv_sec = timeout_ms / 1000;
    limit.tv_usec = (timeout_ms % 1000) * 1000;
    return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0;
}

bool connect_to(int32_t socket, const uint8_t address[socket_address_bytes]) {
    sockaddr_in to = to_sockaddr(address);
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
}

bool bind_to(int32_t socket, const uint8_t address[socket_address_bytes]) {
    sockaddr_in at = to_sockaddr(address);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&at), sizeof at) == 0;
}

bool listen_on(int32_t socket, int32_t backlog) {
    return ::listen(socket, backlog) == 0;
}

// MSG_NOSIGNAL: a stream whose peer has gone must fail the send, not end the
// process with SIGPIPE.
long send_to(int32_t socket, SocketKind kind, const void* data, std::size_t length,
             const uint8_t address[socket_address_bytes]) {
    sockaddr_in to = to_sockaddr(address);
    int flags = MSG_NOSIGNAL;
    if (kind == SocketKind::datagram) flags |= MSG_DONTWAIT;
    ssize_t sent;
    do {
        sent = ::sendto(socket, data, length, flags, reinterpret_cast<const sockaddr*>(&to),
                        sizeof to);
    } while (sent < 0 && errno == EINTR);
    return static_cast<long>(sent);
}

int wait_readable(int32_t socket, int32_t timeout_ms) {
    pollfd watched{};
    watched.fd = socket;
    watched.events = POLLIN;
    int ready = ::poll(&watched, 1, timeout_ms);
    if (ready < 0) return errno == EINTR ? 0 : -1;
    return ready > 0 ? 1 : 0;
}

long receive(int32_t socket, void* buffer, std::size_t length) {
    ssize_t got;
    do {
        got = ::recv(socket, buffer, length, 0);
    } while (got < 0 && errno == EINTR);
    return static_cast<long>(got);
}

long receive_from(int32_t socket, void* buffer, std::size_t length,
                  uint8_t out_sender[socket_address_bytes], int32_t& out_sender_length) {
    sockaddr_in from{};
    socklen_t from_length = sizeof from;
    ssize_t got;
    do {
        got =
            ::recvfrom(socket, buffer, length, MSG_TRUNC, reinterpret_cast<sockaddr*>(&from),
                       &from_length);
    } while (got < 0 && errno == EINTR);
    std::memcpy(out_sender, &from, socket_address_bytes);
    out_sender_length = static_cast<int32_t>(from_length < sizeof from ? from_length : sizeof from);
    return static_cast<long>(got);
}

int last_error() {
    return errno;
}

const char* error_text(int code) {
    return std::strerror(code);
}

} // namespace norvanta::net
