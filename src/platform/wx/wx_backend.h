// What the files of the wxWidgets backend share: the way onto the UI thread,
// text conversion, fonts and icons, and the main window's frame.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <wx/bitmap.h>
#include <wx/font.h>
#include <wx/frame.h>
#include <wx/iconbndl.h>
#include <wx/string.h>

#include "platform/ui.h"

namespace norvanta::wx {

// Runs work on the UI thread: at once when called there, otherwise queued
// behind what the loop already holds. Widgets are touched only this way.
void on_ui(std::function<void()> work);
bool on_ui_thread();

// The program's texts are UTF-8; a text that is not (an 8-bit French text)
// is taken as Latin-1 rather than shown empty.
wxString to_wx(const char* text);
std::string from_wx(const wxString& text);

// A descriptor's font; null is the default control font.
wxFont font_of(const UiFont* font);
// An icon of the system directory at size pixels square; an invalid bitmap
// when the file does not load.
wxBitmap load_icon(const char* file_name, int size);
// The program's icon at every size its file holds.
const wxIconBundle& program_icons();

// The main window and the panel that is its client area; null before the
// window is made. UI thread only.
wxFrame* main_frame();
wxWindow* main_panel();
// Set once the frame is made; any thread reads it.
bool main_window_made();

} // namespace norvanta::wx
