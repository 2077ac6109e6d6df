// The sentence parser over any bytes: no read or write outside its buffers,
// no unbounded growth, and a feed split in two gives the fix of one whole
// feed. The first byte chooses the split and whether any talker is read.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/memory.h"
#include "navigation/nmea_parser.h"
#include "shell/errors.h"

namespace {

using namespace norvanta;

NmeaParser* parser_for(bool any_talker) {
    NmeaParser* parser = new_sentence_parser(nullptr, nullptr, nmea_keywords(), nmea_handlers());
    parser->any_talker = any_talker ? 1 : 0;
    new_nav_fix(parser->fix);
    return parser;
}

std::size_t list_bytes(const char* list) {
    if (!list) return 0;
    const char* position = list;
    while (*position) position += std::strlen(position) + 1;
    return static_cast<std::size_t>(position - list);
}

bool same_fix(const NavFix& a, const NavFix& b) {
    const std::size_t a_list = list_bytes(a.route_waypoints);
    if (a_list != list_bytes(b.route_waypoints)) return false;
    if (a_list && std::memcmp(a.route_waypoints, b.route_waypoints, a_list) != 0) return false;
    NavFix plain_a = a;
    NavFix plain_b = b;
    plain_a.route_waypoints = plain_b.route_waypoints = nullptr;
    plain_a.text = plain_b.text = nullptr;
    return std::memcmp(&plain_a, &plain_b, sizeof(NavFix)) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    set_gblerr(ErrorCode::none);
    const bool any_talker = (data[0] & 0x80) != 0;
    const auto* bytes = reinterpret_cast<const char*>(data + 1);
    const std::size_t count = size - 1;
    const std::size_t split = count ? (data[0] & 0x7F) % (count + 1) : 0;

    NmeaParser* whole = parser_for(any_talker);
    feed_nmea(bytes, count, *whole);
    NmeaParser* parts = parser_for(any_talker);
    feed_nmea(bytes, split, *parts);
    feed_nmea(bytes + split, count - split, *parts);
    if (!same_fix(*whole->fix, *parts->fix) || whole->state != parts->state) __builtin_trap();
    free_nmea_parser(whole);
    free_nmea_parser(parts);
    return 0;
}
