// The toolkit's application, its message loop, the posts that reach the loop
// from any thread, the close and quit requests, and the cursor.
//
// A post is a call queued onto the loop (the toolkit's own thread-safe
// queue), so posts are served in the order they were made, each by
// dispatch_event. A count of the posts not yet served answers whether work
// waits.
#include "platform/wx/wx_app.h"

#include <atomic>

#include <wx/app.h>
#include <wx/cursor.h>
#include <wx/image.h>
#include <wx/init.h>

#ifdef NORVANTA_GTK_STYLE
#include <gtk/gtk.h>
#endif

#include "core/memory.h"
#include "platform/wx/wx_backend.h"
#include "shell/events.h"
#include "shell/window.h"

namespace norvanta {

namespace {

class NorvantaApp : public wxApp {
  public:
    // The command line is the program's own: the toolkit's default parser
    // would refuse -NAVIG and the file names.
    bool OnInit() override {
        wxInitAllImageHandlers();
        return true;
    }
};

std::atomic<int> posts_waiting{0};
std::atomic<bool> close_requested{false};
std::atomic<bool> quit_requested{false};
std::atomic<int> quit_code{0};
std::atomic<UiCursor> cursor_shown{UiCursor::arrow};

#ifdef NORVANTA_GTK_STYLE
// The controls keep the pixel sizes the program gives them; the theme's
// generous padding would leave a 28 pixel button no room for its icon and a
// 24 pixel entry no room for its text.
constexpr const char* compact_controls_css =
    "button { padding: 1px; min-height: 0; min-width: 0; }\n"
    "entry { padding-top: 0; padding-bottom: 0; min-height: 0; }\n"
    "combobox button { padding-top: 0; padding-bottom: 0; min-height: 0; }\n";

void use_compact_controls() {
    GtkCssProvider* provider = gtk_css_provider_new();
    gtk_css_provider_load_from_data(provider, compact_controls_css, -1, nullptr);
    gtk_style_context_add_provider_for_screen(gdk_screen_get_default(),
                                              GTK_STYLE_PROVIDER(provider),
                                              GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    g_object_unref(provider);
}
#endif

} // namespace

bool wx_start(int& argc, char** argv) {
    wxApp::SetInstance(new NorvantaApp);
    if (!wxEntryStart(argc, argv)) return false;
    if (!wxTheApp->CallOnInit()) return false;
#ifdef NORVANTA_GTK_STYLE
    use_compact_controls();
#endif
    return true;
}

void ui_post(int32_t event, char* data) {
    if (!wx::main_window_made() || !wxTheApp) {
        free_mem(data);
        return;
    }
    posts_waiting.fetch_add(1);
    wxTheApp->CallAfter([event, data] {
        posts_waiting.fetch_sub(1);
        dispatch_event(event, data);
    });
}

void ui_request_close() {
    close_requested.store(true);
    if (wxTheApp) wxTheApp->CallAfter([] { main_window_close(); });
}

int ui_run_loop() {
    if (!quit_requested.load()) wxTheApp->OnRun();
    return quit_code.load();
}

void ui_quit(int code) {
    quit_code.store(code);
    quit_requested.store(true);
    wx::on_ui([] {
        if (wxTheApp) wxTheApp->ExitMainLoop();
    });
}

// The windows go with the process; nothing is left half-written on screen.
void ui_closing() {}

bool ui_work_pending() {
    return posts_waiting.load() > 0 || close_requested.load() || quit_requested.load();
}

UiCursor ui_cursor() {
    return cursor_shown.load();
}

void ui_set_cursor(UiCursor cursor) {
    cursor_shown.store(cursor);
    wx::on_ui([] {
        // The latest choice wins, whichever thread's request comes last.
        const UiCursor shown = cursor_shown.load();
        if (shown == UiCursor::foreign) return;
        wxSetCursor(shown == UiCursor::busy ? wxCursor(wxCURSOR_WAIT) : wxNullCursor);
    });
}

} // namespace norvanta
