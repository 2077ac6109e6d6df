// The NMEA text log of a serial link.
#include "navigation/navigation_logs.h"

#include <cstdio>
#include <ctime>
#include <string>

#include "core/stream.h"
#include "navigation/nmea_writer.h"
#include "navigation/worker.h"
#include "shell/config.h"

namespace norvanta {

namespace {

constexpr const char* nmea_log_prefix = "NMEA_";
constexpr const char* nmea_log_suffix = ".nmea";
constexpr const char* nmea_log_header = "$PKLNH,NMEA File Header";
constexpr std::size_t stamp_capacity = 64;

// The local time as "%4d-%02d-%02d_%02dh%02dm%02ds".
std::string log_stamp_now() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[stamp_capacity];
    std::snprintf(stamp, sizeof stamp, "%4d-%02d-%02d_%02dh%02dm%02ds", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return stamp;
}

} // namespace

void open_nmea_log(ReceiverLink& link) {
    auto* parser =
        link.protocol == link_protocol_nmea ? static_cast<NmeaParser*>(link.parser) : nullptr;
    if (!parser) return;
    if (!parser->log_file) {
        const char* directory = nav_log_dir();
        const std::string path = std::string(directory ? directory : "") + nmea_log_prefix +
                                 log_stamp_now() + nmea_log_suffix;
        parser->log_file = open_for_write(path.c_str(), "wb");
        if (!parser->log_file) return;
        file_sentence(parser->log_file, nmea_log_header);
    }
    link.nmea_log_on = 1;
}

} // namespace norvanta
