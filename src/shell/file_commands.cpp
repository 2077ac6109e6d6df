// Describing and exporting a file from the command line.
#include "shell/file_commands.h"

#include <string>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "formats/dispatch.h"
#include "formats/file_mobj.h"
#include "navigation/nmea_writer.h"
#include "platform/os.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "version.h"

namespace norvanta {

namespace {

constexpr const char* unreadable_text = "cannot be read";
constexpr const char* nothing_text = "holds no waypoint, route, track or log to export";

// One line naming the file and what went wrong; the error is cleared.
int report_failure(std::FILE* err, const char* path, const char* reason) {
    std::fprintf(err, "%s: %s: %s\n", program_name, path, reason);
    set_gblerr(ErrorCode::none);
    return 1;
}

// The file's DataSet, loaded with its information text; 0 after a report.
// A file that is missing, unreadable or of no format the program reads is
// reported as the replay's loading would report it.
ObjectId load_user_file(const char* path, std::FILE* err, ObjectId& out_file) {
    const std::string absolute = os::absolute_path(path);
    if (!os::is_regular_file(absolute.c_str())) {
        report_failure(err, path, error_text_of(ErrorCode::file_access, language_index()));
        return 0;
    }
    out_file = open_path(absolute.c_str());
    const ObjectId data_set = out_file != 0 ? load_file(out_file, nullptr, true) : 0;
    if (data_set == 0 || error_pending()) {
        report_failure(err, path, error_pending() ? error_text() : unreadable_text);
        return 0;
    }
    const FileClass file_class = file_class_of(out_file);
    if (file_class != FileClass::gps_data && file_class != FileClass::vector) {
        report_failure(err, path, localized("Format de fichier inconnu.", "Unkown File Format"));
        return 0;
    }
    return data_set;
}

} // namespace

int print_file_information(const char* path, std::FILE* out, std::FILE* err) {
    ObjectId file = 0;
    if (load_user_file(path, err, file) == 0) return 1;
    const auto* record = find_obj_adr<FileMobj>(file);
    std::fprintf(out, "%s\n", record && record->info ? record->info : "");
    return 0;
}

int export_file_nmea(const char* path, const char* output, std::FILE* err) {
    ObjectId file = 0;
    const ObjectId data_set = load_user_file(path, err, file);
    if (data_set == 0) return 1;
    // The writer makes no file for a set with nothing to write; the user
    // hears why, and an older file of that name stays as it was.
    int32_t records = 0;
    for (ObjectType type : {ObjectType::Waypoint, ObjectType::TrackPoint, ObjectType::NavSample})
        records += ds_count_tree(data_set, type);
    if (records == 0) return report_failure(err, path, nothing_text);
    write_data_set_nmea(os::absolute_path(output).c_str(), 0, data_set);
    if (error_pending()) return report_failure(err, output, error_text());
    return 0;
}

} // namespace norvanta
