// The GPX reader: GPX 1.0 and 1.1 files, with the Garmin extensions of
// waypoints and track points, turned into Waypoints, Routes, Tracks,
// TrackSegments and TrackPoints of a DataSet. All coordinates of a GPX file
// are WGS 84 degrees.
//
// The reader is nothing but tables and handlers for the markup reader: only
// the names in its tables mean anything, every other tag is an unknown
// wrapper whose text is dropped.
#pragma once

#include "core/mobj.h"

namespace norvanta {

// Start-up: registers the element, attribute, symbol and colour names and
// builds their sets. The store and the markup reader's types must be up.
// Later calls do nothing; a call that failed (gblerr set) may be repeated.
void gpx_init();

// Reads the file into data_set and runs the finishing passes. Reports by
// gblerr: file_access when the file cannot be opened, invalid_file when an
// element stands under an object of the wrong type; what was built until
// then stays in data_set for the caller to drop.
void read_gpx(ObjectId file, ObjectId data_set);

} // namespace norvanta
