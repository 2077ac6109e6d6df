// The program's own dialogs, made from their control rows, and the open-file
// chooser.
//
// A dialog is shown without a modal loop of its own: the main window is
// disabled, and the dialog lives on its notifications until the shell ends
// it. The shell may end it from inside one of them, so every notification
// finds its dialog again by handle, and the controls' record is let go only
// once the event that ended it has run its course.
#include "platform/ui_dialog.h"

#include <memory>

#include <wx/app.h>
#include <wx/dialog.h>
#include <wx/filedlg.h>
#include <wx/panel.h>
#include <wx/settings.h>

#include "platform/wx/wx_backend.h"
#include "platform/wx/wx_controls.h"

namespace norvanta {

namespace {

struct OpenDialog {
    UiDialog handle;
    UiDialogCallbacks callbacks;
    wxDialog* window;
    wxPanel* panel;
    std::unique_ptr<wx::ControlSet> controls;
};

struct Dialogs {
    std::vector<std::unique_ptr<OpenDialog>> open; // oldest first
    UiDialog next_handle = 1;
};

// The UI thread's alone.
Dialogs& dialogs() {
    static Dialogs instance;
    return instance;
}

OpenDialog* find_dialog(UiDialog handle) {
    for (auto& dialog : dialogs().open)
        if (dialog->handle == handle) return dialog.get();
    return nullptr;
}

wx::ControlSet* controls_of(UiDialog handle) {
    OpenDialog* dialog = find_dialog(handle);
    return dialog ? dialog->controls.get() : nullptr;
}

UiDialog handle_of(void* owner) {
    return static_cast<UiDialog>(reinterpret_cast<intptr_t>(owner));
}

void tell_command(void* owner, int32_t id, int32_t code) {
    const UiDialog handle = handle_of(owner);
    OpenDialog* dialog = find_dialog(handle);
    if (dialog && dialog->callbacks.command) dialog->callbacks.command(handle, id, code);
}

void tell_key(void* owner, int32_t id, int32_t key) {
    const UiDialog handle = handle_of(owner);
    OpenDialog* dialog = find_dialog(handle);
    if (dialog && dialog->callbacks.key) dialog->callbacks.key(handle, id, key);
}

// Tab, Return and Escape are the shell's to decide in a dialog: the window
// neither walks the focus nor closes by itself.
int32_t dialog_key_of(int key_code) {
    switch (key_code) {
    case WXK_TAB:
        return ui_key_tab;
    case WXK_RETURN:
    case WXK_NUMPAD_ENTER:
        return ui_key_return;
    case WXK_ESCAPE:
        return ui_key_escape;
    default:
        return 0;
    }
}

void on_dialog_key(UiDialog handle, wxKeyEvent& event) {
    OpenDialog* dialog = find_dialog(handle);
    const int32_t key = dialog_key_of(event.GetKeyCode());
    if (!dialog || key == 0 || !dialog->callbacks.key) {
        event.Skip();
        return;
    }
    tell_key(reinterpret_cast<void*>(static_cast<intptr_t>(handle)),
             dialog->controls->id_of(wxWindow::FindFocus()), key);
}

void on_dialog_close(UiDialog handle, wxCloseEvent& event) {
    OpenDialog* dialog = find_dialog(handle);
    if (!dialog || !dialog->callbacks.close) {
        if (event.CanVeto()) event.Veto();
        return;
    }
    dialog->callbacks.close(handle);
}

} // namespace

UiDialog ui_dialog_open(const UiDialogTemplate& dialog, const UiDialogCallbacks& callbacks) {
    wxWindow* main_panel = wx::main_panel();
    if (!main_panel) return no_dialog;
    const bool french = dialog.language == 1;
    const UiDialog handle = dialogs().next_handle++;
    auto made = std::make_unique<OpenDialog>();
    made->handle = handle;
    made->callbacks = callbacks;
    const wxPoint origin = main_panel->ClientToScreen(wxPoint(dialog.client.x, dialog.client.y));
    // A caption and no close box, as the program's dialogs have.
    made->window = new wxDialog(wx::main_frame(), wxID_ANY,
                                wx::to_wx(french ? dialog.french_title : dialog.english_title),
                                origin, wxDefaultSize, wxCAPTION);
    made->window->SetClientSize(dialog.client.width, dialog.client.height);
    made->panel = new wxPanel(made->window, wxID_ANY);
    made->panel->SetBackgroundColour(wxSystemSettings::GetColour(wxSYS_COLOUR_BTNFACE));
    void* owner = reinterpret_cast<void*>(static_cast<intptr_t>(handle));
    made->controls = std::make_unique<wx::ControlSet>(
        made->panel, wx::ControlListener{tell_command, nullptr, tell_key, owner, false});
    for (std::size_t i = 0; i < dialog.control_count; ++i) {
        const UiControl& row = dialog.controls[i];
        made->controls->create(row, french ? row.french : row.english);
    }
    made->window->Bind(wxEVT_CHAR_HOOK, [handle](wxKeyEvent& e) { on_dialog_key(handle, e); });
    made->window->Bind(wxEVT_CLOSE_WINDOW,
                       [handle](wxCloseEvent& e) { on_dialog_close(handle, e); });
    made->window->Show();
    made->window->Raise();
    if (wxFrame* frame = wx::main_frame()) frame->Enable(false);
    dialogs().open.push_back(std::move(made));
    return handle;
}

void ui_dialog_end(UiDialog handle) {
    auto& open = dialogs().open;
    for (auto it = open.begin(); it != open.end(); ++it) {
        if ((*it)->handle != handle) continue;
        std::unique_ptr<OpenDialog> ending = std::move(*it);
        open.erase(it);
        ending->controls->detach();
        // The record goes once the window and its widgets are gone, and
        // the notification that ended the dialog has returned through it.
        wx::ControlSet* controls = ending->controls.release();
        wxDialog* window = ending->window;
        window->Bind(wxEVT_DESTROY, [window, controls](wxWindowDestroyEvent& e) {
            e.Skip();
            if (e.GetEventObject() == window) wxTheApp->CallAfter([controls] { delete controls; });
        });
        window->Destroy();
        if (wxFrame* frame = wx::main_frame()) {
            frame->Enable(true);
            frame->Raise();
        }
        return;
    }
}

bool ui_dialog_is_open(UiDialog dialog) {
    return find_dialog(dialog) != nullptr;
}

void ui_dialog_set_text(UiDialog dialog, int32_t id, const char* text) {
    if (wx::ControlSet* c = controls_of(dialog)) c->set_text(id, text);
}

std::size_t ui_dialog_text(UiDialog dialog, int32_t id, char* out, std::size_t capacity) {
    if (wx::ControlSet* c = controls_of(dialog)) return c->text(id, out, capacity);
    if (capacity > 0) out[0] = '\0';
    return 0;
}

void ui_dialog_enable(UiDialog dialog, int32_t id, bool enabled) {
    if (wx::ControlSet* c = controls_of(dialog)) c->enable(id, enabled);
}

void ui_dialog_check(UiDialog dialog, int32_t id, bool checked) {
    if (wx::ControlSet* c = controls_of(dialog)) c->check(id, checked);
}

bool ui_dialog_checked(UiDialog dialog, int32_t id) {
    wx::ControlSet* c = controls_of(dialog);
    return c && c->checked(id);
}

void ui_dialog_focus(UiDialog dialog, int32_t id) {
    OpenDialog* open = find_dialog(dialog);
    if (!open) return;
    if (id == 0) {
        open->window->SetFocus();
        return;
    }
    open->controls->focus(id);
}

int32_t ui_dialog_add_row(UiDialog dialog, int32_t id, const char* text, intptr_t item_data) {
    wx::ControlSet* c = controls_of(dialog);
    return c ? c->add_row(id, text, item_data) : -1;
}

void ui_dialog_delete_row(UiDialog dialog, int32_t id, int32_t row) {
    if (wx::ControlSet* c = controls_of(dialog)) c->delete_row(id, row);
}

void ui_dialog_clear_rows(UiDialog dialog, int32_t id) {
    if (wx::ControlSet* c = controls_of(dialog)) c->clear_rows(id);
}

int32_t ui_dialog_row_count(UiDialog dialog, int32_t id) {
    wx::ControlSet* c = controls_of(dialog);
    return c ? c->row_count(id) : 0;
}

intptr_t ui_dialog_row_data(UiDialog dialog, int32_t id, int32_t row) {
    wx::ControlSet* c = controls_of(dialog);
    return c ? c->row_data(id, row) : -1;
}

void ui_dialog_select_row(UiDialog dialog, int32_t id, int32_t row) {
    if (wx::ControlSet* c = controls_of(dialog)) c->select_row(id, row);
}

int32_t ui_dialog_selected_row(UiDialog dialog, int32_t id) {
    wx::ControlSet* c = controls_of(dialog);
    return c ? c->selected_row(id) : -1;
}

int32_t ui_dialog_selected_rows(UiDialog dialog, int32_t id, int32_t* out, int32_t capacity) {
    wx::ControlSet* c = controls_of(dialog);
    return c ? c->selected_rows(id, out, capacity) : 0;
}

int32_t ui_dialog_top_row(UiDialog dialog, int32_t id) {
    wx::ControlSet* c = controls_of(dialog);
    return c ? c->top_row(id) : 0;
}

void ui_dialog_set_top_row(UiDialog dialog, int32_t id, int32_t row) {
    if (wx::ControlSet* c = controls_of(dialog)) c->set_top_row(id, row);
}

// The filter's patterns are given as "*.a;*.b", which is the toolkit's form
// too.
std::vector<std::string> ui_choose_files(const UiFileRequest& request) {
    const wxString name = wx::to_wx(request.filter_name);
    const wxString pattern = wx::to_wx(request.filter_pattern);
    long style = wxFD_OPEN | wxFD_FILE_MUST_EXIST;
    if (request.multiple) style |= wxFD_MULTIPLE;
    wxFileDialog chooser(wx::main_frame(), wx::to_wx(request.caption),
                         wx::to_wx(request.start_directory), wxString(),
                         name + " (" + pattern + ")|" + pattern, style);
    std::vector<std::string> chosen;
    if (chooser.ShowModal() != wxID_OK) return chosen;
    wxArrayString paths;
    chooser.GetPaths(paths);
    for (const wxString& path : paths)
        chosen.push_back(wx::from_wx(path));
    return chosen;
}

} // namespace norvanta
