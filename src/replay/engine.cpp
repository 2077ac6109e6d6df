// The replay engine: the list of tracks, the current one, the clock that
// plays a track, and the one show that a live fix and a replay tick share.
#include "replay/engine.h"

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/strings.h"
#include "diffusion/clients.h"
#include "shell/dashboard.h"
#include "shell/errors.h"
#include "shell/events.h"

namespace norvanta {

std::atomic<int32_t> LiveTrack{-1};
std::atomic<ObjectId> LivePoint{0};

namespace {

// Tracks are never removed, so an address handed out stays valid for the
// process's life; the vector of them is what the mutex guards. The list is
// never destroyed: threads that outlive main may still read it.
std::mutex replay_list_mutex;
std::vector<ReplayTrack*>& ReplayList = *new std::vector<ReplayTrack*>;
std::atomic<ReplayTrack*> CurrentTrack{nullptr};

bool current_track_test() {
    return CurrentTrack.load() != nullptr;
}

// Both indexes over the DataSet's NavPoints; false when a step failed or the
// track has no point, which stores object_internal.
bool build_indexes(ReplayTrack& track) {
    oset_fill(track.dataset, ObjectType::NavPoint, FieldKind::real, offsetof(NavPoint, time),
              track.time_index);
    if (error_pending()) return false;
    oset_fill(track.dataset, ObjectType::NavPoint, FieldKind::real, offsetof(NavPoint, distance),
              track.distance_index);
    if (error_pending()) return false;
    const int32_t count = oset_count(track.distance_index);
    const NavPoint* last =
        count > 0 ? find_obj_adr<NavPoint>(oset_at(track.distance_index, count - 1)) : nullptr;
    if (!last) {
        set_gblerr(ErrorCode::object_internal);
        return false;
    }
    track.total_distance = last->distance;
    return true;
}

void release_track(ReplayTrack*& track) {
    oset_delete(track->time_index);
    oset_delete(track->distance_index);
    free_mem(track->name);
    free_mem(track);
}

// ---- the clock ----
//
// A running track keeps where it stood (position_time, position_distance)
// and since when (clock_origin); where it stands now is worked out from the
// present time at each tick, never counted from ticks, so a late or missed
// tick costs nothing but a sample. The present time has whole seconds, which
// with the strict searches below gives the stream its shape: a point goes
// out on every tick until the clock has passed it.

constexpr double kmh_to_metres_per_second = 0.2777777777777778;
constexpr double seconds_per_day = 86400.0;

std::atomic<ReplayClock> replay_clock{now_julian};
std::atomic<void (*)()> end_listener{nullptr};

void present_time(JulianTime& out) {
    replay_clock.load()(out);
}

bool clock_runs(const ReplayTrack& track) {
    return track.clock_origin.date != 0.0 || track.clock_origin.day != 0.0;
}

bool runs_forward(const ReplayTrack& track) {
    return track.running_direction > 0.0;
}

// The clock counts metres in REPLAY_SPEED and days in any other mode.
ObjectId clock_index(const ReplayTrack& track) {
    return track.mode == REPLAY_SPEED ? track.distance_index : track.time_index;
}

// A point that cannot be looked up counts as none.
const NavPoint* point_of(ObjectId id) {
    return find_obj_adr<NavPoint>(id);
}

ObjectId end_of_index(ObjectId index, bool last) {
    const int32_t count = oset_count(index);
    if (count == 0) return 0;
    const ObjectId id = oset_at(index, last ? count - 1 : 0);
    return point_of(id) ? id : 0;
}

// The first point whose key is not below target; a target above all gives
// the last point.
ObjectId first_at_or_beyond(ObjectId index, double target) {
    const ObjectId below = oset_last_before(index, &target);
    const ObjectId found = below != 0 ? oset_next(index, below) : oset_at(index, 0);
    return point_of(found) ? found : end_of_index(index, true);
}

void place_clock_at(ReplayTrack& track, const NavPoint& point) {
    track.position_time = point.time;
    track.position_distance = point.distance;
}

// The tick found nothing: the run is over and the track rests where its last
// shown point stands (without one, where the run started). The clock stops
// either way, so that the track is paused and a stray tick dies.
void end_of_run(ReplayTrack& track) {
    if (const NavPoint* shown = point_of(track.current_point)) place_clock_at(track, *shown);
    julian_zero(track.clock_origin);
    track.running_direction = 0.0;
    release_direction_buttons();
    diffuse_stop();
    lock_controls(false);
    if (void (*listener)() = end_listener.load()) listener();
}

// A new setting of the clock: a running clock is paused first and started
// again after, so that the position is kept over the change.
void change_setting(double ReplayTrack::*field, int32_t mode, double value) {
    ReplayTrack* track = CurrentTrack.load();
    if (!track) return;
    const bool was_running = clock_runs(*track);
    if (was_running) replay_pause();
    track->*field = value;
    track->mode = mode;
    if (was_running) replay_play();
}

} // namespace

void replay_init() {
    set_current_track_test(current_track_test);
    set_event_handler(event_replay_tick, replay_tick);
}

void set_replay_end_listener(void (*listener)()) {
    end_listener.store(listener);
}

void set_replay_clock(ReplayClock now) {
    replay_clock.store(now ? now : now_julian);
}

void replay_add_track(ObjectId dataset, ObjectId file, int32_t& out_index, const char* name) {
    out_index = -1;
    ReplayTrack* track = nullptr;
    alloc_zero_mem(track, sizeof(ReplayTrack));
    if (!track) return;
    str_copy(name, track->name);
    track->time_factor = 1.0;
    track->requested_direction = 1.0;
    track->mode = REPLAY_TIME;
    track->speed = replay_default_speed_kmh;
    if (file != 0) {
        track->dataset = dataset;
        track->file = file;
        if (!build_indexes(*track)) {
            release_track(track);
            return;
        }
    }
    {
        std::lock_guard lock(replay_list_mutex);
        ReplayList.push_back(track);
        out_index = static_cast<int32_t>(ReplayList.size()) - 1;
    }
    CurrentTrack.store(track);
    diffuse_stop();
}

ReplayTrack* replay_track(int32_t index) {
    std::lock_guard lock(replay_list_mutex);
    if (index < 0 || static_cast<std::size_t>(index) >= ReplayList.size()) return nullptr;
    return ReplayList[static_cast<std::size_t>(index)];
}

int32_t replay_track_count() {
    std::lock_guard lock(replay_list_mutex);
    return static_cast<int32_t>(ReplayList.size());
}

ReplayTrack* replay_current() {
    return CurrentTrack.load();
}

void replay_select(int32_t index) {
    if (replay_track_count() == 0) return;
    ReplayTrack* track = replay_track(index);
    if (track) free_mem(track->name);
    CurrentTrack.store(track);
    refresh_dashboard();
    diffuse_stop();
}

void replay_rename(int32_t index, const char* text) {
    ReplayTrack* track = replay_track(index);
    if (!track) return;
    str_copy(text, track->name);
    refresh_dashboard();
}

void replay_set_mode(int32_t mode) {
    ReplayTrack* track = CurrentTrack.load();
    if (!track || mode < REPLAY_TIME || mode > REPLAY_LIVE) return;
    track->mode = mode;
}

void replay_show_point(ObjectId point_id, const char* text) {
    ReplayTrack* track = CurrentTrack.load();
    NavPoint* point = find_obj_adr<NavPoint>(point_id);
    if (!track || !point) return;
    if (!text) text = point->text;
    if (DiffuseOn.load() != 0 && text) diffuse_text(text);
    track->current_point = point_id;
    show_point(*point, track->total_distance);
}

void replay_set_direction(int32_t direction) {
    ReplayTrack* track = CurrentTrack.load();
    if (!track || (direction != 1 && direction != -1)) return;
    track->requested_direction = direction;
}

void replay_set_loop(int32_t flag) {
    if (ReplayTrack* track = CurrentTrack.load()) track->loop = flag;
}

void replay_set_time_factor(double value) {
    change_setting(&ReplayTrack::time_factor, REPLAY_TIME, value);
}

void replay_set_speed(double value) {
    change_setting(&ReplayTrack::speed, REPLAY_SPEED, value);
}

void replay_locate(const JulianTime& now, ObjectId& out_point) {
    out_point = 0;
    ReplayTrack* track = CurrentTrack.load();
    if (!track) return;
    const double elapsed_days = julian_difference(track->clock_origin, now);
    // The factors in this order: the last bits of the target decide which
    // side of a point the clock stands on.
    const double target =
        track->mode == REPLAY_SPEED
            ? track->speed * kmh_to_metres_per_second * (elapsed_days * seconds_per_day) *
                      track->running_direction +
                  track->position_distance
            : track->time_factor * track->running_direction * elapsed_days + track->position_time;
    const ObjectId index = clock_index(*track);
    const ObjectId found =
        runs_forward(*track) ? oset_first_after(index, &target) : oset_last_before(index, &target);
    if (point_of(found)) {
        out_point = found;
        return;
    }
    if (track->loop == 0) return;
    // Starting over is a new stream for the clients. The restart point comes
    // from the time index in both modes.
    diffuse_stop();
    diffuse_start();
    const ObjectId restart = end_of_index(track->time_index, !runs_forward(*track));
    const NavPoint* point = point_of(restart);
    if (!point) return;
    place_clock_at(*track, *point);
    present_time(track->clock_origin);
    out_point = restart;
}

void replay_next(ObjectId& out_point) {
    out_point = 0;
    ReplayTrack* track = CurrentTrack.load();
    if (!track) return;
    JulianTime now{};
    present_time(now);
    replay_locate(now, out_point);
    if (out_point != 0 || track->loop != 0) return;
    // Whole seconds would let the clock jump over the end between two ticks
    // and the last point never go out: a clock that passed the end less than
    // a second ago still gives the end of the track.
    julian_add_days(now, -one_second_days);
    ObjectId within_last_second = 0;
    replay_locate(now, within_last_second);
    if (within_last_second == 0) return;
    out_point = end_of_index(clock_index(*track), runs_forward(*track));
}

void replay_tick() {
    ReplayTrack* track = CurrentTrack.load();
    // A tick that was on its way when the clock stopped dies here.
    if (!track || !clock_runs(*track)) return;
    ObjectId point = 0;
    replay_next(point);
    if (point == 0) {
        end_of_run(*track);
        return;
    }
    replay_show_point(point, nullptr);
    arm_event(event_replay_tick, replay_tick_delay_ms, nullptr);
}

void replay_play() {
    ReplayTrack* track = CurrentTrack.load();
    if (!track || track->running_direction == track->requested_direction) return;
    // A change of direction on the run freezes the position first.
    if (clock_runs(*track)) replay_pause();
    present_time(track->clock_origin);
    track->running_direction = track->requested_direction;
    diffuse_start();
    arm_event(event_replay_tick, 0, nullptr);
}

// Kept on purpose: the position is where the clock stands now, even when the
// clock does not run. A pause after the end has been passed goes back to the
// start, and a pause on a standing track moves it back by one point, since
// the backward search is strict.
void replay_pause() {
    ReplayTrack* track = CurrentTrack.load();
    if (!track) return;
    cancel_event(event_replay_tick);
    diffuse_stop();
    ObjectId point = 0;
    replay_next(point);
    if (const NavPoint* reached = point_of(point)) {
        place_clock_at(*track, *reached);
    } else {
        track->position_time = 0.0;
        track->position_distance = 0.0;
    }
    julian_zero(track->clock_origin);
    track->running_direction = 0.0;
    diffuse_stop();
}

void replay_stop() {
    ReplayTrack* track = CurrentTrack.load();
    if (!track) return;
    cancel_event(event_replay_tick);
    diffuse_stop();
    julian_zero(track->clock_origin);
    track->position_time = 0.0;
    track->position_distance = 0.0;
    track->current_point = 0;
    track->running_direction = 0.0;
    refresh_dashboard();
    diffuse_stop();
}

void replay_seek(double fraction) {
    ReplayTrack* track = CurrentTrack.load();
    if (!track || track->running_direction != 0.0) return;
    const ObjectId found =
        first_at_or_beyond(track->distance_index, fraction * track->total_distance);
    const NavPoint* point = point_of(found);
    if (!point) return;
    // One send: a client sees the jump as the end of one stream and the
    // sought point.
    std::string text = diffuse_stop_mark;
    if (point->text) text += point->text;
    replay_show_point(found, text.c_str());
    place_clock_at(*track, *point);
}

} // namespace norvanta
