// The replay asked for on the command line of the program with no window:
// what a user of the window does with the mouse once the files are loaded.
#pragma once

#include <cstdint>

namespace norvanta {

struct PlaybackOptions {
    int32_t direction = 0;       // 1 --play, -1 --backward, 0 no run
    double time_factor = 0.0;    // --factor; 0 leaves the track's own
    double speed_kmh = 0.0;      // --speed; 0 leaves the track's own
    bool loop = false;           // --loop
    double seek_fraction = -1.0; // --seek, 0 to 1; below 0 none
    int32_t select = -1;         // --select, a track's number; below 0 the last loaded
    bool exit_at_end = false;    // --exit-at-end
};

// Asks for the options to be applied once the files queued so far are
// loaded.
void schedule_playback(const PlaybackOptions& options);

} // namespace norvanta
