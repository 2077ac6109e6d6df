// Controls made from descriptor rows, for the main window and the dialogs
// alike.
//
// A ControlSet keeps what each control shows (text, rows, checks, slider,
// look) in memory under one mutex, and its widget is made to follow that
// record on the UI thread. Any thread may change or read a control: a change
// lands in the record at once and the widget catches up on the UI thread,
// always from the record, so two changes from two threads cannot leave the
// widget behind the record. The user's acts come the other way: the record
// takes the widget's new state first, then the owner is told.
//
// Only the main window's set is acted on from other threads, and it lives as
// long as the process; a dialog's set is the UI thread's alone, so nothing is
// ever queued for a set that has ended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <wx/window.h>

#include "platform/ui.h"

namespace norvanta::wx {

// Where a set's notifications go. key may be null: the set hears no key.
struct ControlListener {
    void (*command)(void* owner, int32_t id, int32_t code);
    void (*slider)(void* owner, int32_t id, int32_t code, int32_t position);
    void (*key)(void* owner, int32_t id, int32_t key);
    void* owner;
    // The main window's file list also tells of its list opening and
    // closing and of the focus, as the window system's combo box does.
    bool combo_focus_codes;
};

struct ControlRecord {
    UiControlKind kind;
    int32_t id;
    UiRect where;
    const UiFont* font;
    uint32_t style;
    int32_t icon_size;
    int32_t radio_group; // controls between two group marks share a number
    std::string text;
    bool enabled = true;
    bool checked = false;
    int32_t slider_low = 0;
    int32_t slider_high = 0;
    int32_t slider_position = 0;
    std::vector<std::string> rows;
    std::vector<intptr_t> row_data;
    int32_t selected = -1; // a combo's row; -1 for none
    UiValueLook look = UiValueLook::settled;
    wxWindow* widget = nullptr; // UI thread only
};

class ControlSet {
  public:
    ControlSet(wxWindow* parent, ControlListener listener);
    ~ControlSet();
    ControlSet(const ControlSet&) = delete;
    ControlSet& operator=(const ControlSet&) = delete;

    // Makes the control from its row showing text; the widget is made on
    // the UI thread.
    void create(const UiControl& row, const char* text);
    // Forgets every widget and stops telling the owner anything: the parent
    // is going away. UI thread.
    void detach();

    void set_text(int32_t id, const char* text);
    std::size_t text(int32_t id, char* out, std::size_t capacity);
    void enable(int32_t id, bool enabled);
    // Checks a button; a radio button of the main window also releases the
    // others of its group only when the user clicks it.
    void check(int32_t id, bool checked);
    bool checked(int32_t id);
    void set_slider_range(int32_t id, int32_t low, int32_t high);
    void set_slider_position(int32_t id, int32_t position);
    int32_t add_row(int32_t id, const char* text, intptr_t item_data);
    void delete_row(int32_t id, int32_t row);
    void clear_rows(int32_t id);
    int32_t row_count(int32_t id);
    void select_row(int32_t id, int32_t row);
    int32_t selected_row(int32_t id);
    intptr_t row_data(int32_t id, int32_t row);
    void set_look(int32_t id, UiValueLook look);
    bool exists(int32_t id);

    // The UI thread's own questions to a widget: a list box's selection and
    // scrolling, and the focus.
    int32_t selected_rows(int32_t id, int32_t* out, int32_t capacity);
    int32_t top_row(int32_t id);
    void set_top_row(int32_t id, int32_t row);
    void focus(int32_t id);
    // The id of the control that holds window, 0 for none.
    int32_t id_of(const wxWindow* window);

  private:
    // What act gives for the record of id under the lock, or fallback when
    // id names no control.
    template <class T, class Act>
    T on_record(int32_t id, T fallback, Act&& act);
    // Changes the record, then brings its widget up to it on the UI thread.
    template <class Change>
    void change(int32_t id, Change&& change);
    void refresh(int32_t id);
    void make_widget(int32_t id);
    void bind_events(const ControlRecord& record, wxWindow* widget);
    void bind_colon(wxWindow* widget, int32_t id);
    bool attached();
    void notify(int32_t id, int32_t code);
    void user_toggled(int32_t id, bool checked);
    void user_selected(int32_t id, int32_t row);
    void user_typed(int32_t id, const wxString& text, int32_t code);
    void user_slid(int32_t id, int32_t code, int32_t position);
    wxWindow* widget_of(int32_t id);

    wxWindow* parent_; // UI thread only
    ControlListener listener_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<ControlRecord>> records_;
    int32_t group_count_ = 0;
};

} // namespace norvanta::wx
