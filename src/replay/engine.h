// The replay engine: one ReplayTrack per loaded file and one for live
// navigation, one of them current. Commands act on CurrentTrack; the live
// path and a replay tick end in the same replay_show_point, so that clients
// and Dashboard see one stream of one shape.
//
// Who touches what: the UI thread runs every command and show; the load
// thread appends a track at the end of a load and the navigation worker the
// LiveTrack when a link starts. The list is guarded by one mutex and
// CurrentTrack is an atomic word; the fields of a track are the UI thread's
// once the track is in the list.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/mobj.h"
#include "formats/gps_model.h"
#include "shell/julian.h"

namespace norvanta {

inline constexpr int32_t REPLAY_TIME = 0;
inline constexpr int32_t REPLAY_SPEED = 1;
inline constexpr int32_t REPLAY_LIVE = 2;

inline constexpr double replay_default_speed_kmh = 50.0;

struct ReplayTrack {
    ObjectId dataset;           // the DataSet of the file; 0 for the LiveTrack
    ObjectId file;              // the FileMobj; 0 for the LiveTrack, which has no indexes
    ObjectId time_index;        // OrderedSet of the NavPoints by time
    ObjectId distance_index;    // OrderedSet of the NavPoints by distance
    JulianTime clock_origin;    // when the position was true; zero while the clock stands
    double position_time;       // days, where the clock stood at clock_origin
    double position_distance;   // metres, the same by distance
    int32_t mode;               // REPLAY_TIME, REPLAY_SPEED or REPLAY_LIVE
    double speed;               // km/h of REPLAY_SPEED
    double time_factor;         // factor of REPLAY_TIME
    double requested_direction; // +1.0 or -1.0
    double running_direction;   // direction of the running clock; 0.0 when not running
    double total_distance;      // metres, the distance of the last point; 0 for the LiveTrack
    int32_t loop;               // not 0: start over at the end
    ObjectId current_point;     // the NavPoint last shown; 0 at first
    char* name;                 // owned; shown in the window title
};

// Makes a track and makes it current; out_index is its number in the list,
// -1 when none was made. With a file, both indexes are built over the
// NavPoints of dataset; a track without points stores object_internal and
// is not added. Then the STOP mark.
void replay_add_track(ObjectId dataset, ObjectId file, int32_t& out_index, const char* name);
// Makes the indexed track current (its name is released: a track chosen
// from the file list shows none); a negative index makes none current. The
// Dashboard is refreshed, then the STOP mark.
void replay_select(int32_t index);
void replay_rename(int32_t index, const char* text);
// Accepts REPLAY_TIME, REPLAY_SPEED and REPLAY_LIVE only.
void replay_set_mode(int32_t mode);
// Sends text, or the point's own text when text is null, when diffusion is
// on; makes the point current_point and shows it.
void replay_show_point(ObjectId point, const char* text);
// CurrentTrack, or null.
ReplayTrack* replay_current();
ReplayTrack* replay_track(int32_t index);
int32_t replay_track_count();

// The live path: the one track without points and the one NavPoint that
// every live fix overwrites. Made by the first link that starts.
extern std::atomic<int32_t> LiveTrack; // its index; -1 before
extern std::atomic<ObjectId> LivePoint;

// Registers the engine's view of CurrentTrack with diffusion. At start-up.
void replay_init();

} // namespace norvanta
