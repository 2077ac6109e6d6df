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

// How far a replay tick waits before the next one. The position comes from
// the wall clock, so this sets only how often the clock is sampled.
inline constexpr int replay_tick_delay_ms = 400;

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
// The settings of CurrentTrack. A direction other than -1 and +1 is refused.
// A new time factor selects REPLAY_TIME and a new speed (km/h) REPLAY_SPEED;
// a running clock is paused around the change, so the position is kept.
void replay_set_direction(int32_t direction);
void replay_set_loop(int32_t flag);
void replay_set_time_factor(double value);
void replay_set_speed(double value);

// The clock of CurrentTrack. Play starts it in the requested direction
// (a second press in the running direction does nothing), pause freezes the
// position where the clock stands, stop goes back to the start and forgets
// the point shown.
void replay_play();
void replay_pause();
void replay_stop();
// Only while the clock stands: shows and sends the first point at or beyond
// fraction (0 to 1) of the track's distance, behind a STOP mark in one send,
// and the next play starts from there.
void replay_seek(double fraction);

// The point where the clock of CurrentTrack stands at now: the first point
// strictly beyond the target (running forward) or the last strictly before
// it (running back), 0 for none. With loop set, a run past the end starts
// over from the first point (or the last, running back) at the present time.
void replay_locate(const JulianTime& now, ObjectId& out_point);
// The point for the present time; when the clock passed the end less than a
// second ago, the end of the track, so that its last point always goes out.
// 0 when the track has ended.
void replay_next(ObjectId& out_point);
// The handler of the replay tick event: sends and shows the point of the
// clock and arms the next tick, or ends the run at the end of the track.
void replay_tick();

// The present time of the replay clock, in whole seconds. Tests put a clock
// of their own in; null gives now_julian back.
using ReplayClock = void (*)(JulianTime& out);
void set_replay_clock(ReplayClock now);
// Told on the UI thread when a run has ended by itself (the track's end
// without loop), after its STOP mark; null for no one. The program with no
// window ends there when asked to.
void set_replay_end_listener(void (*listener)());

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

// Registers the engine's view of CurrentTrack with diffusion and the replay
// tick with the event machine. At start-up.
void replay_init();

} // namespace norvanta
