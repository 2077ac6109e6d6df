// Controls made from descriptor rows: the widget each kind becomes, the
// record that any thread may change, and the user's acts told to the owner.
#include "platform/wx/wx_controls.h"

#include <algorithm>

#include <wx/bmpbuttn.h>
#include <wx/button.h>
#include <wx/checkbox.h>
#include <wx/combobox.h>
#include <wx/dcclient.h>
#include <wx/listbox.h>
#include <wx/radiobut.h>
#include <wx/settings.h>
#include <wx/slider.h>
#include <wx/statbox.h>
#include <wx/statline.h>
#include <wx/textctrl.h>
#include <wx/tglbtn.h>
#include <wx/valtext.h>

#include "platform/ui_dialog.h"
#include "platform/wx/wx_backend.h"

namespace norvanta::wx {

namespace {

// Bits of the Windows style words that this backend reads.
constexpr uint32_t align_mask = 0x3; // static and entry text: 0 left, 1 centre, 2 right
constexpr uint32_t align_centre = 0x1;
constexpr uint32_t align_right = 0x2;
constexpr uint32_t static_centre_vertical = 0x200; // the text stands in the middle of its height
constexpr uint32_t static_sunken = 0x1000;         // a sunken frame around a field
constexpr uint32_t entry_auto_scroll = 0x80;       // long lines scroll rather than wrap

// The window system's notification codes of a slider and a combo box.
constexpr int32_t scroll_line_up = 0;
constexpr int32_t scroll_line_down = 1;
constexpr int32_t scroll_page_up = 2;
constexpr int32_t scroll_page_down = 3;
constexpr int32_t scroll_thumb_position = 4;
constexpr int32_t scroll_thumb_track = 5;
constexpr int32_t scroll_top = 6;
constexpr int32_t scroll_bottom = 7;
constexpr int32_t scroll_end = 8;
constexpr int32_t combo_set_focus = 3;
constexpr int32_t combo_kill_focus = 4;
constexpr int32_t combo_drop_down = 7;
constexpr int32_t combo_close_up = 8;

const wxColour edited_colour(255, 0, 0);

bool is_radio(UiControlKind kind) {
    return kind == UiControlKind::radio_button || kind == UiControlKind::radio_option;
}

bool has_rows(UiControlKind kind) {
    return kind == UiControlKind::combo_box || kind == UiControlKind::combo_entry ||
           kind == UiControlKind::list_box;
}

bool is_combo(UiControlKind kind) {
    return kind == UiControlKind::combo_box || kind == UiControlKind::combo_entry;
}

// A static text drawn by hand: a label or a field. It takes the colour and
// alignment the program asks for, which a native label cannot change once
// made, and it stands on its parent's background as the window system's
// transparent statics do.
class TextField : public wxWindow {
  public:
    TextField(wxWindow* parent, const UiRect& where, uint32_t style)
        : wxWindow(parent, wxID_ANY, wxPoint(where.x, where.y), wxSize(where.width, where.height),
                   wxBORDER_NONE | wxFULL_REPAINT_ON_RESIZE),
          style_(style) {
        SetBackgroundStyle(wxBG_STYLE_PAINT);
        Bind(wxEVT_PAINT, &TextField::paint, this);
    }

    void show(const wxString& text, UiValueLook look) {
        if (text == text_ && look == look_) return;
        text_ = text;
        look_ = look;
        Refresh();
    }

  private:
    void paint(wxPaintEvent&) {
        wxPaintDC dc(this);
        dc.SetBackground(wxBrush(GetParent()->GetBackgroundColour()));
        dc.Clear();
        wxRect area = GetClientRect();
        if (style_ & static_sunken) {
            dc.SetPen(wxPen(wxSystemSettings::GetColour(wxSYS_COLOUR_3DSHADOW)));
            dc.DrawLine(0, 0, area.width - 1, 0);
            dc.DrawLine(0, 0, 0, area.height - 1);
            dc.SetPen(wxPen(wxSystemSettings::GetColour(wxSYS_COLOUR_3DHIGHLIGHT)));
            dc.DrawLine(area.width - 1, 0, area.width - 1, area.height);
            dc.DrawLine(0, area.height - 1, area.width, area.height - 1);
            area.Deflate(2);
        }
        // An edited value stands apart from a settled one: red and on the left.
        const bool edited = look_ == UiValueLook::edited;
        int alignment = wxALIGN_LEFT;
        if (!edited && (style_ & align_mask) == align_centre) alignment = wxALIGN_CENTRE_HORIZONTAL;
        if (!edited && (style_ & align_mask) == align_right) alignment = wxALIGN_RIGHT;
        alignment |= (style_ & static_centre_vertical) ? wxALIGN_CENTRE_VERTICAL : wxALIGN_TOP;
        dc.SetFont(GetFont());
        dc.SetTextForeground(edited ? edited_colour : GetForegroundColour());
        dc.SetClippingRegion(area);
        dc.DrawLabel(text_, area, alignment);
    }

    uint32_t style_;
    wxString text_;
    UiValueLook look_ = UiValueLook::settled;
};

// The widget's rows follow the record's with the least change, so that a
// list keeps its selection and scrolling when one row comes or goes.
void reconcile_rows(wxItemContainer& widget, const std::vector<std::string>& rows) {
    const unsigned shown = widget.GetCount();
    unsigned same = 0;
    while (same < shown && same < rows.size() &&
           widget.GetString(same) == to_wx(rows[same].c_str()))
        ++same;
    if (same == shown && same == rows.size()) return;
    if (same == shown) {
        for (std::size_t row = same; row < rows.size(); ++row)
            widget.Append(to_wx(rows[row].c_str()));
        return;
    }
    if (shown == rows.size() + 1) {
        bool one_taken = true;
        for (unsigned row = same; row < rows.size() && one_taken; ++row)
            one_taken = widget.GetString(row + 1) == to_wx(rows[row].c_str());
        if (one_taken) {
            widget.Delete(same);
            return;
        }
    }
    wxArrayString all;
    for (const std::string& row : rows)
        all.Add(to_wx(row.c_str()));
    widget.Set(all);
}

// The sentence box holds lines as they travel, ending in CR LF; a text
// widget of this system wants LF alone.
wxString shown_lines(const std::string& text) {
    wxString shown = to_wx(text.c_str());
    shown.Replace("\r\n", "\n");
    return shown;
}

wxBitmap icon_or_blank(const char* file, int size) {
    wxBitmap icon = load_icon(file, size);
    if (icon.IsOk()) return icon;
    wxImage blank(size, size);
    blank.InitAlpha();
    std::fill_n(blank.GetAlpha(), size * size, static_cast<unsigned char>(0));
    return wxBitmap(blank);
}

wxWindow* make_widget_of(const ControlRecord& r, wxWindow* parent) {
    const wxPoint at(r.where.x, r.where.y);
    const wxSize size(r.where.width, r.where.height);
    const wxString text = to_wx(r.text.c_str());
    switch (r.kind) {
    case UiControlKind::label:
    case UiControlKind::value:
        return new TextField(parent, r.where, r.style);
    case UiControlKind::separator:
        return new wxStaticLine(parent, wxID_ANY, at, size, wxLI_HORIZONTAL);
    case UiControlKind::combo_box:
    case UiControlKind::combo_entry:
        // The row's height is that of the opened list; the closed box takes
        // its natural height.
        return new wxComboBox(parent, wxID_ANY, "", at, wxSize(r.where.width, -1), 0, nullptr,
                              r.kind == UiControlKind::combo_box ? wxCB_READONLY : wxCB_DROPDOWN);
    case UiControlKind::entry: {
        long flags = 0;
        if ((r.style & align_mask) == align_right) flags |= wxTE_RIGHT;
        if ((r.style & align_mask) == align_centre) flags |= wxTE_CENTRE;
        auto* entry = new wxTextCtrl(parent, wxID_ANY, "", at, size, flags);
        if (r.style & ui_entry_digits_only) entry->SetValidator(wxTextValidator(wxFILTER_DIGITS));
        return entry;
    }
    case UiControlKind::text_box: {
        long flags = wxTE_MULTILINE | wxTE_READONLY;
        if (r.style & entry_auto_scroll) flags |= wxTE_DONTWRAP;
        return new wxTextCtrl(parent, wxID_ANY, "", at, size, flags);
    }
    case UiControlKind::slider:
        return new wxSlider(parent, wxID_ANY, 0, 0, 1, at, size, wxSL_HORIZONTAL);
    case UiControlKind::push_button:
        return new wxBitmapButton(parent, wxID_ANY, icon_or_blank(r.text.c_str(), r.icon_size), at,
                                  size);
    case UiControlKind::check_button:
    case UiControlKind::radio_button:
        return new wxBitmapToggleButton(parent, wxID_ANY,
                                        icon_or_blank(r.text.c_str(), r.icon_size), at, size);
    case UiControlKind::text_button: {
        auto* button = new wxButton(parent, wxID_ANY, text, at, size);
        if (r.style & ui_button_default) button->SetDefault();
        return button;
    }
    case UiControlKind::check_box:
        return new wxCheckBox(parent, wxID_ANY, text, at, size);
    case UiControlKind::radio_option:
        // The toolkit keeps the group from the option that carries the mark
        // on; it cannot show every option of a group out, so checking one
        // out by hand shows only in what the program reads back.
        return new wxRadioButton(parent, wxID_ANY, text, at, size,
                                 (r.style & ui_style_group) ? wxRB_GROUP : 0);
    case UiControlKind::group_frame:
        return new wxStaticBox(parent, wxID_ANY, text, at, size);
    case UiControlKind::list_box:
        return new wxListBox(parent, wxID_ANY, at, size, 0, nullptr, wxLB_EXTENDED);
    }
    return nullptr;
}

int32_t row_of(int selection) {
    return selection == wxNOT_FOUND ? -1 : static_cast<int32_t>(selection);
}

} // namespace

ControlSet::ControlSet(wxWindow* parent, ControlListener listener)
    : parent_(parent), listener_(listener) {}

ControlSet::~ControlSet() = default;

template <class T, class Act>
T ControlSet::on_record(int32_t id, T fallback, Act&& act) {
    std::lock_guard lock(mutex_);
    if (id == 0) return fallback;
    for (auto& record : records_)
        if (record->id == id) return act(*record);
    return fallback;
}

template <class Change>
void ControlSet::change(int32_t id, Change&& change) {
    const bool found = on_record(id, false, [&](ControlRecord& r) {
        change(r);
        return true;
    });
    if (found) on_ui([this, id] { refresh(id); });
}

void ControlSet::create(const UiControl& row, const char* text) {
    auto record = std::make_unique<ControlRecord>();
    record->kind = row.kind;
    record->id = row.id;
    record->where = row.where;
    record->font = row.font;
    record->style = row.style;
    record->icon_size = row.icon_size;
    record->text = text ? text : "";
    int32_t index = 0;
    {
        std::lock_guard lock(mutex_);
        if (row.style & ui_style_group) ++group_count_;
        record->radio_group = group_count_;
        records_.push_back(std::move(record));
        index = static_cast<int32_t>(records_.size()) - 1;
    }
    // Controls without an id are found again by their place.
    on_ui([this, index] { make_widget(-index - 1); });
}

// A negative id stands for the record at that place: rows with no id still
// get their widget.
void ControlSet::make_widget(int32_t place_or_id) {
    ControlRecord copy;
    {
        std::lock_guard lock(mutex_);
        const auto index = static_cast<std::size_t>(-place_or_id - 1);
        if (!parent_ || index >= records_.size()) return;
        copy = *records_[index];
    }
    wxWindow* widget = make_widget_of(copy, parent_);
    if (!widget) return;
    if (copy.font || copy.kind == UiControlKind::label || copy.kind == UiControlKind::value ||
        copy.kind == UiControlKind::text_box)
        widget->SetFont(font_of(copy.font));
    bind_events(copy, widget);
    {
        std::lock_guard lock(mutex_);
        records_[static_cast<std::size_t>(-place_or_id - 1)]->widget = widget;
    }
    if (copy.id != 0) {
        refresh(copy.id);
    } else if (auto* field = dynamic_cast<TextField*>(widget)) {
        field->show(to_wx(copy.text.c_str()), copy.look);
    } else if (copy.kind == UiControlKind::group_frame) {
        widget->SetLabel(to_wx(copy.text.c_str()));
    }
}

void ControlSet::detach() {
    std::lock_guard lock(mutex_);
    parent_ = nullptr;
    for (auto& record : records_)
        record->widget = nullptr;
}

wxWindow* ControlSet::widget_of(int32_t id) {
    return on_record(id, static_cast<wxWindow*>(nullptr),
                     [](ControlRecord& r) { return r.widget; });
}

// Brings the widget up to its record; the record is copied first, so that
// no lock is held while a widget may call back.
void ControlSet::refresh(int32_t id) {
    ControlRecord r;
    if (!on_record(id, false, [&](ControlRecord& found) {
            r = found;
            return found.widget != nullptr;
        }))
        return;
    wxWindow* widget = r.widget;
    if (widget->IsEnabled() != r.enabled) widget->Enable(r.enabled);
    const wxString text = to_wx(r.text.c_str());
    switch (r.kind) {
    case UiControlKind::label:
    case UiControlKind::value:
        static_cast<TextField*>(widget)->show(text, r.look);
        break;
    case UiControlKind::entry:
        if (static_cast<wxTextCtrl*>(widget)->GetValue() != text)
            static_cast<wxTextCtrl*>(widget)->ChangeValue(text);
        break;
    case UiControlKind::text_box: {
        const wxString lines = shown_lines(r.text);
        if (static_cast<wxTextCtrl*>(widget)->GetValue() != lines)
            static_cast<wxTextCtrl*>(widget)->ChangeValue(lines);
        break;
    }
    case UiControlKind::combo_box:
    case UiControlKind::combo_entry: {
        auto* combo = static_cast<wxComboBox*>(widget);
        reconcile_rows(*combo, r.rows);
        if (row_of(combo->GetSelection()) != r.selected)
            combo->SetSelection(r.selected < 0 ? wxNOT_FOUND : r.selected);
        if (r.kind == UiControlKind::combo_entry && r.selected < 0 && combo->GetValue() != text)
            combo->ChangeValue(text);
        break;
    }
    case UiControlKind::list_box:
        reconcile_rows(*static_cast<wxListBox*>(widget), r.rows);
        break;
    case UiControlKind::slider: {
        auto* slider = static_cast<wxSlider*>(widget);
        // The toolkit's slider wants a range of at least one step.
        const int high = std::max(r.slider_high, r.slider_low + 1);
        if (slider->GetMin() != r.slider_low || slider->GetMax() != high)
            slider->SetRange(r.slider_low, high);
        if (slider->GetValue() != r.slider_position) slider->SetValue(r.slider_position);
        break;
    }
    case UiControlKind::check_button:
    case UiControlKind::radio_button:
        static_cast<wxBitmapToggleButton*>(widget)->SetValue(r.checked);
        break;
    case UiControlKind::check_box:
        static_cast<wxCheckBox*>(widget)->SetValue(r.checked);
        break;
    case UiControlKind::radio_option:
        static_cast<wxRadioButton*>(widget)->SetValue(r.checked);
        break;
    case UiControlKind::text_button:
    case UiControlKind::group_frame:
        if (widget->GetLabel() != text) widget->SetLabel(text);
        break;
    case UiControlKind::separator:
    case UiControlKind::push_button:
        break;
    }
}

void ControlSet::bind_events(const ControlRecord& r, wxWindow* widget) {
    const int32_t id = r.id;
    if (id == 0) return;
    auto tell = [this, id](int32_t code) { notify(id, code); };
    switch (r.kind) {
    case UiControlKind::push_button:
    case UiControlKind::text_button:
        widget->Bind(wxEVT_BUTTON, [tell](wxCommandEvent&) { tell(ui_notify_clicked); });
        break;
    case UiControlKind::check_button:
    case UiControlKind::radio_button:
        widget->Bind(wxEVT_TOGGLEBUTTON,
                     [this, id](wxCommandEvent& e) { user_toggled(id, e.IsChecked()); });
        break;
    case UiControlKind::check_box:
        widget->Bind(wxEVT_CHECKBOX,
                     [this, id](wxCommandEvent& e) { user_toggled(id, e.IsChecked()); });
        break;
    case UiControlKind::radio_option:
        widget->Bind(wxEVT_RADIOBUTTON, [this, id](wxCommandEvent&) { user_toggled(id, true); });
        break;
    case UiControlKind::entry:
        widget->Bind(wxEVT_TEXT, [this, id](wxCommandEvent& e) {
            user_typed(id, e.GetString(), ui_notify_text_changed);
        });
        bind_colon(widget, id);
        break;
    case UiControlKind::combo_box:
    case UiControlKind::combo_entry:
        widget->Bind(wxEVT_COMBOBOX, [this, id](wxCommandEvent& e) {
            user_selected(id, row_of(e.GetSelection()));
        });
        if (r.kind == UiControlKind::combo_entry) {
            widget->Bind(wxEVT_TEXT, [this, id](wxCommandEvent& e) {
                user_typed(id, e.GetString(), ui_notify_edit_changed);
            });
            bind_colon(widget, id);
        }
        if (listener_.combo_focus_codes) {
            auto told = [tell](int32_t code) {
                return [tell, code](wxEvent& e) {
                    e.Skip();
                    tell(code);
                };
            };
            widget->Bind(wxEVT_COMBOBOX_DROPDOWN, told(combo_drop_down));
            widget->Bind(wxEVT_COMBOBOX_CLOSEUP, told(combo_close_up));
            widget->Bind(wxEVT_SET_FOCUS, told(combo_set_focus));
            widget->Bind(wxEVT_KILL_FOCUS, told(combo_kill_focus));
        }
        break;
    case UiControlKind::slider: {
        struct ScrollCode {
            wxEventType type;
            int32_t code;
        };
        const ScrollCode codes[] = {
            {wxEVT_SCROLL_LINEUP, scroll_line_up},
            {wxEVT_SCROLL_LINEDOWN, scroll_line_down},
            {wxEVT_SCROLL_PAGEUP, scroll_page_up},
            {wxEVT_SCROLL_PAGEDOWN, scroll_page_down},
            {wxEVT_SCROLL_THUMBRELEASE, scroll_thumb_position},
            {wxEVT_SCROLL_THUMBTRACK, scroll_thumb_track},
            {wxEVT_SCROLL_TOP, scroll_top},
            {wxEVT_SCROLL_BOTTOM, scroll_bottom},
            {wxEVT_SCROLL_CHANGED, scroll_end},
        };
        for (const ScrollCode& code : codes) {
            widget->Bind(wxEventTypeTag<wxScrollEvent>(code.type),
                         [this, id, code = code.code](wxScrollEvent& e) {
                             user_slid(id, code, e.GetPosition());
                         });
        }
        break;
    }
    case UiControlKind::label:
    case UiControlKind::value:
    case UiControlKind::separator:
    case UiControlKind::text_box:
    case UiControlKind::group_frame:
    case UiControlKind::list_box:
        break;
    }
}

bool ControlSet::attached() {
    std::lock_guard lock(mutex_);
    return parent_ != nullptr;
}

// Widgets that go with a window that is closing may still speak; once the
// set is detached nobody listens.
void ControlSet::notify(int32_t id, int32_t code) {
    if (listener_.command && attached()) listener_.command(listener_.owner, id, code);
}

// A colon typed in an entry is told once the entry holds it: the shell may
// take it as the end of a host name.
void ControlSet::bind_colon(wxWindow* widget, int32_t id) {
    if (!listener_.key) return;
    widget->Bind(wxEVT_CHAR, [this, widget, id](wxKeyEvent& e) {
        e.Skip();
        if (e.GetUnicodeKey() != ':') return;
        widget->CallAfter([this, id] {
            if (attached()) listener_.key(listener_.owner, id, ui_key_colon);
        });
    });
}

// A click leaves a push-like radio button in, and lets the others of its
// group out; a check button or box takes what the widget now shows.
void ControlSet::user_toggled(int32_t id, bool checked) {
    std::vector<int32_t> changed;
    on_record(id, 0, [&](ControlRecord& r) {
        r.checked = checked || is_radio(r.kind);
        if (!is_radio(r.kind)) return 0;
        for (auto& other : records_) {
            if (other.get() == &r || !is_radio(other->kind) || other->radio_group != r.radio_group)
                continue;
            if (other->checked) changed.push_back(other->id);
            other->checked = false;
        }
        return 0;
    });
    refresh(id);
    for (int32_t other : changed)
        refresh(other);
    notify(id, ui_notify_clicked);
}

void ControlSet::user_selected(int32_t id, int32_t row) {
    on_record(id, 0, [row](ControlRecord& r) {
        const bool exists = row >= 0 && static_cast<std::size_t>(row) < r.rows.size();
        r.selected = exists ? row : -1;
        if (is_combo(r.kind)) r.text = exists ? r.rows[static_cast<std::size_t>(row)] : "";
        return 0;
    });
    notify(id, ui_notify_selection_changed);
}

void ControlSet::user_typed(int32_t id, const wxString& text, int32_t code) {
    on_record(id, 0, [&](ControlRecord& r) {
        r.text = from_wx(text);
        if (r.kind == UiControlKind::combo_entry) r.selected = -1;
        return 0;
    });
    notify(id, code);
}

void ControlSet::user_slid(int32_t id, int32_t code, int32_t position) {
    on_record(id, 0, [position](ControlRecord& r) {
        r.slider_position = position;
        return 0;
    });
    if (listener_.slider && attached()) listener_.slider(listener_.owner, id, code, position);
}

void ControlSet::set_text(int32_t id, const char* text) {
    std::string value = text ? text : "";
    change(id, [&](ControlRecord& r) {
        r.text = std::move(value);
        if (r.kind == UiControlKind::combo_entry) r.selected = -1;
    });
}

std::size_t ControlSet::text(int32_t id, char* out, std::size_t capacity) {
    if (capacity > 0) out[0] = '\0';
    return on_record(id, std::size_t{0}, [&](ControlRecord& r) {
        if (capacity > 0) out[r.text.copy(out, capacity - 1)] = '\0';
        return r.text.size();
    });
}

void ControlSet::enable(int32_t id, bool enabled) {
    change(id, [enabled](ControlRecord& r) { r.enabled = enabled; });
}

void ControlSet::check(int32_t id, bool checked) {
    change(id, [checked](ControlRecord& r) { r.checked = checked; });
}

bool ControlSet::checked(int32_t id) {
    return on_record(id, false, [](ControlRecord& r) { return r.checked; });
}

void ControlSet::set_slider_range(int32_t id, int32_t low, int32_t high) {
    change(id, [low, high](ControlRecord& r) {
        r.slider_low = low;
        r.slider_high = std::max(low, high);
        r.slider_position = std::clamp(r.slider_position, r.slider_low, r.slider_high);
    });
}

void ControlSet::set_slider_position(int32_t id, int32_t position) {
    change(id, [position](ControlRecord& r) {
        r.slider_position = std::clamp(position, r.slider_low, r.slider_high);
    });
}

int32_t ControlSet::add_row(int32_t id, const char* text, intptr_t item_data) {
    int32_t row = -1;
    change(id, [&](ControlRecord& r) {
        if (!has_rows(r.kind)) return;
        r.rows.emplace_back(text ? text : "");
        r.row_data.push_back(item_data);
        row = static_cast<int32_t>(r.rows.size()) - 1;
    });
    return row;
}

void ControlSet::delete_row(int32_t id, int32_t row) {
    change(id, [row](ControlRecord& r) {
        if (row < 0 || static_cast<std::size_t>(row) >= r.rows.size()) return;
        r.rows.erase(r.rows.begin() + row);
        r.row_data.erase(r.row_data.begin() + row);
        if (r.selected == row) r.selected = -1;
        if (r.selected > row) --r.selected;
    });
}

void ControlSet::clear_rows(int32_t id) {
    change(id, [](ControlRecord& r) {
        r.rows.clear();
        r.row_data.clear();
        r.selected = -1;
        if (r.kind == UiControlKind::combo_box) r.text.clear();
    });
}

int32_t ControlSet::row_count(int32_t id) {
    return on_record(id, 0, [](ControlRecord& r) { return static_cast<int32_t>(r.rows.size()); });
}

void ControlSet::select_row(int32_t id, int32_t row) {
    change(id, [row](ControlRecord& r) {
        const bool exists = row >= 0 && static_cast<std::size_t>(row) < r.rows.size();
        r.selected = exists ? row : -1;
        if (is_combo(r.kind)) r.text = exists ? r.rows[static_cast<std::size_t>(row)] : "";
    });
}

int32_t ControlSet::selected_row(int32_t id) {
    return on_record(id, -1, [](ControlRecord& r) { return r.selected; });
}

intptr_t ControlSet::row_data(int32_t id, int32_t row) {
    return on_record(id, intptr_t{-1}, [row](ControlRecord& r) {
        const bool exists = row >= 0 && static_cast<std::size_t>(row) < r.row_data.size();
        return exists ? r.row_data[static_cast<std::size_t>(row)] : intptr_t{-1};
    });
}

void ControlSet::set_look(int32_t id, UiValueLook look) {
    change(id, [look](ControlRecord& r) { r.look = look; });
}

bool ControlSet::exists(int32_t id) {
    return on_record(id, false, [](ControlRecord&) { return true; });
}

int32_t ControlSet::selected_rows(int32_t id, int32_t* out, int32_t capacity) {
    auto* list = dynamic_cast<wxListBox*>(widget_of(id));
    if (!list) return 0;
    wxArrayInt selections;
    list->GetSelections(selections);
    selections.Sort([](int* a, int* b) { return *a - *b; });
    int32_t written = 0;
    for (int row : selections) {
        if (written >= capacity) break;
        out[written++] = row;
    }
    return written;
}

int32_t ControlSet::top_row(int32_t id) {
    auto* list = dynamic_cast<wxListBox*>(widget_of(id));
    return list ? std::max(0, list->GetTopItem()) : 0;
}

void ControlSet::set_top_row(int32_t id, int32_t row) {
    auto* list = dynamic_cast<wxListBox*>(widget_of(id));
    if (!list || list->GetCount() == 0) return;
    list->SetFirstItem(std::clamp(row, 0, static_cast<int32_t>(list->GetCount()) - 1));
}

void ControlSet::focus(int32_t id) {
    if (wxWindow* widget = widget_of(id)) widget->SetFocus();
}

int32_t ControlSet::id_of(const wxWindow* window) {
    std::lock_guard lock(mutex_);
    for (; window; window = window->GetParent()) {
        for (auto& record : records_)
            if (record->widget == window) return record->id;
        if (window == parent_) break;
    }
    return 0;
}

} // namespace norvanta::wx
