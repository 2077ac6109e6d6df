// The load dispatcher: one call loads any file into its DataSet, by way of
// detection and the reader of its class and format, and the same module
// writes the information text that tells the user what a file holds.
#pragma once

#include <cstdint>

#include "core/mobj.h"

namespace norvanta {

// What every format reader does: open the stream itself (gblerr file_access
// when it cannot), add a GeoReference for the system of its coordinates, make
// its records through the creators of the GPS model, each a member of
// data_set, and run the finishing passes that apply. Bad content empties the
// set and sets invalid_file, an unknown variant unknown_format. The stream is
// left open: the dispatcher closes it.
using FormatReader = void (*)(ObjectId file, ObjectId data_set);

// The file's DataSet, loaded on first call and returned as it stands after.
//  - A missing file gives 0 with gblerr clear. A data_set that was deleted
//    meanwhile is forgotten and the file loads anew.
//  - A file not looked at yet (a regular file or a web address) goes through
//    detection; the members of a file list or an archive become its set.
//  - request, null for none, is the on-demand request of a raster reader: a
//    request other than 0 on a file whose content cannot be read on demand
//    turns into -1, and nothing is loaded (result 0, gblerr clear).
//  - Directories, unusable and unchecked files give an empty set with gblerr
//    cleared; vector and GPS data go to their format's reader.
//  - A reader's failure gives 0 with its gblerr kept, and leaves no set
//    behind: the file's data_set stays 0, so that a later call tries again.
// With want_info the file's info text is built: after a load, or when a
// loaded file has none yet.
ObjectId load_file(ObjectId file, int32_t* request, bool want_info);

// Rebuilds the file's info text: line pairs of a title and a value for the
// name, the compression, the format, the count of objects and images, and
// the counts of GPS records that the format calls for. language: 1 French,
// 2 English, 0 the language in use.
void describe_file(ObjectId file, int language = 0);

} // namespace norvanta
