// Serving the headless window's messages from a test, which thereby acts as
// the UI thread.
#pragma once

#include <functional>

namespace norvanta::testing {

// Serves messages until the event machine is at rest; a failure when it
// never comes to rest.
void serve_until_idle();
// Serves messages until done() holds; false (and a failure) when it never
// does before a deadline that only a broken machine reaches.
bool serve_until(const std::function<bool()>& done);

} // namespace norvanta::testing
