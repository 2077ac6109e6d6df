// A UDP socket of the test's own on a free loopback port.
#include "support/udp_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

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

std::vector<std::string> UdpListener::drain() const {
    UdpListener probe;
    probe.send_to(port_, udp_sentinel);
    std::vector<std::string> received;
    for (std::string text = next(); text != udp_sentinel && text != "<none>"; text = next())
        received.push_back(text);
    return received;
}

void UdpListener::send_to(int32_t port, const std::string& text) const {
    const sockaddr_in to = loopback(port);
    ::sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

int32_t free_udp_port() {
    UdpListener probe;
    return probe.port();
}

bool udp_port_bound(int32_t port) {
    char wanted[8];
    std::snprintf(wanted, sizeof wanted, ":%04X", static_cast<unsigned>(port));
    std::ifstream table("/proc/net/udp");
    std::string line;
    std::getline(table, line); // the heading
    for (std::string slot, local; std::getline(table, line);) {
        std::istringstream fields(line);
        fields >> slot >> local;
        if (local.ends_with(wanted)) return true;
    }
    return false;
}

} // namespace norvanta::testing
