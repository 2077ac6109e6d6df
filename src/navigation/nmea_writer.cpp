// The NMEA sentence writer: the checksum and tails, the sentences of each GPS
// record, and the log of a whole data set.
//
// Sentences are composed piece by piece with the printf formats of the log:
// a position is always "%02d%07.4lf,%c,%03d%07.4lf,%c" (latitude first) and a
// clock "%02d%02d%06.3lf", so each writer below names only what follows them.
// A field is left empty where its value is absent, and 0 is what absent means
// for altitudes, speeds and counts, so a real 0 reads back as nothing.
#include "navigation/nmea_writer.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <string>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/strings.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "geodesy/transforms.h"
#include "navigation/serial_link.h"
#include "shell/errors.h"
#include "shell/julian.h"

namespace norvanta {

namespace {

// The mark sentences as the log writes them, before their tails.
constexpr const char* start_mark_body = "$PKLNT,START";
constexpr const char* stop_mark_body = "$PKLNT,STOP";
constexpr const char* log_header_sentence = "$PKLNH,NMEA File Header";
constexpr const char* log_datum_sentence = "$PGRMM,WGS 84";

constexpr double minutes_per_degree = 60.0;
// A wide character the "C" locale cannot narrow.
constexpr char unnarrowable_character = '?';
constexpr wchar_t first_wide_beyond_byte = 256;

// km/h to knots, in the order of operations the log has always used, so that
// the last digit printed stays the same.
double knots_of(double speed_kmh) {
    return speed_kmh * 1000.0 / 1852.0;
}

// A sentence in the making. Each piece goes through printf, so that numbers
// print exactly as the formats of the log say.
class Sentence {
  public:
    explicit Sentence(const char* start) : text_(start) {}

    [[gnu::format(printf, 2, 3)]] void add(const char* format, ...) {
        char piece[piece_capacity];
        std::va_list arguments;
        va_start(arguments, format);
        std::va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(piece, sizeof piece, format, arguments);
        va_end(arguments);
        if (length >= static_cast<int>(sizeof piece)) {
            // Only a huge number or a long name gets here.
            std::string long_piece(static_cast<std::size_t>(length) + 1, '\0');
            std::vsnprintf(long_piece.data(), long_piece.size(), format, again);
            text_.append(long_piece.data(), static_cast<std::size_t>(length));
        } else if (length > 0) {
            text_.append(piece, static_cast<std::size_t>(length));
        }
        va_end(again);
    }

    // Degrees to whole degrees and minutes: the absolute value times 60,
    // degrees the truncated quotient, minutes the remainder. There is no
    // carry, so 59.99996 minutes prints as 60.0000; kept on purpose, every
    // log written so far says so.
    void add_position(double longitude, double latitude) {
        const Split north = split(latitude);
        const Split east = split(longitude);
        add("%02d%07.4lf,%c,%03d%07.4lf,%c", north.degrees, north.minutes, latitude < 0 ? 'S' : 'N',
            east.degrees, east.minutes, longitude < 0 ? 'W' : 'E');
    }

    // Hour, minute and seconds of the day fraction; seconds keep their
    // fraction and carry nothing either.
    void add_clock(const JulianTime& time) {
        int hour = 0, minute = 0;
        double second = 0.0;
        day_split(time.day, nullptr, &hour, &minute, &second);
        add("%02d%02d%06.3lf", hour, minute, second);
    }

    const char* text() const { return text_.c_str(); }

  private:
    static constexpr std::size_t piece_capacity = 160;

    struct Split {
        int degrees;
        double minutes;
    };
    static Split split(double value) {
        const double minutes = std::fabs(value) * minutes_per_degree;
        const int degrees = static_cast<int>(minutes / minutes_per_degree);
        return {degrees, minutes - degrees * minutes_per_degree};
    }

    std::string text_;
};

// Where the sentences of one writer go: a file when there is one, else the
// memory file's block, else nowhere.
struct Output {
    std::FILE* file;
    Mobj* stream;

    void finish(const char* sentence) const {
        if (file) {
            file_sentence(file, sentence);
        } else if (stream) {
            append_sentence(stream, sentence);
        }
    }
    void finish(const Sentence& sentence) const { finish(sentence.text()); }
};

// The calendar date of a time: year, month and day of the month.
struct CalendarDate {
    int year;
    int month;
    int day;
};
CalendarDate calendar_of(const JulianTime& time) {
    int year = 0, month = 0;
    double day = 0.0;
    julian_split(time.date, time.day, &year, &month, &day);
    return {year, month, static_cast<int>(day)};
}

void add_zda(const JulianTime& time, const CalendarDate& date, const Output& out) {
    Sentence zda("$GPZDA,");
    zda.add_clock(time);
    zda.add(",%02d,%02d,%04d,,", date.day, date.month, date.year);
    out.finish(zda);
}

void add_gll(double longitude, double latitude, const JulianTime& time, const Output& out) {
    Sentence gll("$GPGLL,");
    gll.add_position(longitude, latitude);
    gll.add(",");
    gll.add_clock(time);
    gll.add(",A");
    out.finish(gll);
}

// "$GPxxx,<clock>,": GGA and RMC of timed records start so.
Sentence timed_start(const char* start, const JulianTime& time) {
    Sentence sentence(start);
    sentence.add_clock(time);
    sentence.add(",");
    return sentence;
}

// Characters that a name must not carry into a sentence: a line end or a
// '$' would start a sentence of the name's making, a ',' would shift every
// field behind it, a '*' would end the sentence early.
bool breaks_sentence(wchar_t c) {
    return c < L' ' || c == L'$' || c == L'!' || c == L',' || c == L'*' || c == L'\x7F';
}

// Byte text of a wide name, narrowed as the "C" locale narrows: a character
// that fits in a byte is that byte, and only the others are replaced. A
// character that would break the sentence becomes a blank.
std::string narrow_name(const wchar_t* name) {
    std::string text;
    for (const wchar_t* c = name; c && *c; ++c) {
        if (breaks_sentence(*c)) {
            text.push_back(' ');
            continue;
        }
        text.push_back(*c < first_wide_beyond_byte ? static_cast<char>(*c)
                                                   : unnarrowable_character);
    }
    return text;
}

// The first segment of a track, then each next one, each checked: a missing
// segment stops the walk with the store's error.
TrackSegment* segment_after(const Track& track, const TrackSegment* previous) {
    const ObjectId next = previous ? previous->next : track.first_segment;
    return next ? get_obj_adr<TrackSegment>(next) : nullptr;
}

void write_marked_list(const PairList* points, const Output& out, ObjectId transform) {
    out.finish(start_mark_body);
    for (int32_t i = 0; i < pair_list_count(points) && !error_pending(); ++i) {
        const auto* record = reinterpret_cast<const ObjectHeader*>(points->pairs[i].value);
        if (record->type == ObjectType::TrackPoint) {
            write_track_point(*reinterpret_cast<const TrackPoint*>(record), out.file, out.stream,
                              transform);
        } else if (record->type == ObjectType::NavSample) {
            write_nav_sample(record->id, out.file, out.stream);
        }
    }
    if (!error_pending()) out.finish(stop_mark_body);
}

void write_data_set_records(ObjectId data_set, const Output& out, ObjectId transform) {
    out.finish(log_header_sentence);
    out.finish(log_datum_sentence);
    void* address = nullptr;
    for (ObjectId id = 0; ds_next_of_type(data_set, ObjectType::Waypoint, id, &address), id;)
        write_waypoint(*static_cast<Waypoint*>(address), out.file, out.stream, transform);
    for (ObjectId id = 0; ds_next_of_type(data_set, ObjectType::Route, id, &address), id;)
        write_route(*static_cast<Route*>(address), out.file, out.stream);
    for (ObjectId id = 0; ds_next_of_type(data_set, ObjectType::Track, id, &address), id;) {
        const auto& track = *static_cast<Track*>(address);
        for (TrackSegment* segment = segment_after(track, nullptr); segment;
             segment = segment_after(track, segment)) {
            write_marked_list(segment->points, out, transform);
            if (error_pending()) return;
        }
        if (error_pending()) return;
    }
    for (ObjectId id = 0; ds_next_of_type(data_set, ObjectType::PositionList, id, &address), id;) {
        const auto& list = *static_cast<PositionList*>(address);
        if (list.element_type != ObjectType::NavSample) continue;
        write_marked_list(list.points, out, 0);
        if (error_pending()) return;
    }
}

} // namespace

uint8_t nmea_checksum(const char* text) {
    uint8_t sum = 0;
    if (!text) return sum;
    for (const char* c = text; *c; ++c)
        sum ^= static_cast<uint8_t>(*c);
    return sum;
}

// The '$' is left out of the checksum; a sentence given without one is
// summed whole.
void format_checksum_tail(const char* sentence, char* tail) {
    const char* body = sentence && sentence[0] == '$' ? sentence + 1 : sentence;
    std::snprintf(tail, checksum_tail_capacity, "*%02X\r\n", nmea_checksum(body));
}

const char* start_mark_sentence() {
    return start_mark_text;
}

const char* stop_mark_sentence() {
    return stop_mark_text;
}

// ---- finishing a sentence ----

void append_sentence(Mobj* stream, const char* sentence) {
    if (!stream) return;
    char tail[checksum_tail_capacity];
    format_checksum_tail(sentence, tail);
    append_bytes(*stream, sentence, static_cast<int32_t>(std::strlen(sentence)));
    append_bytes(*stream, tail, static_cast<int32_t>(checksum_tail_length));
}

void file_sentence(std::FILE* file, const char* sentence) {
    char tail[checksum_tail_capacity];
    format_checksum_tail(sentence, tail);
    std::fwrite(sentence, 1, std::strlen(sentence), file);
    std::fwrite(tail, 1, checksum_tail_length, file);
}

void send_nmea_command(SerialPort* port, const char* sentence) {
    char command[command_capacity];
    const char* body = sentence[0] == '$' ? sentence + 1 : sentence;
    const int length =
        std::snprintf(command, sizeof command, "%s*%02X\r\n", sentence, nmea_checksum(body));
    if (length <= 0) return;
    write_serial(port, command, std::min(static_cast<std::size_t>(length), sizeof command - 1));
}

// ---- records ----

void write_nav_point_text(NavPoint& point) {
    const double knots = knots_of(point.speed);
    Sentence gga("$GPGGA,,");
    gga.add_position(point.longitude, point.latitude);
    if (point.satellites > 0) {
        gga.add(",,%d,,%.2lf,M,,,,", point.satellites, point.altitude);
    } else {
        gga.add(",,,,%.2lf,M,,,,", point.altitude);
    }
    Sentence rmc("$GPRMC,,A,");
    rmc.add_position(point.longitude, point.latitude);
    if (point.speed > 0) {
        rmc.add(",%.4lf,%.4lf,,,", knots, point.course);
    } else {
        rmc.add(",,,,,");
    }
    const Sentence* sentences[] = {&gga, &rmc, nullptr};
    Sentence vtg("$GPVTG,");
    if (point.speed > 0) {
        vtg.add("%.4lf,T,,,%.4lf,N,%.4lf,K", point.course, knots, point.speed);
        sentences[2] = &vtg;
    }
    char tail[checksum_tail_capacity];
    for (const Sentence* sentence : sentences) {
        if (!sentence) continue;
        format_checksum_tail(sentence->text(), tail);
        str_append(sentence->text(), point.text);
        str_append(tail, point.text);
    }
    point.text_length = point.text ? static_cast<int32_t>(std::strlen(point.text)) : 0;
}

void write_nav_sample(ObjectId sample_id, std::FILE* file, Mobj* stream) {
    const auto* sample = get_obj_adr<NavSample>(sample_id);
    if (!sample) return;
    const Output out{file, stream};
    const JulianTime& time = sample->time;
    const CalendarDate date = calendar_of(time);
    const double knots = knots_of(sample->speed);

    add_gll(sample->longitude, sample->latitude, time, out);

    Sentence gga = timed_start("$GPGGA,", time);
    gga.add_position(sample->longitude, sample->latitude);
    gga.add(",");
    if (sample->differential) {
        gga.add("2");
    } else if (sample->fix_acquired) {
        gga.add("1");
    }
    gga.add(",");
    if (sample->satellites != 0) gga.add("%d", sample->satellites);
    gga.add(",");
    if (sample->hdop != 0) gga.add("%.2lf", sample->hdop);
    gga.add(",");
    if (sample->altitude != 0) {
        gga.add("%.2lf,M,", sample->altitude);
    } else {
        gga.add(",,");
    }
    if (sample->ellipsoid_height != sample->altitude) {
        gga.add("%.2lf,M,,", sample->ellipsoid_height - sample->altitude);
    } else {
        gga.add(",,,");
    }
    out.finish(gga);

    Sentence rmc = timed_start("$GPRMC,", time);
    rmc.add("A,");
    rmc.add_position(sample->longitude, sample->latitude);
    rmc.add(",");
    if (sample->speed > 0) rmc.add("%.4lf", knots);
    rmc.add(",");
    if (sample->course > 0) rmc.add("%.4lf", sample->course);
    rmc.add(",");
    if (date.year > 0) {
        rmc.add("%02d%02d%02d,,", date.day, date.month, date.year % 100);
    } else {
        rmc.add(",,");
    }
    out.finish(rmc);

    if (sample->speed > 0) {
        Sentence vtg("$GPVTG,");
        if (sample->course > 0) {
            vtg.add("%.4lf,T,,,%.4lf,N,%.4lf,K", sample->course, knots, sample->speed);
        } else {
            vtg.add(",,,,%.4lf,N,%.4lf,K", knots, sample->speed);
        }
        out.finish(vtg);
    }
    if (date.year > 0) add_zda(time, date, out);
}

void write_track_point(const TrackPoint& point, std::FILE* file, Mobj* stream, ObjectId transform) {
    const Output out{file, stream};
    double longitude = point.longitude, latitude = point.latitude, altitude = point.altitude;
    chain_apply(transform, longitude, latitude, altitude);
    const JulianTime& time = point.time;
    const CalendarDate date = calendar_of(time);
    const double knots = knots_of(point.speed);

    add_gll(longitude, latitude, time, out);

    Sentence gga = timed_start("$GPGGA,", time);
    gga.add_position(longitude, latitude);
    if (altitude == 0) {
        gga.add(",,,,,,,,,");
    } else {
        gga.add(",,,,%.2lf,M,,,,", altitude);
    }
    out.finish(gga);

    Sentence rmc = timed_start("$GPRMC,", time);
    rmc.add("A,");
    rmc.add_position(longitude, latitude);
    rmc.add(",");
    if (point.speed > 0) rmc.add("%.4lf", knots);
    if (date.year > 0) {
        rmc.add(",,%02d%02d%02d,,", date.day, date.month, date.year % 100);
    } else {
        rmc.add(",,,,");
    }
    out.finish(rmc);

    // Six decimals here, where every other VTG has four: kept on purpose,
    // logs written from tracks have always carried them.
    if (point.speed > 0) {
        Sentence vtg("$GPVTG,");
        vtg.add(",,,,%lf,N,%lf,K", knots, point.speed);
        out.finish(vtg);
    }
    // The test is on the packed date, not on its year as for samples.
    if (static_cast<long>(time.date) / 100 > 0) add_zda(time, date, out);
}

void write_waypoint(const Waypoint& waypoint, std::FILE* file, Mobj* stream, ObjectId transform) {
    double longitude = waypoint.longitude, latitude = waypoint.latitude,
           altitude = waypoint.altitude;
    chain_apply(transform, longitude, latitude, altitude);
    Sentence wpl("$GPWPL,");
    wpl.add_position(longitude, latitude);
    wpl.add(",%s", narrow_name(waypoint.name).c_str());
    Output{file, stream}.finish(wpl);
}

void write_route(const Route& route, std::FILE* file, Mobj* stream) {
    const Output out{file, stream};
    const int32_t count = pair_list_count(route.points);
    const int32_t total = (count + route_names_per_sentence - 1) / route_names_per_sentence;
    std::string name = narrow_name(route.name);
    if (name.empty()) name = std::to_string(route.number);
    for (int32_t k = 1; k <= total; ++k) {
        Sentence rte("$GPRTE,");
        rte.add("%d,%d,c,%s", total, k, name.c_str());
        const int32_t first = (k - 1) * route_names_per_sentence;
        for (int32_t i = first; i < count && i < first + route_names_per_sentence; ++i) {
            const auto* waypoint = reinterpret_cast<const Waypoint*>(route.points->pairs[i].value);
            rte.add(",%s", narrow_name(waypoint->name).c_str());
        }
        out.finish(rte);
    }
}

void write_data_set_nmea(const char* path, ObjectId target, ObjectId data_set) {
    if (!ds_has(data_set, ObjectType::Waypoint) && !ds_has(data_set, ObjectType::TrackPoint) &&
        !ds_has(data_set, ObjectType::NavSample)) {
        return;
    }
    Output out{nullptr, nullptr};
    if (path) {
        out.file = std::fopen(path, "wb");
        if (!out.file) return;
    } else {
        const auto* file = get_obj_adr<FileMobj>(target);
        if (!file) return;
        out.stream = get_obj_adr<Mobj>(file->memory);
        if (!out.stream) return;
    }
    ObjectId reference = 0;
    ds_next_of_type(data_set, ObjectType::GeoReference, reference, nullptr);
    ObjectId transform = 0;
    if (reference == 0) {
        set_gblerr(ErrorCode::geographic);
    } else {
        make_chain(reference, transform);
    }
    if (!error_pending()) write_data_set_records(data_set, out, transform);

    // The file and the chain are released on every path, a failed one too:
    // what was written stays as it is.
    if (out.file && std::fclose(out.file) != 0 && !error_pending()) {
        set_gblerr(ErrorCode::file_access);
    }
    ErrorHold hold;
    del_obj_adr(ObjectType::CoordBuffer, transform);
}

} // namespace norvanta
