// The checksum, the sentence tail and the mark sentences.
#include "navigation/nmea_writer.h"

#include <cstdio>

namespace norvanta {

namespace {

constexpr const char* start_mark_text = "$PKLNT,START*21\r\n";
constexpr const char* stop_mark_text = "$PKLNT,STOP*79\r\n";

} // namespace

uint8_t nmea_checksum(const char* text) {
    uint8_t sum = 0;
    if (!text) return sum;
    for (const char* c = text; *c; ++c)
        sum ^= static_cast<uint8_t>(*c);
    return sum;
}

// The '$' takes no part in the checksum; a sentence given without one is
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

} // namespace norvanta
