// What every window of the backend draws with: texts, fonts and icons, and
// the way onto the UI thread.
#include "platform/wx/wx_backend.h"

#include <cstring>

#include <wx/app.h>
#include <wx/image.h>
#include <wx/log.h>
#include <wx/settings.h>
#include <wx/thread.h>

#include "shell/config.h"

namespace norvanta::wx {

namespace {

constexpr const char* program_icon_file = "norvanta.ico";
// The fonts the program names are those of another system; these families
// stand in for them.
constexpr const char* fixed_face = "Courier New";
// A face's cell height, as the program gives it, is about this much more
// than the size of its letters.
constexpr double cell_to_letter_height = 0.8;

} // namespace

bool on_ui_thread() {
    return wxTheApp == nullptr || wxThread::IsMain();
}

void on_ui(std::function<void()> work) {
    if (on_ui_thread()) {
        work();
        return;
    }
    wxTheApp->CallAfter(std::move(work));
}

wxString to_wx(const char* text) {
    if (!text || !*text) return wxString();
    wxString converted = wxString::FromUTF8(text);
    if (converted.empty()) converted = wxString(text, wxConvISO8859_1);
    return converted;
}

std::string from_wx(const wxString& text) {
    const wxScopedCharBuffer utf8 = text.utf8_str();
    return std::string(utf8.data(), utf8.length());
}

wxFont font_of(const UiFont* font) {
    if (!font) return wxSystemSettings::GetFont(wxSYS_DEFAULT_GUI_FONT);
    const bool fixed = std::strcmp(font->face, fixed_face) == 0;
    const int letter_height = static_cast<int>(font->height * cell_to_letter_height + 0.5);
    return wxFont(wxFontInfo(wxSize(0, letter_height))
                      .Family(fixed ? wxFONTFAMILY_TELETYPE : wxFONTFAMILY_SWISS)
                      .Weight(font->weight));
}

// An icon file holds several sizes: the one asked for is taken as it is,
// otherwise the largest is scaled.
wxBitmap load_icon(const char* file_name, int size) {
    if (!file_name || !*file_name || size <= 0) return wxBitmap();
    wxLogNull quiet; // a missing icon leaves a blank button and tells nobody
    const wxString path = to_wx(system_dir()) + to_wx(file_name);
    const wxBitmapType type =
        wxString(path).Lower().EndsWith(".ico") ? wxBITMAP_TYPE_ICO : wxBITMAP_TYPE_ANY;
    const int count = wxImage::GetImageCount(path, type);
    wxImage best;
    for (int index = 0; index < count; ++index) {
        wxImage image;
        if (!image.LoadFile(path, type, index)) continue;
        if (image.GetWidth() == size && image.GetHeight() == size) return wxBitmap(image);
        if (!best.IsOk() || image.GetWidth() > best.GetWidth()) best = image;
    }
    if (!best.IsOk()) return wxBitmap();
    return wxBitmap(best.Rescale(size, size, wxIMAGE_QUALITY_HIGH));
}

const wxIconBundle& program_icons() {
    static const wxIconBundle icons = [] {
        wxLogNull quiet;
        wxIconBundle bundle;
        const wxString path = to_wx(system_dir()) + program_icon_file;
        const int count = wxImage::GetImageCount(path, wxBITMAP_TYPE_ICO);
        for (int index = 0; index < count; ++index) {
            wxImage image;
            if (!image.LoadFile(path, wxBITMAP_TYPE_ICO, index)) continue;
            wxIcon icon;
            icon.CopyFromBitmap(wxBitmap(image));
            bundle.AddIcon(icon);
        }
        return bundle;
    }();
    return icons;
}

} // namespace norvanta::wx
