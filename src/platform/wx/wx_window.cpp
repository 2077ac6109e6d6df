// The main window: a frame of fixed size, its title, its menu bar, the files
// dropped on it, and the Dashboard's controls on its client area.
//
// Other threads change the title, the menu's checks and the controls (the
// navigation worker, the load thread): each lands in a record under a lock
// and the frame catches up on the UI thread.
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <wx/dnd.h>
#include <wx/menu.h>
#include <wx/panel.h>
#include <wx/settings.h>
#include <wx/textctrl.h>

#include "platform/wx/wx_backend.h"
#include "platform/wx/wx_controls.h"
#include "shell/commands.h"
#include "shell/dashboard.h"
#include "shell/events.h"
#include "shell/window.h"

namespace norvanta {

namespace {

constexpr int client_width_px = 536;
constexpr int client_height_px = 472;
constexpr int window_left_px = 40;
constexpr int window_top_px = 20;
constexpr int32_t key_return_code = 13;

// The window keeps one size by having it as both its least and its most:
// made not resizable instead, the toolkit would shrink it to what its menu
// bar needs.
void fix_client_size(wxFrame* frame) {
    frame->SetSizeHints(wxDefaultSize, wxDefaultSize);
    frame->SetClientSize(client_width_px, client_height_px);
    const wxSize whole = frame->GetSize();
    frame->SetSizeHints(whole, whole);
}

// ---- the menu ----

enum class SlotKind { popup, item, separator };

struct MenuSlot {
    SlotKind kind;
    int32_t id;
    std::string text;
    UiMenu submenu; // popups only
};

// The check mark and the gray state of an item, by command id. An item
// becomes one that can carry a mark the first time the program sets it.
struct ItemState {
    bool markable = false;
    bool checked = false;
    bool enabled = true;
};

constexpr UiMenu no_menu = -1;

// The toolkit takes menu ids below 0x7fff only, and the program's run up to
// 65535: each item gets a toolkit id of its own, from this one on.
constexpr int first_menu_item_wx_id = 1000;

struct Frame {
    std::mutex mutex;
    std::string title;
    std::vector<std::vector<MenuSlot>> menus;
    UiMenu bar = no_menu;
    std::map<int32_t, ItemState> items;
    std::vector<int32_t> item_of_wx_id; // UI thread only; by toolkit id - first_menu_item_wx_id
    std::atomic<bool> drops_accepted{true};
    std::atomic<bool> made{false};
    // Set once on the UI thread, before made; read after it.
    std::atomic<wx::ControlSet*> controls{nullptr};
    wxFrame* frame = nullptr; // UI thread only
    wxPanel* panel = nullptr; // UI thread only
};

// Never destroyed, on purpose: detached threads may still touch it while
// the process ends.
Frame& state() {
    static Frame* const instance = new Frame;
    return *instance;
}

// The window system shows a shortcut after a tab; the toolkit would make the
// shortcut work as well, and this program has none. The text stays, set
// apart by blanks.
wxString menu_text(const std::string& text) {
    std::string shown = text;
    if (auto tab = shown.find('\t'); tab != std::string::npos) shown.replace(tab, 1, "    ");
    return wx::to_wx(shown.c_str());
}

// The toolkit id of a program's item, given out on first sight.
int wx_id_of(std::vector<int32_t>& ids, int32_t id) {
    for (std::size_t i = 0; i < ids.size(); ++i)
        if (ids[i] == id) return first_menu_item_wx_id + static_cast<int>(i);
    ids.push_back(id);
    return first_menu_item_wx_id + static_cast<int>(ids.size()) - 1;
}

wxMenu* make_menu(const std::vector<std::vector<MenuSlot>>& menus, UiMenu menu,
                  const std::map<int32_t, ItemState>& items, std::vector<int32_t>& ids, int depth) {
    auto* made = new wxMenu;
    if (menu < 0 || static_cast<std::size_t>(menu) >= menus.size() ||
        depth > static_cast<int>(menus.size()))
        return made;
    for (const MenuSlot& slot : menus[static_cast<std::size_t>(menu)]) {
        switch (slot.kind) {
        case SlotKind::popup:
            made->AppendSubMenu(make_menu(menus, slot.submenu, items, ids, depth + 1),
                                menu_text(slot.text));
            break;
        case SlotKind::item: {
            auto found = items.find(slot.id);
            const bool markable = found != items.end() && found->second.markable;
            made->Append(wx_id_of(ids, slot.id), menu_text(slot.text), wxString(),
                         markable ? wxITEM_CHECK : wxITEM_NORMAL);
            break;
        }
        case SlotKind::separator:
            made->AppendSeparator();
            break;
        }
    }
    return made;
}

// The toolkit's bar holds menus only: an item that stands on the bar itself
// becomes a menu of that name holding that one item.
void build_bar() {
    Frame& f = state();
    std::vector<std::vector<MenuSlot>> menus;
    std::map<int32_t, ItemState> items;
    UiMenu bar = no_menu;
    {
        std::lock_guard lock(f.mutex);
        menus = f.menus;
        items = f.items;
        bar = f.bar;
    }
    if (!f.frame || bar < 0 || static_cast<std::size_t>(bar) >= menus.size()) return;
    auto* made = new wxMenuBar;
    for (const MenuSlot& slot : menus[static_cast<std::size_t>(bar)]) {
        if (slot.kind == SlotKind::popup) {
            made->Append(make_menu(menus, slot.submenu, items, f.item_of_wx_id, 1),
                         menu_text(slot.text));
        } else if (slot.kind == SlotKind::item) {
            auto* alone = new wxMenu;
            alone->Append(wx_id_of(f.item_of_wx_id, slot.id), menu_text(slot.text));
            made->Append(alone, menu_text(slot.text));
        }
    }
    wxMenuBar* old = f.frame->GetMenuBar();
    f.frame->SetMenuBar(made);
    delete old;
    fix_client_size(f.frame);
}

// The bar follows the items' states; an item that must now carry a mark
// and cannot makes the bar anew.
void sync_menu() {
    Frame& f = state();
    if (!f.frame) return;
    wxMenuBar* bar = f.frame->GetMenuBar();
    std::map<int32_t, ItemState> items;
    {
        std::lock_guard lock(f.mutex);
        if (f.bar == no_menu) return;
        items = f.items;
    }
    if (!bar) return build_bar();
    auto shown_item = [&](int32_t id) -> wxMenuItem* {
        for (std::size_t i = 0; i < f.item_of_wx_id.size(); ++i)
            if (f.item_of_wx_id[i] == id)
                return bar->FindItem(first_menu_item_wx_id + static_cast<int>(i));
        return nullptr;
    };
    for (const auto& [id, item] : items) {
        wxMenuItem* shown = shown_item(id);
        if (!shown) continue;
        if (item.markable && !shown->IsCheckable()) return build_bar();
    }
    for (const auto& [id, item] : items) {
        wxMenuItem* shown = shown_item(id);
        if (!shown) continue;
        if (shown->IsCheckable() && shown->IsChecked() != item.checked) shown->Check(item.checked);
        if (shown->IsEnabled() != item.enabled) shown->Enable(item.enabled);
    }
}

template <class Change>
void change_item(int32_t id, Change&& change) {
    {
        Frame& f = state();
        std::lock_guard lock(f.mutex);
        change(f.items[id]);
    }
    wx::on_ui(sync_menu);
}

void insert_slot(UiMenu menu, int position, MenuSlot slot) {
    Frame& f = state();
    {
        std::lock_guard lock(f.mutex);
        if (menu < 0 || static_cast<std::size_t>(menu) >= f.menus.size()) return;
        auto& slots = f.menus[static_cast<std::size_t>(menu)];
        std::size_t at = position < 0 ? 0 : static_cast<std::size_t>(position);
        if (at > slots.size()) at = slots.size();
        slots.insert(slots.begin() + static_cast<std::ptrdiff_t>(at), std::move(slot));
        if (f.bar == no_menu) return;
    }
    wx::on_ui(build_bar);
}

// ---- files dropped ----

class FileDrop : public wxFileDropTarget {
  public:
    bool OnDropFiles(wxCoord, wxCoord, const wxArrayString& names) override {
        if (!state().drops_accepted.load()) return false;
        std::vector<std::string> paths;
        for (const wxString& name : names)
            paths.push_back(wx::from_wx(name));
        std::vector<const char*> texts;
        for (const std::string& path : paths)
            texts.push_back(path.c_str());
        drop_files(texts.data(), static_cast<int>(texts.size()));
        return true;
    }
};

// ---- the frame ----

void control_command(void*, int32_t id, int32_t code) {
    command(id, code);
}

void control_slider(void*, int32_t id, int32_t code, int32_t position) {
    dashboard_slider_moved(id, code, position);
}

void control_key(void*, int32_t id, int32_t key) {
    dashboard_key_down(id, key);
}

class MainFrame : public wxFrame {
  public:
    explicit MainFrame(const wxString& title)
        : wxFrame(nullptr, wxID_ANY, title, wxPoint(window_left_px, window_top_px), wxDefaultSize,
                  wxCAPTION | wxSYSTEM_MENU | wxMINIMIZE_BOX | wxCLOSE_BOX | wxRESIZE_BORDER) {
        panel_ = new wxPanel(this, wxID_ANY);
        panel_->SetBackgroundColour(wxSystemSettings::GetColour(wxSYS_COLOUR_BTNFACE));
        panel_->SetDropTarget(new FileDrop);
        fix_client_size(this);
        SetIcons(wx::program_icons());
        Bind(wxEVT_CLOSE_WINDOW, [](wxCloseEvent&) { main_window_close(); });
        Bind(wxEVT_MENU, &MainFrame::on_menu, this);
        Bind(wxEVT_CHAR_HOOK, &MainFrame::on_key, this);
    }

    wxPanel* panel() const { return panel_; }

  private:
    // The toolkit flips a check item by itself; the program keeps the mark
    // and flips it in its own command, so the item is put back to the
    // program's state afterwards.
    void on_menu(wxCommandEvent& event) {
        const auto index = static_cast<std::size_t>(event.GetId() - first_menu_item_wx_id);
        const std::vector<int32_t>& ids = state().item_of_wx_id;
        if (event.GetId() < first_menu_item_wx_id || index >= ids.size()) return;
        command(ids[index], 0);
        sync_menu();
    }

    // Return in an entry validates its setting, once the entry has had
    // the key.
    void on_key(wxKeyEvent& event) {
        event.Skip();
        const int key = event.GetKeyCode();
        if (key != WXK_RETURN && key != WXK_NUMPAD_ENTER) return;
        wx::ControlSet* controls = state().controls.load();
        if (!controls) return;
        const int32_t id = controls->id_of(wxWindow::FindFocus());
        if (id == 0 || !dynamic_cast<wxTextCtrl*>(wxWindow::FindFocus())) return;
        CallAfter([id] { control_key(nullptr, id, key_return_code); });
    }

    wxPanel* panel_;
};

wx::ControlSet* main_controls() {
    return state().controls.load();
}

} // namespace

namespace wx {

wxFrame* main_frame() {
    return state().frame;
}

wxWindow* main_panel() {
    return state().panel;
}

bool main_window_made() {
    return state().made.load();
}

} // namespace wx

intptr_t ui_create_main_window(const char* title, uint32_t) {
    Frame& f = state();
    if (f.made.load() || !wx::on_ui_thread()) return 0;
    {
        std::lock_guard lock(f.mutex);
        f.title = title ? title : "";
    }
    auto* frame = new MainFrame(wx::to_wx(title));
    f.frame = frame;
    f.panel = frame->panel();
    f.controls.store(new wx::ControlSet(
        frame->panel(), {control_command, control_slider, control_key, nullptr, true}));
    f.made.store(true);
    frame->Show();
    frame->Raise();
    return reinterpret_cast<intptr_t>(frame);
}

bool ui_main_window_exists() {
    return state().made.load();
}

void ui_set_title(const char* title) {
    Frame& f = state();
    {
        std::lock_guard lock(f.mutex);
        f.title = title ? title : "";
    }
    wx::on_ui([] {
        Frame& shown = state();
        if (!shown.frame) return;
        std::string text;
        {
            std::lock_guard lock(shown.mutex);
            text = shown.title;
        }
        shown.frame->SetTitle(wx::to_wx(text.c_str()));
    });
}

UiMenu ui_menu_create_bar() {
    return ui_menu_create_popup();
}

UiMenu ui_menu_create_popup() {
    Frame& f = state();
    std::lock_guard lock(f.mutex);
    f.menus.emplace_back();
    return static_cast<UiMenu>(f.menus.size() - 1);
}

void ui_menu_insert_popup(UiMenu menu, int position, UiMenu popup, const char* text) {
    insert_slot(menu, position, {SlotKind::popup, 0, text ? text : "", popup});
}

void ui_menu_insert_item(UiMenu menu, int position, int32_t id, const char* text) {
    insert_slot(menu, position, {SlotKind::item, id, text ? text : "", no_menu});
}

void ui_menu_insert_separator(UiMenu menu, int position) {
    insert_slot(menu, position, {SlotKind::separator, 0, "", no_menu});
}

void ui_menu_attach(UiMenu bar) {
    {
        Frame& f = state();
        std::lock_guard lock(f.mutex);
        f.bar = bar;
    }
    wx::on_ui(build_bar);
}

void ui_menu_check(int32_t id, bool checked) {
    change_item(id, [checked](ItemState& item) {
        item.markable = true;
        item.checked = checked;
    });
}

bool ui_menu_checked(int32_t id) {
    Frame& f = state();
    std::lock_guard lock(f.mutex);
    auto found = f.items.find(id);
    return found != f.items.end() && found->second.checked;
}

void ui_menu_enable(int32_t id, bool enabled) {
    change_item(id, [enabled](ItemState& item) { item.enabled = enabled; });
}

void ui_accept_drops(bool accept) {
    state().drops_accepted.store(accept);
}

// ---- the Dashboard's controls ----

void ui_create_control(const UiControl& control, const char* text) {
    if (wx::ControlSet* controls = main_controls()) controls->create(control, text);
}

void ui_set_control_text(int32_t id, const char* text) {
    if (wx::ControlSet* controls = main_controls()) controls->set_text(id, text);
}

std::size_t ui_control_text(int32_t id, char* out, std::size_t capacity) {
    if (wx::ControlSet* controls = main_controls()) return controls->text(id, out, capacity);
    if (capacity > 0) out[0] = '\0';
    return 0;
}

void ui_enable_control(int32_t id, bool enabled) {
    if (wx::ControlSet* controls = main_controls()) controls->enable(id, enabled);
}

void ui_check_control(int32_t id, bool checked) {
    if (wx::ControlSet* controls = main_controls()) controls->check(id, checked);
}

bool ui_control_checked(int32_t id) {
    wx::ControlSet* controls = main_controls();
    return controls && controls->checked(id);
}

void ui_set_slider_range(int32_t id, int32_t low, int32_t high) {
    if (wx::ControlSet* controls = main_controls()) controls->set_slider_range(id, low, high);
}

void ui_set_slider_position(int32_t id, int32_t position) {
    if (wx::ControlSet* controls = main_controls()) controls->set_slider_position(id, position);
}

int32_t ui_combo_add_row(int32_t id, const char* text, intptr_t item_data) {
    wx::ControlSet* controls = main_controls();
    return controls ? controls->add_row(id, text, item_data) : -1;
}

void ui_combo_select(int32_t id, int32_t row) {
    if (wx::ControlSet* controls = main_controls()) controls->select_row(id, row);
}

int32_t ui_combo_selected(int32_t id) {
    wx::ControlSet* controls = main_controls();
    return controls ? controls->selected_row(id) : -1;
}

intptr_t ui_combo_item_data(int32_t id, int32_t row) {
    wx::ControlSet* controls = main_controls();
    return controls ? controls->row_data(id, row) : -1;
}

void ui_set_value_look(int32_t id, UiValueLook look) {
    if (wx::ControlSet* controls = main_controls()) controls->set_look(id, look);
}

} // namespace norvanta
