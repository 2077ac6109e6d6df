// A GPX load through the dispatcher over any bytes: the reader and the
// finishing passes read and write only their own records, a failed load
// leaves no set behind, and a successful one holds nothing but GPS records
// and its GeoReference, described without fault. The bytes stand behind a
// "<gpx" root when the first byte is odd, so that most inputs reach the
// handlers; an even first byte gives the bytes as they are.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/object_sets.h"
#include "formats/dispatch.h"
#include "gps_file_fuzz.h"

namespace {

using namespace norvanta;
using namespace norvanta::fuzzing;

constexpr char gpx_root[] = "<gpx version=\"1.1\">";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    set_up_gps_files();
    const bool rooted = (data[0] & 1) != 0;
    const ObjectId file = file_of(
        write_input("input.gpx", gpx_root, rooted ? std::strlen(gpx_root) : 0, data + 1, size - 1));
    // Straight to the GPX reader, as detection sends any file with "<gpx"
    // near its start.
    auto* record = find_obj_adr<FileMobj>(file);
    trap_unless(record != nullptr);
    const bool readable = record->file_class == FileClass::regular_file;
    record->file_class = FileClass::gps_data;
    record->format = FileFormat::gpx;

    const ObjectId data_set = load_file(file, nullptr, true);
    if (data_set == 0) {
        trap_unless(file_data_set_of(file) == 0);
        trap_unless(!readable || designed_failure(current_error()));
    } else {
        trap_unless(!error_pending());
        trap_unless(ds_count(data_set, ObjectType::GeoReference) == 1);
    }
    drop(file);
    return 0;
}
