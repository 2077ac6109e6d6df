// The main window's commands: every menu item and every control of the
// Dashboard reaches the program through command(id, code), on the UI thread.
// Files come in by the open command here, or by a drop (drop_files of
// shell/events.h, which a backend calls only while ui_accept_drops allows).
#pragma once

#include <atomic>
#include <cstdint>

namespace norvanta {

// 1 while a command is being served.
extern std::atomic<int32_t> CommandInProgress;

// The handler of the main window's commands: the command id and the
// control's notification code (0 for a menu item). Ids that are not in the
// command table do nothing; after every command, event 4 is posted.
void command(int32_t id, int32_t code);

// The open dialog, then each chosen file to load_path, the last first.
void open_file_command();
// The directory the open dialog starts in next time; empty before the first
// answer.
const char* last_open_directory();

// The number at the start of an entry's text, as atoi reads it, 0 for none;
// held at INT32_MAX so that a long run of digits cannot overflow.
int32_t entry_number(const char* text);

// The About box's four lines and its caption in the language in use.
const char* about_text();
const char* about_caption();

} // namespace norvanta
