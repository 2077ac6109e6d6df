// The socket layer: every socket of the program lives in one SocketRecord of
// the ObjectStore, so that a host name is resolved only once and the rest of
// the program holds a plain record, never a socket call. IPv4 only. Used to
// send sentences to the diffusion clients and to receive them on the UDP
// source.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "core/mobj.h"
#include "platform/net.h"

namespace norvanta {

inline constexpr int32_t socket_protocol_tcp = 1;
inline constexpr int32_t socket_protocol_udp = 2;
// The largest block one send gets, whatever the system would take.
inline constexpr int32_t socket_chunk_max_bytes = 1470;
// The block of a socket whose system gives no largest message size.
inline constexpr int32_t socket_chunk_default_bytes = 100;
inline constexpr int32_t socket_listen_backlog = 10;
inline constexpr int32_t largest_port = 65535;
inline constexpr int32_t socket_host_capacity = 96; // "%95s" and its terminator

struct SocketRecord {
    static constexpr ObjectType object_type = ObjectType::SocketRecord;

    ObjectId id;                               // object header
    ObjectType type;                           // object header: SocketRecord
    char* host;                                // owned; as given, empty for any local address
    char* address;                             // owned; the key, "host:port"
    char* status;                              // owned; the state in words
    int32_t port;                              // host order
    int32_t protocol;                          // socket_protocol_tcp or _udp
    int32_t socket;                            // the handle, 0 when closed
    uint8_t remote[net::socket_address_bytes]; // family 2, port (network order), address
    uint8_t peer[net::socket_address_bytes];   // the sender a receiver accepted; port 0: none
    int32_t address_length;                    // bytes of the address in remote
    int32_t bound;                             // 1 while the socket serves as a receiver
    int32_t chunk;                             // bytes of one send, at most 1470
    int32_t failing;                           // 1 from a refused send to the next good one
};
static_assert(std::is_trivially_copyable_v<SocketRecord> &&
              std::is_standard_layout_v<SocketRecord>);

// Registers the record type and starts the platform's sockets, once; a
// refusal stores os_error.
void socket_startup();

// A record with an open socket, not bound and not connected; out_record is
// null on any failure (a port below 1, a name that does not resolve, no
// socket), and gblerr is left as it was.
void socket_create(const char* host, int32_t port, int32_t protocol, SocketRecord*& out_record);
// Sends all of data in blocks of the record's chunk; returns the bytes sent,
// -1 for a null or closed record. A block that the system refuses ends the
// send: what went before it is the result, and the refusal is logged once
// until a send goes through again.
long socket_send(SocketRecord* record, const void* data, long length);
void socket_close(SocketRecord* record);
// TCP only: connects with a receive timeout; a failure closes the socket.
void socket_connect(SocketRecord* record);
// Binds remote (and listens, for TCP); a failure closes the socket.
void socket_bind(SocketRecord* record);
// TCP: blocks until length bytes have come; -1 at the timeout (whole
// seconds, 0 for none), a negative value on an error.
long socket_receive(SocketRecord* record, void* buffer, long length, int32_t timeout_s);
// One datagram from the accepted peer, waiting up to a second; 0 when none
// came or it came from another sender. The first sender heard is accepted.
long socket_receive_datagram(SocketRecord* record, void* buffer, long size);
// The next sender is accepted anew. Any thread.
void socket_forget_peer(SocketRecord* record);
// "host:port" in a fresh owned text (freed with free_mem).
void socket_address_key(const char* host, int32_t port, char*& out_text);
// Rewrites status.
void socket_describe(SocketRecord* record);
// A copy of status, safe beside a worker that rewrites it.
std::string socket_status(const SocketRecord* record);

// Accessors; 0 (or null) for a null record.
int32_t socket_handle(const SocketRecord* record);
int32_t socket_bound(const SocketRecord* record);
int32_t socket_protocol(const SocketRecord* record);
const char* socket_address(const SocketRecord* record);

// How many times the name service was asked, for the tests of the reuse of
// a resolved name.
int32_t socket_name_lookups();
// How many datagrams receivers have taken from the system, from any sender,
// for the tests that wait until a datagram was read.
uint64_t socket_datagrams_taken();

} // namespace norvanta
