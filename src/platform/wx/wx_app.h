// The desktop program's start of the toolkit: before anything is shown,
// even the box of a failed start-up.
#pragma once

namespace norvanta {

// Brings the toolkit up on the calling thread, which becomes the UI thread.
// The toolkit takes its own options (--display and the like) out of argv.
// False, with the toolkit's own message on standard error, when there is no
// display to show a window on.
bool wx_start(int& argc, char** argv);

} // namespace norvanta
