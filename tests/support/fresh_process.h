// Runs a test's scenario in a new copy of the test program.
//
// The configuration, the directories and the settings are formed once and
// kept for the life of a process, so a test of seeding, caching or the error
// log needs a process in which nothing has been formed yet. The copy runs
// only the current test; its failures fail the current test, with its output.
#pragma once

namespace norvanta::testing {

// In the copy, runs scenario; in the test program as started, starts the copy
// with the current test as its only test and checks that it passed.
void in_fresh_process(void (*scenario)());

} // namespace norvanta::testing
