// Each native reader over any bytes: the first byte chooses the reader, whose
// magic line is put in front of the rest (one choice gives the bytes without
// a magic). A load either fails with invalid_file or file_access and leaves
// no set, or gives a set that is empty or holds its records and exactly one
// GeoReference. The column tables keep values from one input to the next, as
// they do from one file to the next, so a run also covers that hand-over.
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "core/object_sets.h"
#include "formats/dispatch.h"
#include "formats/native.h"
#include "gps_file_fuzz.h"

namespace {

using namespace norvanta;
using namespace norvanta::fuzzing;

struct Reader {
    std::string_view head;
    FileFormat format;
};
constexpr Reader readers[] = {
    {"TRW-waypoint\n", FileFormat::tavoren_waypoints_v1},
    {"TRT-tracklog\n", FileFormat::tavoren_tracklog_v1},
    {"TRW-V2_Tavoren_Waypoint\n", FileFormat::tavoren_waypoints},
    {"TRT-V2_Tavoren_Tracklog\n", FileFormat::tavoren_tracklog},
    {"TRR-V2_Tavoren_Route\n", FileFormat::tavoren_routes},
    {"TRN-V3_Tavoren_Navigation_logfile\n", FileFormat::tavoren_navigation},
    {"$PKLNH,NMEA File Header\r\n", FileFormat::nmea_log},
    {"", FileFormat::tavoren_waypoints},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    set_up_gps_files();
    const Reader& reader = readers[data[0] % std::size(readers)];
    const ObjectId file = file_of(
        write_input("input.txt", reader.head.data(), reader.head.size(), data + 1, size - 1));
    auto* record = find_obj_adr<FileMobj>(file);
    trap_unless(record != nullptr);
    record->file_class = FileClass::gps_data;
    record->format = reader.format;

    const ObjectId data_set = load_file(file, nullptr, true);
    if (data_set == 0) {
        trap_unless(file_data_set_of(file) == 0);
        trap_unless(designed_failure(current_error()));
    } else {
        trap_unless(!error_pending());
        const int32_t references = ds_count(data_set, ObjectType::GeoReference);
        trap_unless(references == 1 || ds_count(data_set, ObjectType::None) == 0);
    }
    drop(file);
    return 0;
}
