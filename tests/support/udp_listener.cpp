// A UDP socket of the test's own on a free loopback port.
#include "support/udp_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace norvanta::testing {
namespace {

constexpr int receive_deadline_ms = 5000;
constexpr std::size_t datagram_capacity = 70000;

sockaddr_in loopback(int32_t port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(static_cast<uint16_t>(port));
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return at;
}

} // namespace

UdpListener::UdpListener() {
    fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at = loopback(0);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    socklen_t length = sizeof at;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&at), &length);
    port_ = ntohs(at.sin_port);
}

UdpListener::~UdpListener() {
    ::close(fd_);
}

std::string UdpListener::next() const {
    pollfd watched{fd_, POLLIN, 0};
    if (::poll(&watched, 1, receive_deadline_ms) != 1) return "<none>";
    std::string buffer(datagram_capacity, '\0');
    ssize_t got = ::recv(fd_, buffer.data(), buffer.size(), 0);
    buffer.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return buffer;
}

std::string UdpListener::next_before_sentinel() const {
    UdpListener probe;
    probe.send_to(port_, udp_sentinel);
    return next();
}

void UdpListener::send_to(int32_t port, const std::string& text) const {
    const sockaddr_in to = loopback(port);
    ::sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

} // namespace norvanta::testing
