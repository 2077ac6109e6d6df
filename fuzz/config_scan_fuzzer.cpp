// The configuration scan over any bytes: long lines, lone CRs, NULs, keys cut
// at the line limit. The value must always fit its buffer and end in a NUL.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "shell/config.h"

namespace {

// Keys that share prefixes and a client key, so that the scan's prefix rule
// and its line splitting meet.
constexpr const char* keys[] = {"LANG", "LOGERROR", "MAXMEM", "ACTIVE_NMEA_UDP_DIFFUSE_ADR1",
                                "INACTIVE_NMEA_UDP_DIFFUSE_ADR1", "BACK_COLOR_RGB"};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const char* key : keys) {
        std::FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "rb");
        if (!file) return 0;
        char value[norvanta::config_value_capacity];
        if (norvanta::config_scan(file, key, value)) {
            if (!std::memchr(value, '\0', sizeof value)) __builtin_trap();
            norvanta::background_colour_from(value);
            norvanta::max_memory_from(value);
            norvanta::web_setting_from(value);
            norvanta::language_code_from(value, false);
        }
        std::fclose(file);
    }
    return 0;
}
