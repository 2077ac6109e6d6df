// The network seam: IPv4 sockets as the socket layer needs them, and nothing
// more. Implemented per platform (platform/posix for Linux over BSD sockets).
// A socket is a plain handle word; 0 never names an open socket, so the
// layer above can keep 0 for "closed".
#pragma once

#include <cstddef>
#include <cstdint>

namespace norvanta::net {

inline constexpr int32_t ipv4_address_bytes = 4;
inline constexpr int32_t socket_address_bytes = 16;

// Starts the platform's socket library; false when it refuses.
bool startup();

// A dotted address in any of the forms the classic parser takes ("127.0.0.1",
// "127.1", "0x7f000001"); never asks the name service. False when the text is
// not one.
bool parse_dotted(const char* host, uint8_t out_address[ipv4_address_bytes]);
// Asks the name service for the first IPv4 address of a name; writes the
// address and its length in bytes. False when there is no answer.
bool resolve_name(const char* host, uint8_t out_address[ipv4_address_bytes], int32_t& out_length);

enum class SocketKind { stream, datagram };

// A new socket, not bound and not connected; 0 on failure.
int32_t open_socket(SocketKind kind);
// The largest message that one send may carry on this socket, or -1 when the
// platform has no such figure.
int32_t max_message_size(int32_t socket, SocketKind kind);
// Shuts both directions down and closes; every error is dropped.
void close_socket(int32_t socket);
// Receive timeout of a stream socket, in milliseconds.
bool set_receive_timeout(int32_t socket, int32_t timeout_ms);
bool connect_to(int32_t socket, const uint8_t address[socket_address_bytes]);
bool bind_to(int32_t socket, const uint8_t address[socket_address_bytes]);
bool listen_on(int32_t socket, int32_t backlog);

// One send to address; the count sent, or -1 with the reason in last_error().
// A datagram send never waits for room in the system's buffers: no room is a
// refusal like any other.
long send_to(int32_t socket, SocketKind kind, const void* data, std::size_t length,
             const uint8_t address[socket_address_bytes]);
// Waits until the socket can be read; 1 when it can, 0 at the timeout, -1 on
// an error.
int wait_readable(int32_t socket, int32_t timeout_ms);
// One receive; the count, 0 at the peer's end, -1 on an error.
long receive(int32_t socket, void* buffer, std::size_t length);
// One datagram with its sender's 16-byte address and the length of that
// address; -1 on an error. The count is the datagram's whole length, also
// when it was longer than the buffer and only length bytes were kept.
long receive_from(int32_t socket, void* buffer, std::size_t length,
                  uint8_t out_sender[socket_address_bytes], int32_t& out_sender_length);

// The system's code and text for the last failure on this thread.
int last_error();
const char* error_text(int code);

} // namespace norvanta::net
