// Applying the command line's replay options, in the order a user of the
// window would: choose the track, seek, set the factor or the speed and the
// loop, then press a direction.
#include "shell/playback_options.h"

#include <cstdio>

#include "replay/engine.h"
#include "shell/dashboard.h"
#include "shell/events.h"
#include "shell/main.h"
#include "version.h"

namespace norvanta {

namespace {

constexpr int nothing_to_play_status = 1;

PlaybackOptions scheduled;

void end_of_track() {
    exit_path(0);
}

// The handler of the playback event, on the UI thread.
void start_playback() {
    const PlaybackOptions& options = scheduled;
    if (options.select >= 0) replay_select(options.select);
    if (!replay_current()) {
        std::fprintf(stderr, "%s: no track to play: no file was loaded as a track\n", program_name);
        if (options.exit_at_end) exit_path(nothing_to_play_status);
        return;
    }
    if (options.seek_fraction >= 0.0) replay_seek(options.seek_fraction);
    if (options.time_factor > 0.0) replay_set_time_factor(options.time_factor);
    if (options.speed_kmh > 0.0) replay_set_speed(options.speed_kmh);
    if (options.loop) replay_set_loop(1);
    refresh_dashboard();
    if (options.exit_at_end) set_replay_end_listener(end_of_track);
    if (options.direction != 0)
        dashboard_command(
            options.direction > 0 ? dashboard_forward_button : dashboard_backward_button, 0);
}

} // namespace

void schedule_playback(const PlaybackOptions& options) {
    scheduled = options;
    set_event_handler(event_command_line_playback, start_playback);
    post_event(event_command_line_playback);
}

} // namespace norvanta
