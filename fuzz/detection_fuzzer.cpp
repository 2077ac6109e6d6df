// Detection over any bytes in a file: whatever the content, it ends with a
// class that a caller can switch on and with gblerr clear, and the members a
// file list adds to the data set are ordinary files that delete cleanly. The
// first byte chooses the file's extension (two formats are known by it
// alone), whether the detection is nested, and whether a data set is given.
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "core/object_sets.h"
#include "formats/detection.h"
#include "gps_file_fuzz.h"

namespace {

using namespace norvanta;
using namespace norvanta::fuzzing;

constexpr const char* names[] = {"input.dat", "input.tga", "input.trl", "input.gpx"};

bool decided(FileClass file_class) {
    return file_class != FileClass::unexamined && file_class != FileClass::regular_file &&
           file_class != FileClass::xml;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    set_up_gps_files();
    const uint8_t choice = data[0];
    const char* name = names[choice % std::size(names)];
    const bool nested = (choice & 0x04) != 0;
    const bool with_set = (choice & 0x08) != 0;

    const ObjectId file = file_of(write_input(name, nullptr, 0, data + 1, size - 1));
    ObjectId data_set = 0;
    if (with_set) ds_create(data_set);
    const ObjectId holder = detect_format(file, data_set, nested);
    trap_unless(!error_pending());
    trap_unless(holder == file);
    trap_unless(decided(file_class_of(file)));
    if (with_set) {
        ds_delete_tree(data_set);
        ds_destroy(data_set);
    }
    drop(file);
    return 0;
}
