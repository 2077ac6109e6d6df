// The navigation worker and the UI side of a live fix.
#include "navigation/worker.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>

#include "core/memory.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "diffusion/clients.h"
#include "geodesy/tables.h"
#include "geodesy/transforms.h"
#include "navigation/navigation_logs.h"
#include "navigation/nmea_writer.h"
#include "navigation/serial_link.h"
#include "navigation/udp_source.h"
#include "platform/ui.h"
#include "replay/engine.h"
#include "shell/config.h"
#include "shell/dashboard.h"
#include "shell/errors.h"
#include "shell/events.h"
#include "shell/main.h"
#include "shell/menu.h"
#include "version.h"

namespace norvanta {

namespace {

// ---- Shared between the worker and the UI thread ----

std::atomic<uint32_t> nmea_log_enabled{0};
std::atomic<uint32_t> raw_log_enabled{0};
std::atomic<ObjectId> current_link{0};
// The mailbox: the worker only sets it from null to one of its buffers, the
// UI thread only clears it.
std::atomic<NavFix*> published_fix{nullptr};
// 0 none, 1 start, 2 stop: a mark waiting for the UI thread.
std::atomic<int32_t> pending_mark{0};

// Only the worker deletes a link, and only the UI thread looks one up from
// outside it: the look-up and what it does with the link, and the deletion,
// are done under this lock.
std::mutex link_mutex;

// What the tests wait on: see worker_counts.
std::atomic<uint64_t> datagrams_handled{0};

// ---- The worker's own ----

NavFix buffer_a;
NavFix buffer_b;
double last_time = 0.0; // time of day of the last published batch
// The text log of a serial link whose device failed, handed to the reader of
// the next connection so that the log goes on growing.
std::FILE* carried_log = nullptr;

// ---- The live display, UI thread; the worker touches it only in
// prepare_live_display, under the same lock ----

std::mutex live_display_mutex;
// 2 at load, so that the first good fix of a run sends the start sentence.
int32_t last_mark = static_cast<int32_t>(FixMark::stop);
ObjectId live_transform = 0;
bool display_running = false;
constexpr double no_altitude = -1e9;
double previous_latitude = 0.0;
double previous_longitude = 0.0;
double previous_altitude = no_altitude;
double running_distance = 0.0;
JulianTime running_start{};

constexpr int connect_pause_ms = 100;
constexpr int closing_pause_ms = 2;
constexpr int serial_read_pause_ms = 1;
constexpr int serial_silence_pause_ms = 100;
constexpr int reap_wait_ms = 1000;
constexpr int stop_settle_ms = 10;
constexpr int stop_poll_ms = 20;
// A time of day that went back by less than this is an out-of-order batch;
// more is midnight passing.
constexpr double midnight_jump_days = 0.8;

constexpr uint32_t link_speeds[] = {4800, 9600, 19200, 38400, 57600, 115200};
constexpr uint32_t default_link_speed = 4800;

// "SERIAL PORT %s NMEA" and "UDP PORT %ld".
constexpr const char* serial_name_prefix = "SERIAL PORT ";
constexpr const char* serial_name_suffix = " NMEA";
constexpr const char* udp_name_prefix = "UDP PORT ";
constexpr const char* usb_status_text = "Garmin USB";
constexpr const char nmea_on_command[] = "$PMGNCMD,NMEAON";
constexpr const char nmea_off_command[] = "$PMGNCMD,NMEAOFF";
constexpr uint8_t sirf_nmea_on[] = {0xBC, 0x01};
constexpr uint8_t sirf_nmea_off[] = {0xBC, 0x00};

ReceiverLink* link_of(ObjectId id) {
    return find_obj_adr<ReceiverLink>(id);
}

bool quitting() {
    return ClosingFlag.load() != 0;
}

NmeaParser* nmea_parser_of(ReceiverLink& link) {
    return link.protocol == link_protocol_nmea ? static_cast<NmeaParser*>(link.parser) : nullptr;
}

// The log file of the link's reader, whichever kind it is.
std::FILE** log_file_of(ReceiverLink& link) {
    if (!link.parser) return nullptr;
    if (NmeaParser* parser = nmea_parser_of(link)) return &parser->log_file;
    if (link.protocol == link_protocol_unknown)
        return &static_cast<RawReader*>(link.parser)->log_file;
    return nullptr;
}

void free_link_reader(ReceiverLink& link) {
    if (link.protocol == link_protocol_unknown) {
        free_mem(link.parser);
        return;
    }
    auto* parser = static_cast<NmeaParser*>(link.parser);
    free_nmea_parser(parser);
    link.parser = nullptr;
}

void destroy_receiver_link(void* data) {
    auto& link = *static_cast<ReceiverLink*>(data);
    if (link.kind == link_kind_serial && link.port) {
        send_nmea_command(static_cast<SerialPort*>(link.port), nmea_off_command);
        send_sirf_frame(link.port, sirf_nmea_off, sizeof sirf_nmea_off);
    }
    if (std::FILE** log = log_file_of(link); log && *log) {
        std::fclose(*log);
        *log = nullptr;
    }
    if (link.parser) free_link_reader(link);
    if (link.kind == link_kind_serial) {
        auto* port = static_cast<SerialPort*>(link.port);
        free_serial(port);
    } else if (link.kind == link_kind_udp && link.port) {
        ObjectId socket = static_cast<SocketRecord*>(link.port)->id;
        del_obj_adr(ObjectType::SocketRecord, socket);
    }
    link.port = nullptr;
    free_mem(link.name);
    free_mem(link.port_name);
    free_mem(link.datum_seen);
    del_obj_adr(ObjectType::GeoReference, link.geo_reference);
}

// ---- Logs ----

void open_text_log(ReceiverLink& link) {
    if (link.kind == link_kind_serial) open_nmea_log(link);
}

void close_text_log(ReceiverLink& link) {
    if (std::FILE** log = log_file_of(link); log && *log) std::fclose(std::exchange(*log, nullptr));
    if (carried_log) std::fclose(std::exchange(carried_log, nullptr));
    link.nmea_log_on = 0;
}

// Keeps the links' text logs in line with the user's switch.
void sync_text_log() {
    const bool wanted = nmea_log_enabled.load() != 0;
    ObjectId id = 0;
    while (auto* link =
               static_cast<ReceiverLink*>(next_obj(ObjectType::ReceiverLink, id, nullptr))) {
        if (wanted && !link->nmea_log_on) open_text_log(*link);
        if (!wanted && link->nmea_log_on) close_text_log(*link);
    }
}

// Writes a batch as it came; a failed write closes the log, and reading
// goes on.
void log_batch(std::FILE*& log, const char* bytes, std::size_t count) {
    if (!log) return;
    if (std::fwrite(bytes, 1, count, log) != count || std::fflush(log) != 0) {
        std::fclose(log);
        log = nullptr;
    }
}

// ---- The live display ----

// A new link: the display starts over, named after it.
void prepare_live_display(ReceiverLink& link) {
    std::lock_guard lock(live_display_mutex);
    if (NavPoint* point = find_obj_adr<NavPoint>(LivePoint.load())) {
        free_mem(point->text);
        const ObjectId id = point->id;
        std::memset(point, 0, sizeof *point);
        point->id = id;
        point->type = ObjectType::NavPoint;
        replay_select(LiveTrack.load());
    } else {
        ObjectId id = 0;
        cre_obj<NavPoint>(&id);
        LivePoint.store(id);
        int32_t index = -1;
        replay_add_track(0, 0, index, "");
        LiveTrack.store(index);
        replay_set_mode(REPLAY_LIVE);
    }
    replay_rename(LiveTrack.load(), link.kind == link_kind_usb ? usb_status_text : link.name);
}

// Always passes here: the live display has no graph space of its own. It
// resets the last position and the transform, and starts the display.
bool check_graph_space() {
    std::lock_guard lock(live_display_mutex);
    previous_altitude = no_altitude;
    del_obj_adr(ObjectType::CoordBuffer, live_transform);
    display_running = true;
    return true;
}

// The marks go out only while diffusion is on; diffusion sees to that.
void handle_mark(int32_t mark) {
    if (mark == static_cast<int32_t>(FixMark::start)) {
        diffuse_start();
        display_running = true;
    } else if (mark == static_cast<int32_t>(FixMark::stop)) {
        diffuse_stop();
        previous_altitude = no_altitude;
        display_running = false;
    }
}

// A datum that the dictionary does not know leaves the data in WGS 84
// rather than making every later conversion fail.
void rebuild_transform(ReceiverLink& link) {
    del_obj_adr(ObjectType::CoordBuffer, live_transform);
    GeoReference* reference = find_obj_adr<GeoReference>(link.geo_reference);
    if (!reference) return;
    if (reference->datum == 0) {
        log_entry("Navigation : systeme geodesique inconnu, WGS 84 garde");
        reference->datum = wgs84_datum;
    }
    reference->pre_transform = 0;
    georeference_fix_units(link.geo_reference);
    make_chain(link.geo_reference, live_transform);
}

void show_fix(ReceiverLink& link, NavFix fix) {
    if (link.kind == link_kind_usb) {
        link.datum_changed = live_transform == 0 ? 1 : 0;
    } else {
        follow_datum(fix, DatumFollow{link.datum_seen, link.datum_changed, link.geo_reference});
    }
    if (link.datum_changed) rebuild_transform(link);
    double longitude = fix.longitude, latitude = fix.latitude, height = fix.ellipsoid_height;
    if (live_transform != 0) {
        chain_apply(live_transform, longitude, latitude, height);
    } else if (GeoReference* reference = find_obj_adr<GeoReference>(link.geo_reference)) {
        // WGS 84 data need no chain, only the unit of the raw coordinates.
        const double to_degrees =
            angle_units[angle_unit_degree].factor / angle_units[reference->unit].factor;
        longitude *= to_degrees;
        latitude *= to_degrees;
    }
    NavPoint* point = find_obj_adr<NavPoint>(LivePoint.load());
    if (!point) return;
    if (fix.position_valid) {
        point->latitude = latitude;
        point->longitude = longitude;
    }
    if (fix.altitude_valid) point->altitude = fix.altitude;
    if (fix.speed_valid) point->speed = fix.speed_kmh;
    if (fix.course_valid) point->course = fix.course_true;
    if (fix.satellites_valid) point->satellites = fix.satellites_in_view;
    point->text_length = fix.text ? static_cast<int32_t>(std::strlen(fix.text)) : 0;
    str_copy(fix.text, point->text);

    JulianTime now{};
    now_julian(now);
    if (previous_altitude == no_altitude || !display_running) {
        running_distance = 0.0;
        running_start = now;
        set_title(link.name);
    } else {
        running_distance += std::fabs(distance(wgs84_datum, previous_longitude, previous_latitude,
                                               point->longitude, point->latitude));
    }
    point->distance = running_distance;
    point->time = julian_difference(now, running_start);
    previous_latitude = point->latitude;
    previous_longitude = point->longitude;
    previous_altitude = point->altitude;
    replay_show_point(point->id, nullptr);
}

// ---- The worker ----

// What a serial link needs before it reads: the port, the commands that
// switch NMEA on in the receivers that need them, and the reader.
int open_serial_link(ReceiverLink& link) {
    SerialPort* port = nullptr;
    open_serial(link.port_name, link.baud, port);
    if (!port) return 0;
    link.port = port;
    if (link.protocol == link_protocol_nmea) {
        send_nmea_command(port, nmea_on_command);
        send_sirf_frame(port, sirf_nmea_on, sizeof sirf_nmea_on);
        NmeaParser* parser = new_nmea_parser(port, read_serial);
        if (!parser) return 0;
        new_nav_fix(parser->fix);
        parser->log_file = std::exchange(carried_log, nullptr);
        link.parser = parser;
        return 1;
    }
    RawReader* reader = nullptr;
    alloc_zero_mem(reader, sizeof(RawReader));
    if (!reader) return 0;
    reader->port = port;
    reader->log_file = std::exchange(carried_log, nullptr);
    reader->read_bytes = read_serial;
    link.parser = reader;
    return 1;
}

void make_geo_reference(ReceiverLink& link, int32_t unit) {
    if (link.geo_reference != 0) return;
    make_default_georeference(link.geo_reference);
    if (auto* reference = find_obj_adr<GeoReference>(link.geo_reference)) reference->unit = unit;
}

// One connection attempt of the link's kind; 0 goes round the loop.
int connect_once(ReceiverLink& link) {
    int result = 0;
    switch (link.kind) {
    case link_kind_serial:
        result = open_serial_link(link);
        if (result) make_geo_reference(link, angle_unit_second);
        break;
    case link_kind_udp:
        // The window reads the link it made while this thread runs it: a
        // protocol that is already NMEA is left unwritten.
        if (link.protocol != link_protocol_nmea) link.protocol = link_protocol_nmea;
        result = open_udp_link(link);
        if (result) make_geo_reference(link, angle_unit_second);
        break;
    default:
        // The Garmin USB transport is not part of this program yet: the
        // link ends at once, with a word on why.
        log_entry("Navigation : Garmin USB non disponible");
        std::fprintf(stderr, "%s: Garmin USB navigation is not available in this build\n",
                     program_name);
        link_state(link).store(link_state_stopping);
        return 1;
    }
    if (error_pending()) link_state(link).store(link_state_stopping);
    return result;
}

// Ends a link that was asked to stop: waits for a fix under conversion to
// be taken, closes the log and deletes the link.
void reap_link() {
    ObjectId id = current_link.load();
    ReceiverLink* link = link_of(id);
    if (!link || link_state(*link).load() != link_state_stopping) return;
    while (published_fix.load() != nullptr && !quitting())
        thread_sleep(reap_wait_ms);
    std::lock_guard lock(link_mutex);
    if (link->nmea_log_on || carried_log) close_text_log(*link);
    del_obj_adr(ObjectType::ReceiverLink, id);
    current_link.store(0);
    published_fix.store(nullptr);
}

// A read while the stream's protocol is not known: the bytes are logged;
// the first fix sentence of NMEA makes it an NMEA stream.
void identify_stream(ReceiverLink& link) {
    auto* reader = static_cast<RawReader*>(link.parser);
    char buffer[batch_capacity + 1];
    const long count = reader->read_bytes(reader->port, batch_capacity, buffer);
    if (count < 1) return;
    buffer[count] = '\0';
    log_batch(reader->log_file, buffer, static_cast<std::size_t>(count));
    if (!std::strstr(buffer, "$GPRMC") && !std::strstr(buffer, "$GPGGA") &&
        !std::strstr(buffer, "$GPGLL"))
        return;
    NmeaParser* parser = new_nmea_parser(reader->port, reader->read_bytes);
    if (!parser) return;
    new_nav_fix(parser->fix);
    parser->log_file = reader->log_file;
    free_mem(reader);
    link.parser = parser;
    link.protocol = link_protocol_nmea;
}

// One batch: what one read gives, through the log and the parser, copied
// with its text and epoch into target. -1 when the source failed.
int read_nmea_batch(NmeaParser& parser, NavFix& target) {
    char buffer[batch_capacity + 1];
    const long count = parser.read_bytes(parser.port, batch_capacity, buffer);
    clear_fix_flags(*parser.fix);
    if (count < 0) return -1;
    buffer[count] = '\0';
    if (count > 0) {
        log_batch(parser.log_file, buffer, static_cast<std::size_t>(count));
        feed_nmea(buffer, static_cast<std::size_t>(count), parser);
    }
    char* own_text = target.text;
    target = *parser.fix;
    target.text = own_text;
    str_copy(buffer, target.text);
    int year = 0, month = 0;
    double day_of_month = 0.0;
    date_split(target.date != 0 ? target.date : now_date(), &year, &month, &day_of_month);
    date_normalise(target.epoch_time, year, month,
                   std::trunc(day_of_month - 1.0 + 0.1) + target.time_of_day);
    return target.position_valid || target.mark != FixMark::none ? 1 : 0;
}

void free_fix_text(NavFix& fix) {
    free_mem(fix.text);
}

// The connect phase; false when the worker is to finish.
bool connect_phase(ReceiverLink*& link) {
    last_time = 0.0;
    ui_menu_check(menu_navigation, true);
    prepare_live_display(*link);
    const ObjectId id = link->id;
    while (link_state(*link).load() == link_state_running) {
        thread_sleep(connect_pause_ms);
        if (quitting()) {
            thread_sleep(closing_pause_ms);
            break;
        }
        if (connect_once(*link) != 0) break;
    }
    reap_link();
    link = link_of(current_link.load());
    if (!link || link->id != id) return false;
    sync_text_log();
    if (!check_graph_space()) {
        link_state(*link).store(link_state_stopping);
        reap_link();
        message_box(localized("Le système géodésique de l'espace graphique n'est pas compatible "
                              "avec\nle système géodésique des données GPS.",
                              "Geodetic system of graph space is not compatible with\ngeodetic "
                              "system of GPS data."),
                    localized("Erreur de navigation", "Navigation Error"));
        return false;
    }
    free_fix_text(buffer_a);
    free_fix_text(buffer_b);
    std::memset(&buffer_a, 0, sizeof buffer_a);
    std::memset(&buffer_b, 0, sizeof buffer_b);
    return true;
}

enum class ReadOutcome { next, reconnect, finish };

ReadOutcome read_batch();

// A step ends once what it read is published: the datagrams taken by then
// are handled.
ReadOutcome read_step() {
    const ReadOutcome outcome = read_batch();
    datagrams_handled.store(socket_datagrams_taken());
    return outcome;
}

ReadOutcome read_batch() {
    ReceiverLink* link = link_of(current_link.load());
    if (link && link->kind == link_kind_serial) thread_sleep(serial_read_pause_ms);
    reap_link();
    sync_text_log();
    link = link_of(current_link.load());
    if (!link) return ReadOutcome::finish;

    NavFix& target = published_fix.load() == &buffer_a ? buffer_b : buffer_a;
    target.position_valid = 0;
    target.time_valid = 0;
    target.mark = FixMark::none;
    free_fix_text(target);

    int result = 0;
    switch (link->protocol) {
    case link_protocol_unknown:
        identify_stream(*link);
        return ReadOutcome::reconnect;
    case link_protocol_nmea:
        result = read_nmea_batch(*static_cast<NmeaParser*>(link->parser), target);
        break;
    default:
        return ReadOutcome::reconnect;
    }
    if (result == -1) return ReadOutcome::reconnect;
    if (!target.text || target.text[0] == '\0') {
        if (link->kind == link_kind_serial) thread_sleep(serial_silence_pause_ms);
        return ReadOutcome::next;
    }
    if (target.mark != FixMark::none) {
        pending_mark.store(static_cast<int32_t>(target.mark));
        last_time = 0.0;
    }
    if (published_fix.load() != nullptr) return ReadOutcome::next;
    if (target.time_valid && target.time_of_day < last_time &&
        target.time_of_day >= last_time - midnight_jump_days)
        target.time_valid = 0;
    last_time = target.time_of_day;
    if (link_state(*link).load() != link_state_stopping) published_fix.store(&target);
    post_event(event_live_fix);
    return ReadOutcome::next;
}

// A read that fails closes the port before the connect phase opens it
// again, so that a receiver that comes back is found anew.
void drop_connection(ReceiverLink& link) {
    if (link.kind == link_kind_serial) {
        if (std::FILE** log = log_file_of(link)) carried_log = std::exchange(*log, nullptr);
        if (link.parser) free_link_reader(link);
        auto* port = static_cast<SerialPort*>(link.port);
        free_serial(port);
        link.port = nullptr;
        link.protocol = link_protocol_nmea;
    }
}

void navigation_worker(void*) {
    ReceiverLink* link = link_of(current_link.load());
    while (link && connect_phase(link)) {
        ReadOutcome outcome = ReadOutcome::next;
        while (outcome == ReadOutcome::next)
            outcome = read_step();
        link = link_of(current_link.load());
        if (outcome == ReadOutcome::finish || !link) break;
        drop_connection(*link);
    }
    reap_link();
    ui_menu_check(menu_navigation, false);
}

} // namespace

void navigation_init() {
    set_obj_type<ReceiverLink>();
    set_obj_destructor(ObjectType::ReceiverLink, destroy_receiver_link);
    set_event_handler(event_live_fix, navigation_event);
}

namespace {

// The digits after prefix when the name is prefix and digits only; null
// otherwise.
const char* link_digits(const char* name, const char* prefix) {
    const std::size_t length = std::strlen(prefix);
    if (std::strncmp(name, prefix, length) != 0) return nullptr;
    for (const char* digit = name + length; *digit; ++digit)
        if (*digit < '0' || *digit > '9') return nullptr;
    return name + length;
}

ReceiverLink* make_link(uint32_t kind, const char* name, const std::string& port_name,
                        uint32_t baud, ObjectId& out_id) {
    auto* link = cre_obj<ReceiverLink>(&out_id);
    if (!link) return nullptr;
    link->kind = kind;
    link->protocol = kind == link_kind_usb ? link_protocol_unknown : link_protocol_nmea;
    link->baud = baud;
    if (kind != link_kind_usb) {
        str_copy(name, link->name);
        str_copy(port_name.c_str(), link->port_name);
    }
    return link;
}

} // namespace

void parse_link_name(const char* name, uint32_t baud, ObjectId& out_id) {
    out_id = 0;
    if (!name) return;
    bool known_speed = false;
    for (uint32_t speed : link_speeds)
        known_speed = known_speed || speed == baud;
    if (!known_speed) baud = default_link_speed;

    std::string port_name;
    std::string shown;
    uint32_t kind = 0;
    if (link_digits(name, "COM") || name[0] == '/') {
        kind = link_kind_serial;
        port_name = serial_device_path(name);
        shown = std::string(serial_name_prefix) + port_name + serial_name_suffix;
    } else if (const char* digits = link_digits(name, "UDP")) {
        kind = link_kind_udp;
        const long port = std::strtol(digits, nullptr, 10);
        port_name = std::to_string(port);
        shown = udp_name_prefix + port_name;
    } else if (std::strcmp(name, "USB") == 0) {
        kind = link_kind_usb;
    } else {
        return;
    }
    make_link(kind, shown.c_str(), port_name, baud, out_id);
}

void start_navigation(ObjectId link_id, const char* name, uint32_t baud, bool log_flag) {
    if (link_id == 0) parse_link_name(name, baud, link_id);
    if (link_id == 0) return;
    nmea_log_enabled.store(log_flag ? 1 : 0);
    ui_menu_check(menu_navigation_log, log_flag);
    navigation_lock();
    ReceiverLink* link = get_obj_adr<ReceiverLink>(link_id);
    if (!link) return;
    link_state(*link).store(link_state_running);
    current_link.store(link_id);
    link->datum_changed = 0;
    published_fix.store(nullptr);
    // The program's own diffusion to the port it listens on would come back
    // as input, so those clients leave the active list. The lists are the
    // UI thread's, so this is done here rather than by the worker.
    if (link->kind == link_kind_udp) {
        if (link->port) forget_udp_client(static_cast<SocketRecord*>(link->port));
        drop_own_port(static_cast<int32_t>(std::strtol(link->port_name, nullptr, 10)));
    }
    if (log_flag && !link->nmea_log_on) open_text_log(*link);
    start_worker(navigation_worker, nullptr);
}

void stop_navigation() {
    for (int round = 0; round < 2; ++round) {
        {
            std::lock_guard lock(link_mutex);
            if (ReceiverLink* link = link_of(current_link.load()))
                link_state(*link).store(link_state_stopping);
        }
        thread_sleep(stop_settle_ms);
        published_fix.store(nullptr);
    }
    while (current_link.load() != 0 && !quitting())
        thread_sleep(stop_poll_ms);
    thread_sleep(stop_settle_ms);
    if (!quitting()) navigation_unlock();
}

void set_nmea_log(bool flag) {
    nmea_log_enabled.store(flag ? 1 : 0);
    ui_menu_check(menu_navigation_log, flag);
}

// The raw log belongs to Garmin USB links, which this program does not
// open yet: the switch is kept for them.
void set_raw_log(bool flag) {
    raw_log_enabled.store(flag ? 1 : 0);
    ui_menu_check(menu_raw_phase_log, flag);
}

bool is_nmea_log_enabled() {
    return nmea_log_enabled.load() != 0;
}

bool is_raw_log_enabled() {
    return raw_log_enabled.load() != 0;
}

void navigation_event() {
    std::lock_guard link_lock(link_mutex);
    std::lock_guard display_lock(live_display_mutex);
    ReceiverLink* link = link_of(current_link.load());
    if (!link) {
        published_fix.store(nullptr);
        return;
    }
    if (const int32_t mark = pending_mark.exchange(0); mark != 0) {
        if (mark == static_cast<int32_t>(FixMark::stop)) {
            last_mark = mark;
            if (link->kind == link_kind_udp)
                forget_udp_client(static_cast<SocketRecord*>(link->port));
        }
        handle_mark(mark);
    }
    NavFix* fix = published_fix.load();
    if (!fix) return;
    if (fix->position_valid && fix->time_valid) {
        if (last_mark == static_cast<int32_t>(FixMark::stop)) {
            handle_mark(static_cast<int32_t>(FixMark::start));
            last_mark = static_cast<int32_t>(FixMark::start);
        }
        show_fix(*link, *fix);
    } else if (fix->text && fix->text[0] != '\0') {
        show_sentence(fix->text);
    }
    published_fix.store(nullptr);
}

ObjectId current_link_id() {
    return current_link.load();
}

WorkerCounts worker_counts() {
    return WorkerCounts{datagrams_handled.load(), published_fix.load() != nullptr};
}

double live_distance() {
    std::lock_guard lock(live_display_mutex);
    return running_distance;
}

void send_sirf_frame(void* serial_port, const uint8_t* payload, uint16_t length) {
    auto* port = static_cast<SerialPort*>(serial_port);
    constexpr uint16_t checksum_mask = 0x7FFF;
    uint16_t sum = 0;
    for (uint16_t i = 0; i < length; ++i)
        sum = static_cast<uint16_t>(sum + payload[i]);
    write_serial_byte(port, 0xA0);
    write_serial_byte(port, 0xA2);
    write_serial_word(port, length);
    write_serial(port, payload, length);
    write_serial_word(port, static_cast<uint16_t>(sum & checksum_mask));
    write_serial_byte(port, 0xB0);
    write_serial_byte(port, 0xB3);
}

} // namespace norvanta
