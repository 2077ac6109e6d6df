// The in-memory scanners over any bytes. Each must stop at the text's NUL,
// keep its copy within the limit, and move forward or stay where its rule
// says; the number reader must agree with strtod in the "C" locale.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/stream.h"

namespace {

using namespace norvanta;

constexpr int32_t limit = 15;
constexpr unsigned char unwritten = 0xA5;

void check(bool condition) {
    if (!condition) __builtin_trap();
}

// The copy ends in a NUL within the limit, and nothing behind it was written.
void check_copy(const char (&out)[limit + 8]) {
    check(std::memchr(out, '\0', limit + 1) != nullptr);
    for (std::size_t i = limit + 1; i < sizeof out; ++i)
        check(static_cast<unsigned char>(out[i]) == unwritten);
}

// Runs one scanner from the start of the text to its end. A scanner that does
// not move is stepped over one byte, as a caller that gives up on a field would.
template <class Scan>
void scan_through(const char* text, Scan scan) {
    const char* const end = text + std::strlen(text);
    const char* cursor = text;
    while (*cursor) {
        char out[limit + 8];
        std::memset(out, unwritten, sizeof out);
        out[0] = '\0';
        const char* before = cursor;
        scan(cursor, out);
        check_copy(out);
        check(cursor >= before && cursor <= end);
        if (cursor == before) ++cursor;
    }
}

bool same_number(double a, double b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const char* text = bytes.c_str(); // an embedded NUL ends the text early

    scan_through(text, [](const char*& p, char* out) { scan_word(limit, p, out); });
    scan_through(text, [](const char*& p, char* out) { scan_quoted(limit, p, out); });
    scan_through(text, [](const char*& p, char* out) {
        check(scan_field(limit, true, ',', p, out) <= limit);
    });
    scan_through(text, [](const char*& p, char* out) { scan_field(limit, false, ' ', p, out); });
    scan_through(text, [](const char*& p, char*) { scan_long(p); });
    scan_through(text, [](const char*& p, char*) { check(scan_unsigned(p) >= 0); });
    scan_through(text, [](const char*& p, char*) { scan_double(p); });
    scan_through(text, [](const char*& p, char*) { skip_space(p); });
    int32_t count = -1;
    count_fields(true, ',', text, count);
    check(count >= 0 && count <= static_cast<int32_t>(std::strlen(text)) + 1);

    // The number reader: strtod's answer, without its locale.
    check(same_number(program_atof(text), std::strtod(text, nullptr)));

    const auto* binary = reinterpret_cast<const uint8_t*>(bytes.data());
    for (std::size_t at = 0; at + 4 <= size; at += 4) {
        const uint8_t* cursor = binary + at;
        const int16_t value = scan_int16_swapped(cursor);
        uint8_t stored[2];
        put_int16_swapped(stored, value);
        check(std::memcmp(stored, binary + at, 2) == 0);
        cursor = binary + at;
        const int32_t wide = scan_int32_swapped(cursor);
        check(cursor == binary + at + 4 && static_cast<int16_t>(wide >> 16) == value);
    }
    return 0;
}
