// The NMEA sentence writer: the one checksum rule, the sentence tail and the
// constant START and STOP marks that frame a stream for the clients.
#pragma once

#include <cstddef>
#include <cstdint>

namespace norvanta {

// "*", two upper-case hexadecimal digits, CR, LF.
inline constexpr std::size_t checksum_tail_length = 5;
inline constexpr std::size_t checksum_tail_capacity = checksum_tail_length + 1;

// XOR of every byte of text up to its terminator; 0 for an empty or null
// text. Callers pass what follows the '$'.
uint8_t nmea_checksum(const char* text);
// Fills tail with the checksum tail of a sentence given with its '$'.
void format_checksum_tail(const char* sentence, char* tail);

// "$PKLNT,START*21\r\n" and "$PKLNT,STOP*79\r\n".
const char* start_mark_sentence();
const char* stop_mark_sentence();

} // namespace norvanta
