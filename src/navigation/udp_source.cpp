// The UDP source of live navigation, over the socket layer's receiver.
#include "navigation/udp_source.h"

#include <cstdlib>

#include "core/object_store.h"
#include "navigation/nmea_parser.h"
#include "navigation/worker.h"
#include "shell/errors.h"

namespace norvanta {

int open_udp_link(ReceiverLink& link) {
    if (!link.port_name || link.port_name[0] == '\0') return 0;
    const auto port = static_cast<int32_t>(std::strtol(link.port_name, nullptr, 10));
    SocketRecord* record = nullptr;
    socket_create("", port, socket_protocol_udp, record);
    if (!record) return 0;
    socket_bind(record);
    if (socket_handle(record) == 0) {
        del_obj(ObjectType::SocketRecord, record->id);
        return 0;
    }
    link.port = record;
    NmeaParser* parser = new_nmea_parser(record, read_udp);
    if (parser) new_nav_fix(parser->fix);
    link.parser = parser;
    return error_pending() ? 0 : 1;
}

long read_udp(void* record, std::size_t capacity, char* buffer) {
    return socket_receive_datagram(static_cast<SocketRecord*>(record), buffer,
                                   static_cast<long>(capacity));
}

void forget_udp_client(SocketRecord* record) {
    socket_forget_peer(record);
}

} // namespace norvanta
