// Message boxes. A box blocks the thread that asked for it until the user
// answers, as the window system's does; a box asked for on another thread
// (a load that failed) is shown by the UI thread while the asker waits.
#include <condition_variable>
#include <functional>
#include <mutex>

#include <wx/button.h>
#include <wx/dialog.h>
#include <wx/msgdlg.h>
#include <wx/sizer.h>
#include <wx/statbmp.h>
#include <wx/stattext.h>

#include "platform/wx/wx_backend.h"

namespace norvanta {

namespace {

constexpr int box_margin_px = 12;
constexpr int program_icon_px = 48;

// The box with the program's own icon, which the toolkit's message box
// cannot show: the About box.
void show_user_icon_box(wxWindow* owner, const wxString& text, const wxString& caption) {
    wxDialog box(owner, wxID_ANY, caption);
    auto* row = new wxBoxSizer(wxHORIZONTAL);
    const wxIcon icon =
        wx::program_icons().GetIcon(program_icon_px, wxIconBundle::FALLBACK_NEAREST_LARGER);
    if (icon.IsOk()) row->Add(new wxStaticBitmap(&box, wxID_ANY, icon), 0, wxALL, box_margin_px);
    row->Add(new wxStaticText(&box, wxID_ANY, text), 1, wxALL | wxEXPAND, box_margin_px);
    auto* column = new wxBoxSizer(wxVERTICAL);
    column->Add(row, 1, wxEXPAND);
    column->Add(box.CreateStdDialogButtonSizer(wxOK), 0, wxALL | wxALIGN_RIGHT, box_margin_px);
    box.SetSizerAndFit(column);
    box.CentreOnParent();
    box.ShowModal();
}

void show_box(const wxString& text, const wxString& caption, int icon) {
    auto show = [&] {
        wxWindow* owner = wx::main_frame();
        if (icon == ui_icon_user) {
            show_user_icon_box(owner, text, caption);
            return;
        }
        const long style = wxOK | (icon == ui_icon_hand ? wxICON_ERROR : wxICON_NONE);
        wxMessageDialog box(owner, text, caption, style);
        box.ShowModal();
    };
    if (wx::on_ui_thread()) {
        show();
        return;
    }
    std::mutex mutex;
    std::condition_variable answered;
    bool done = false;
    wx::on_ui([&] {
        show();
        std::lock_guard lock(mutex);
        done = true;
        answered.notify_all();
    });
    std::unique_lock lock(mutex);
    answered.wait(lock, [&] { return done; });
}

} // namespace

void ui_message_box(const char* text, const char* caption, int icon) {
    show_box(wx::to_wx(text), wx::to_wx(caption), icon);
}

void ui_message_box_wide(const wchar_t* text, const wchar_t* caption) {
    show_box(wxString(text ? text : L""), wxString(caption ? caption : L""), ui_icon_none);
}

} // namespace norvanta
