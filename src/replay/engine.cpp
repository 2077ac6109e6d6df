// The replay engine: the list of tracks, the current one, and the one show
// that a live fix and a replay tick share.
#include "replay/engine.h"

#include <cstddef>
#include <mutex>
#include <vector>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/strings.h"
#include "diffusion/clients.h"
#include "shell/dashboard.h"
#include "shell/errors.h"

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

} // namespace

void replay_init() {
    set_current_track_test(current_track_test);
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

} // namespace norvanta
