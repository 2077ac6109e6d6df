// NMEA from the network: a UDP port whose datagrams are batches of text, as
// a serial burst is. The first sender heard is followed; others are dropped
// until it says $PKLNT,STOP or navigation starts again. A UDP link has no
// text log and sends no command.
#pragma once

#include <cstddef>

#include "diffusion/sockets.h"

namespace norvanta {

struct ReceiverLink;

// Binds the link's port_name (decimal) on every local address and gives the
// link its parser; 1 on success, 0 otherwise (a port already taken gives 0).
int open_udp_link(ReceiverLink& link);
// The parser's byte source: one datagram from the followed sender, waiting
// up to a second; 0 when none came, when another sent it, or when it did
// not fit the capacity.
long read_udp(void* record, std::size_t capacity, char* buffer);
// The next sender is followed. Any thread.
void forget_udp_client(SocketRecord* record);

} // namespace norvanta
