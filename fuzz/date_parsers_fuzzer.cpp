// The date parsers and printers over any text: none may read past the text,
// loop for ever or overflow its output, whatever the digits say.
#include <cstddef>
#include <cstdint>
#include <string>

#include "shell/julian.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace norvanta;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* c = text.c_str();
    JulianTime julian{};
    char out[date_text_capacity];

    parse_slash_date(c, julian);
    add_clock_text(c, julian);
    parse_month_name_date(c, julian);
    parse_compact_date_time(c, 0.5, julian);
    parse_year_first_date(c, 0.25, julian);
    format_log_time(julian, out);
    format_iso(julian.date, 2, true, out);
    format_iso(parse_compact_date(c), 1, false, out);
    parse_iso_julian(c, julian);
    format_iso(parse_iso_date(c), 2, true, out);
    julian_difference(julian, JulianTime{20071219.5, 19.5});
    date_add_days(julian.date, julian.day);
    return 0;
}
