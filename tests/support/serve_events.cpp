#include "support/serve_events.h"

#include <gtest/gtest.h>

#include "platform/headless/ui_headless.h"
#include "shell/events.h"

namespace norvanta::testing {

namespace {

constexpr int serve_poll_ms = 5;
constexpr int serve_rounds = 2000;

} // namespace

void serve_until_idle() {
    if (!serve_until([] { return headless::pending_count() == 0 && event_machine_idle(); }))
        ADD_FAILURE() << "the event machine did not come to rest";
}

bool serve_until(const std::function<bool()>& done) {
    for (int round = 0; round < serve_rounds; ++round) {
        if (done()) return true;
        headless::serve_one(serve_poll_ms);
    }
    return done();
}

} // namespace norvanta::testing
