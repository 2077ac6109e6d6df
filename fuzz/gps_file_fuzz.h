// What the GPS-file targets share: a private home for the configuration and
// the swap files, the store with the record types, the markup and GPX name
// tables and the geodetic dictionary of the source tree, and each input
// written to a file on disk, since detection and the readers go through the
// stream reader over a FileMobj exactly as a user's file does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/object_store.h"
#include "core/paged_memory.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "formats/gpx.h"
#include "formats/xml.h"
#include "geodesy/tables.h"
#include "geodesy/transforms.h"
#include "shell/errors.h"

namespace norvanta::fuzzing {

// A broken invariant stops the run; the error word at that moment is the
// first thing a reader of the crash wants.
inline void trap_unless(bool condition) {
    if (condition) return;
    std::fprintf(stderr, "invariant broken with gblerr %d\n", static_cast<int>(current_error()));
    __builtin_trap();
}

// The errors a reader is made to give on bad content: malformed or cut
// short.
inline bool designed_failure(ErrorCode code) {
    return code == ErrorCode::invalid_file || code == ErrorCode::file_access;
}

// The private home, made once; its swap files and inputs stay in it.
inline const std::string& fuzz_home() {
    static const std::string home = [] {
        char pattern[] = "/tmp/norvanta-fuzz-XXXXXX";
        trap_unless(mkdtemp(pattern) != nullptr);
        std::string made = std::string(pattern) + "/";
        setenv("NORVANTA_HOME", made.c_str(), 1);
        return made;
    }();
    return home;
}

inline void set_up_gps_files() {
    static const bool done = [] {
        fuzz_home();
        object_store_create();
        paged_memory_register();
        gps_model_register_types();
        nav_point_register_type();
        geodesy_register_types();
        transforms_register_types();
        file_objects_init();
        xml_init();
        geodesy_load_from(NORVANTA_SYSTEM_SOURCE_DIR "/");
        geodesy_find_wgs84();
        load_symbol_images(NORVANTA_SYSTEM_SOURCE_DIR "/");
        gpx_init();
        return !error_pending();
    }();
    trap_unless(done);
    set_gblerr(ErrorCode::none);
}

// The input as the content of a file of that name in the private home;
// returns the path.
inline std::string write_input(const std::string& name, const void* head, std::size_t head_size,
                               const uint8_t* data, std::size_t size) {
    const std::string path = fuzz_home() + name;
    std::FILE* file = std::fopen(path.c_str(), "wb");
    trap_unless(file != nullptr);
    if (head_size) std::fwrite(head, 1, head_size, file);
    if (size) std::fwrite(data, 1, size, file);
    std::fclose(file);
    return path;
}

// A FileMobj of the path, examined, registered nowhere.
inline ObjectId file_of(const std::string& path) {
    return new_file_mobj(no_parent, nullptr, path.c_str(), false);
}

// Deleting the file closes its stream and deletes the DataSet it loaded.
inline void drop(ObjectId file) {
    set_gblerr(ErrorCode::none);
    ObjectId doomed = file;
    del_obj_adr(ObjectType::FileMobj, doomed);
    trap_unless(!find_obj_adr<FileMobj>(file));
    set_gblerr(ErrorCode::none);
}

} // namespace norvanta::fuzzing
