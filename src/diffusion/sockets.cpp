// The socket layer: SocketRecords over the network seam.
//
// A record's send side is used by whichever thread sends to the clients, its
// receive side by the navigation worker alone; only the accepted peer and the
// status text are touched from two threads (the UI thread forgets the peer
// under the worker's feet), so those two go under one lock.
#include "diffusion/sockets.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "core/memory.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "shell/config.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

// Within a 16-byte socket address: the family, the port in network order at
// 2, the four address bytes at 4, then zeros.
constexpr uint16_t address_family_inet = 2;
constexpr int32_t port_offset = 2;
constexpr int32_t ipv4_offset = 4;
constexpr int32_t receive_datagram_wait_ms = 1000;
constexpr int32_t connect_receive_timeout_ms = 40000;
constexpr int32_t milliseconds_per_second = 1000;
constexpr std::size_t peer_text_capacity = 32; // " CLIENT 255.255.255.255"
constexpr std::size_t log_text_capacity = 256;

std::atomic<bool> started{false};
std::atomic<int32_t> name_lookups{0};
std::atomic<uint64_t> datagrams_taken{0};
// Guards peer and status of every record.
std::mutex peer_mutex;

void destroy_socket_record(void* data) {
    auto* record = static_cast<SocketRecord*>(data);
    if (record->socket != 0) net::close_socket(record->socket);
    record->socket = 0;
    free_mem(record->host);
    free_mem(record->address);
    free_mem(record->status);
}

net::SocketKind kind_of(const SocketRecord& record) {
    return record.protocol == socket_protocol_tcp ? net::SocketKind::stream
                                                  : net::SocketKind::datagram;
}

// First record of the store, in its order, whose host is this one byte for byte.
const SocketRecord* record_of_host(const char* host) {
    ObjectId id = 0;
    while (auto* record =
               static_cast<SocketRecord*>(next_obj(ObjectType::SocketRecord, id, nullptr))) {
        if (record->host && std::strcmp(record->host, host) == 0) return record;
    }
    return nullptr;
}

bool peer_known(const SocketRecord& record) {
    return record.peer[port_offset] != 0 || record.peer[port_offset + 1] != 0;
}

// Called with peer_mutex held.
void describe_locked(SocketRecord& record) {
    char* text = nullptr;
    str_copy(record.protocol == socket_protocol_tcp ? "TCP " : "UDP ", text);
    if (record.protocol == socket_protocol_tcp) {
        str_append(record.address, text);
    } else {
        str_append_long(record.port, text);
        str_append(" ", text);
        if (!peer_known(record)) {
            str_append(" NO CLIENT ", text);
        } else {
            char peer_text[peer_text_capacity];
            const uint8_t* bytes = record.peer + ipv4_offset;
            std::snprintf(peer_text, sizeof peer_text, " CLIENT %u.%u.%u.%u", bytes[0], bytes[1],
                          bytes[2], bytes[3]);
            str_append(peer_text, text);
        }
    }
    free_mem(record.status);
    record.status = text;
}

// The first refusal of a streak goes to the log; later ones would only fill it.
void note_refusal(SocketRecord& record, int code) {
    std::atomic_ref<int32_t> failing(record.failing);
    if (failing.exchange(1) != 0) return;
    char text[log_text_capacity];
    std::snprintf(text, sizeof text,
                  localized("Envoi refuse vers %s : %s", "Send refused to %s: %s"),
                  record.address ? record.address : "", net::error_text(code));
    log_and_keep_error(text);
}

// A datagram of a text longer than the chunk ends after the last CR LF that
// fits, so a client never gets half a sentence while whole ones would do. A
// sentence longer than the chunk is still cut at the chunk.
long datagram_block(const char* data, long remaining, long chunk) {
    if (remaining <= chunk) return remaining;
    for (long end = chunk; end >= 2; --end)
        if (data[end - 2] == '\r' && data[end - 1] == '\n') return end;
    return chunk;
}

} // namespace

void socket_startup() {
    if (started.load()) return;
    set_obj_type<SocketRecord>();
    set_obj_destructor(ObjectType::SocketRecord, destroy_socket_record);
    if (!net::startup()) {
        set_gblerr(ErrorCode::os_error);
        return;
    }
    started.store(true);
}

void socket_create(const char* host, int32_t port, int32_t protocol, SocketRecord*& out_record) {
    out_record = nullptr;
    // A number past the last port would be cut to 16 bits by the system and
    // send to a port nobody named.
    if (port < 1 || port > largest_port) return;
    if (!host) host = "";
    const SocketRecord* same_host = host[0] ? record_of_host(host) : nullptr;

    ObjectId id = 0;
    auto* record = cre_obj<SocketRecord>(&id);
    if (!record) return;
    str_copy(host, record->host);
    socket_address_key(host, port, record->address);
    record->port = port;
    record->protocol = protocol;

    uint8_t address[net::ipv4_address_bytes] = {};
    bool resolved = true;
    if (!host[0]) {
        record->address_length = net::ipv4_address_bytes;
    } else if (same_host) {
        std::memcpy(address, same_host->remote + ipv4_offset, sizeof address);
        record->address_length = same_host->address_length;
    } else if (net::parse_dotted(host, address)) {
        record->address_length = net::ipv4_address_bytes;
    } else {
        name_lookups.fetch_add(1);
        resolved = net::resolve_name(host, address, record->address_length);
    }
    if (resolved) {
        const uint16_t family = address_family_inet;
        std::memcpy(record->remote, &family, sizeof family);
        record->remote[port_offset] = static_cast<uint8_t>((port >> 8) & 0xff);
        record->remote[port_offset + 1] = static_cast<uint8_t>(port & 0xff);
        std::memcpy(record->remote + ipv4_offset, address, sizeof address);
        record->socket = net::open_socket(kind_of(*record));
    }
    if (!resolved || record->socket == 0) {
        del_obj_adr(ObjectType::SocketRecord, id);
        return;
    }
    int32_t largest = net::max_message_size(record->socket, kind_of(*record));
    record->chunk = largest < 0 ? socket_chunk_default_bytes : largest;
    if (record->chunk > socket_chunk_max_bytes) record->chunk = socket_chunk_max_bytes;
    out_record = record;
}

long socket_send(SocketRecord* record, const void* data, long length) {
    if (!record || record->socket == 0) return -1;
    const auto* cursor = static_cast<const char*>(data);
    const long chunk = record->chunk > 0 ? record->chunk : socket_chunk_default_bytes;
    const bool datagram = record->protocol != socket_protocol_tcp;
    long total = 0;
    long remaining = length;
    while (remaining > 0) {
        long block = datagram ? datagram_block(cursor, remaining, chunk)
                              : (remaining < chunk ? remaining : chunk);
        long sent = net::send_to(record->socket, kind_of(*record), cursor,
                                 static_cast<std::size_t>(block), record->remote);
        if (sent <= 0) {
            note_refusal(*record, sent < 0 ? net::last_error() : 0);
            return total;
        }
        total += sent;
        remaining -= sent;
        cursor += sent;
    }
    std::atomic_ref<int32_t>(record->failing).store(0);
    return total;
}

void socket_close(SocketRecord* record) {
    if (!record || record->socket == 0) return;
    net::close_socket(record->socket);
    record->socket = 0;
}

void socket_connect(SocketRecord* record) {
    if (!record || record->protocol != socket_protocol_tcp || record->socket == 0) return;
    net::set_receive_timeout(record->socket, connect_receive_timeout_ms);
    if (!net::connect_to(record->socket, record->remote)) socket_close(record);
}

void socket_bind(SocketRecord* record) {
    if (!record || record->socket == 0) return;
    record->bound = 1;
    bool ok = net::bind_to(record->socket, record->remote);
    if (ok && record->protocol == socket_protocol_tcp)
        ok = net::listen_on(record->socket, socket_listen_backlog);
    if (!ok) {
        record->bound = 0;
        socket_close(record);
    }
}

long socket_receive(SocketRecord* record, void* buffer, long length, int32_t timeout_s) {
    if (!record || record->socket == 0) return -1;
    if (timeout_s != 0 &&
        net::wait_readable(record->socket, timeout_s * milliseconds_per_second) <= 0)
        return -1;
    if (length < 1) return 0;
    auto* cursor = static_cast<char*>(buffer);
    long received = 0;
    while (received < length) {
        long got = net::receive(record->socket, cursor + received,
                                static_cast<std::size_t>(length - received));
        if (got < 0) return got;
        if (got == 0) return received;
        received += got;
    }
    return length;
}

long socket_receive_datagram(SocketRecord* record, void* buffer, long size) {
    if (!record || record->socket == 0 || size < 1) return 0;
    if (net::wait_readable(record->socket, receive_datagram_wait_ms) <= 0) return 0;
    uint8_t sender[net::socket_address_bytes] = {};
    int32_t sender_length = 0;
    long got = net::receive_from(record->socket, buffer, static_cast<std::size_t>(size), sender,
                                 sender_length);
    if (got < 0) return 0;
    datagrams_taken.fetch_add(1);
    // A datagram larger than the buffer is an error, not a cut text: a
    // sentence cut there would join the next datagram's.
    if (got > size) return 0;
    std::lock_guard lock(peer_mutex);
    if (!peer_known(*record)) {
        std::memcpy(record->peer, sender, sizeof sender);
        describe_locked(*record);
    }
    if (std::memcmp(record->peer, sender, static_cast<std::size_t>(sender_length)) != 0) return 0;
    return got;
}

void socket_forget_peer(SocketRecord* record) {
    if (!record || record->socket == 0) return;
    std::lock_guard lock(peer_mutex);
    std::memset(record->peer, 0, sizeof record->peer);
    describe_locked(*record);
}

void socket_address_key(const char* host, int32_t port, char*& out_text) {
    out_text = nullptr;
    str_copy(host ? host : "", out_text);
    str_append(":", out_text);
    str_append_long(port, out_text);
}

void socket_describe(SocketRecord* record) {
    if (!record) return;
    std::lock_guard lock(peer_mutex);
    describe_locked(*record);
}

std::string socket_status(const SocketRecord* record) {
    if (!record) return {};
    std::lock_guard lock(peer_mutex);
    return record->status ? record->status : "";
}

int32_t socket_handle(const SocketRecord* record) {
    return record ? record->socket : 0;
}

int32_t socket_bound(const SocketRecord* record) {
    return record ? record->bound : 0;
}

int32_t socket_protocol(const SocketRecord* record) {
    return record ? record->protocol : 0;
}

const char* socket_address(const SocketRecord* record) {
    return record ? record->address : nullptr;
}

int32_t socket_name_lookups() {
    return name_lookups.load();
}

uint64_t socket_datagrams_taken() {
    return datagrams_taken.load();
}

} // namespace norvanta
