// A UDP socket of the test's own on a free loopback port: a client to send
// to, or a sender of its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace norvanta::testing {

class UdpListener {
  public:
    UdpListener();
    ~UdpListener();
    UdpListener(const UdpListener&) = delete;
    UdpListener& operator=(const UdpListener&) = delete;

    int32_t port() const { return port_; }
    // The next datagram, or "<none>" when none comes before a deadline that
    // only a broken machine reaches.
    std::string next() const;
    // Loopback delivery is in order and done when sendto returns, so a
    // sentinel sent now comes after anything sent before: reading it first
    // proves that nothing else came.
    std::string next_before_sentinel() const;
    // Everything that came before a sentinel sent now, oldest first.
    std::vector<std::string> drain() const;
    void send_to(int32_t port, const std::string& text) const;

  private:
    int fd_ = -1;
    int32_t port_ = 0;
};

inline constexpr const char* udp_sentinel = "<sentinel>";

// A port that nothing holds: taken from the system, then let go.
int32_t free_udp_port();
// Whether some socket of this machine is bound to the UDP port.
bool udp_port_bound(int32_t port);

} // namespace norvanta::testing
