// Live navigation: one background thread owns one GPS source at a time, the
// current ReceiverLink. It connects, reads the source in a loop, parses what
// comes, and hands each batch to the UI thread through a single-slot
// mailbox and event 10. The UI side converts the fix to WGS 84, shows it,
// and passes the batch text to diffusion exactly as it came.
//
// Who touches what: state, the mailbox, the pending mark and the two log
// switches are atomic words shared by the worker and the UI thread. The
// worker alone reads the port and the parser; the UI thread alone owns the
// conversion, the running distance and last_mark.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

#include "core/mobj.h"
#include "navigation/nmea_parser.h"

namespace norvanta {

inline constexpr uint32_t link_kind_serial = 1;
inline constexpr uint32_t link_kind_usb = 2;
inline constexpr uint32_t link_kind_udp = 3;

inline constexpr uint32_t link_protocol_unknown = 0;
inline constexpr uint32_t link_protocol_garmin = 1;
inline constexpr uint32_t link_protocol_magellan = 2;
inline constexpr uint32_t link_protocol_emtac = 3;
inline constexpr uint32_t link_protocol_globalsat = 4;
inline constexpr uint32_t link_protocol_nmea = 5;

inline constexpr int32_t link_state_idle = 0;
inline constexpr int32_t link_state_running = 1;
inline constexpr int32_t link_state_stopping = -1;

// The bytes one read asks for; they bound the text of one fix.
inline constexpr std::size_t batch_capacity = 2000;

struct ReceiverLink {
    static constexpr ObjectType object_type = ObjectType::ReceiverLink;

    ObjectId id;             // object header
    ObjectType type;         // object header: ReceiverLink
    uint32_t kind;           // link_kind_*
    uint32_t protocol;       // link_protocol_*
    char* name;              // owned; shown to the user
    char* port_name;         // owned; the device path, or the UDP port in decimal
    uint32_t baud;           // line speed
    uint32_t capabilities;   // what the receiver can transfer
    void* device;            // receiver details of the transfer sessions; null here
    void* port;              // SerialPort, or the UDP SocketRecord
    void* session;           // protocol session of the transfers; null here
    void* parser;            // NmeaParser, or a RawReader while protocol is unknown
    ObjectId geo_reference;  // GeoReference of the raw coordinates
    char* datum_seen;        // owned; the datum name last acted on
    uint32_t datum_changed;  // 1 when the transform to WGS 84 must be rebuilt
    int32_t state;           // link_state_*; read and written through link_state()
    uint32_t state_reserved; // not used by the worker
    uint32_t nmea_log_on;    // an NMEA text log is open
    uint32_t raw_log_on;     // a raw receiver log is open
};
static_assert(std::is_trivially_copyable_v<ReceiverLink> &&
              std::is_standard_layout_v<ReceiverLink>);

// The state word is shared by the two threads.
inline std::atomic_ref<int32_t> link_state(ReceiverLink& link) {
    return std::atomic_ref<int32_t>(link.state);
}

// The byte source while the protocol is not yet known: the bytes are logged
// and looked at, not parsed.
struct RawReader {
    void* port;
    std::FILE* log_file;
    ReadBytes read_bytes;
};

// Registers ReceiverLink and the handler of event 10. At start-up.
void navigation_init();

// Makes a link from its text: COM<n>, UDP<n>, USB, or on this platform a
// device path; out_id stays 0 for anything else. A baud outside the six
// speeds becomes 4800.
void parse_link_name(const char* name, uint32_t baud, ObjectId& out_id);
// Starts the worker on a link (made from name when link_id is 0). Returns
// without effect when the link cannot be made or found.
void start_navigation(ObjectId link_id, const char* name, uint32_t baud, bool log_flag);
// Asks the worker to end and waits for it, unless the program is closing.
void stop_navigation();
void set_nmea_log(bool flag);
void set_raw_log(bool flag);
bool is_nmea_log_enabled();
bool is_raw_log_enabled();

// The handler of event 10, on the UI thread.
void navigation_event();

// Looking in; tests and the programs.
ObjectId current_link_id();
// The running distance of the live display, metres.
double live_distance();
struct WorkerCounts {
    uint64_t datagrams_handled; // datagrams taken by the sockets when the last read step ended
    bool mailbox_full;          // a batch waits for the UI thread
};
WorkerCounts worker_counts();

// The frames of the commands that switch on the NMEA output of Magellan
// units and of GlobalSat loggers, and off again when a link ends.
void send_sirf_frame(void* serial_port, const uint8_t* payload, uint16_t length);

} // namespace norvanta
