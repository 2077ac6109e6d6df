// The dialog seam with no window: each dialog's controls kept in memory, and
// the user's acts played by tests through the hooks of
// ui_dialog_headless.h.
//
// The callbacks run on the calling thread, so a dialog may end itself from
// inside one: every act finds its dialog again by handle after a callback.
#include "platform/ui_dialog.h"

#include <algorithm>
#include <memory>

#include "platform/headless/ui_dialog_headless.h"
#include "platform/headless/ui_headless.h"
#include "shell/commands.h"

namespace norvanta {

namespace {

struct Dialog {
    headless::DialogView view;
    UiDialogCallbacks callbacks;
};

struct DialogState {
    std::vector<std::unique_ptr<Dialog>> open; // oldest first
    UiDialog next_handle = 1;
    std::optional<std::vector<std::string>> file_answer;
    std::optional<headless::FileRequestSeen> file_request;
};

DialogState& state() {
    static DialogState instance;
    return instance;
}

Dialog* find_dialog(UiDialog handle) {
    for (auto& dialog : state().open)
        if (dialog->view.handle == handle) return dialog.get();
    return nullptr;
}

Dialog* top_dialog() {
    return state().open.empty() ? nullptr : state().open.back().get();
}

headless::DialogControl* find_control(Dialog* dialog, int32_t id) {
    if (!dialog || id == 0) return nullptr;
    for (headless::DialogControl& control : dialog->view.controls)
        if (control.id == id) return &control;
    return nullptr;
}

headless::DialogControl* find_control(UiDialog handle, int32_t id) {
    return find_control(find_dialog(handle), id);
}

bool has_rows(const headless::DialogControl& c) {
    return c.kind == UiControlKind::combo_box || c.kind == UiControlKind::combo_entry ||
           c.kind == UiControlKind::list_box;
}

bool row_exists(const headless::DialogControl& c, int32_t row) {
    return row >= 0 && static_cast<std::size_t>(row) < c.rows.size();
}

void copy_text(const std::string& text, char* out, std::size_t capacity) {
    if (capacity > 0) out[text.copy(out, capacity - 1)] = '\0';
}

// The control's group of radio options: from the last group mark at or
// before it up to the next mark after it.
void check_in_group(std::vector<headless::DialogControl>& controls, std::size_t index) {
    std::size_t first = index;
    while (first > 0 && (controls[first].style & ui_style_group) == 0)
        --first;
    for (std::size_t i = first; i < controls.size(); ++i) {
        if (i > index && (controls[i].style & ui_style_group) != 0) break;
        if (controls[i].kind == UiControlKind::radio_option) controls[i].checked = false;
    }
    controls[index].checked = true;
}

// The user may act on an enabled control of the dialog on top.
headless::DialogControl* usable_control(int32_t id) {
    headless::DialogControl* control = find_control(top_dialog(), id);
    return control && control->enabled ? control : nullptr;
}

void notify_command(UiDialog handle, int32_t id, int32_t code) {
    Dialog* dialog = find_dialog(handle);
    if (dialog && dialog->callbacks.command) dialog->callbacks.command(handle, id, code);
}

void notify_key(UiDialog handle, int32_t id, int32_t key) {
    Dialog* dialog = find_dialog(handle);
    if (dialog && dialog->callbacks.key) dialog->callbacks.key(handle, id, key);
}

bool is_dialog_key(int32_t key) {
    return key == ui_key_tab || key == ui_key_return || key == ui_key_escape || key == ui_key_colon;
}

// Whether the control would insert the character into its text.
bool takes_character(const headless::DialogControl& c, char character) {
    if (c.kind != UiControlKind::entry && c.kind != UiControlKind::combo_entry) return false;
    if (character == '\t' || character == '\x1b' || character == '\r') return false;
    if ((c.style & ui_entry_digits_only) != 0 && (character < '0' || character > '9')) return false;
    return true;
}

int32_t change_code(const headless::DialogControl& c) {
    return c.kind == UiControlKind::combo_entry ? ui_notify_edit_changed : ui_notify_text_changed;
}

} // namespace

UiDialog ui_dialog_open(const UiDialogTemplate& dialog, const UiDialogCallbacks& callbacks) {
    auto made = std::make_unique<Dialog>();
    made->callbacks = callbacks;
    headless::DialogView& view = made->view;
    view.handle = state().next_handle++;
    const bool french = dialog.language == 1;
    const char* title = french ? dialog.french_title : dialog.english_title;
    view.title = title ? title : "";
    view.client = dialog.client;
    view.focus = 0;
    for (std::size_t i = 0; i < dialog.control_count; ++i) {
        const UiControl& row = dialog.controls[i];
        const char* text = french ? row.french : row.english;
        headless::DialogControl control{};
        control.kind = row.kind;
        control.id = row.id;
        control.where = row.where;
        control.style = row.style;
        control.text = text ? text : "";
        control.enabled = true;
        control.selected = -1;
        view.controls.push_back(std::move(control));
    }
    state().open.push_back(std::move(made));
    return view.handle;
}

void ui_dialog_end(UiDialog dialog) {
    auto& open = state().open;
    std::erase_if(open, [dialog](const auto& d) { return d->view.handle == dialog; });
}

bool ui_dialog_is_open(UiDialog dialog) {
    return find_dialog(dialog) != nullptr;
}

void ui_dialog_set_text(UiDialog dialog, int32_t id, const char* text) {
    if (auto* c = find_control(dialog, id)) c->text = text ? text : "";
}

std::size_t ui_dialog_text(UiDialog dialog, int32_t id, char* out, std::size_t capacity) {
    const auto* c = find_control(dialog, id);
    const std::string empty;
    const std::string& text = c ? c->text : empty;
    copy_text(text, out, capacity);
    return text.size();
}

void ui_dialog_enable(UiDialog dialog, int32_t id, bool enabled) {
    if (auto* c = find_control(dialog, id)) c->enabled = enabled;
}

void ui_dialog_check(UiDialog dialog, int32_t id, bool checked) {
    if (auto* c = find_control(dialog, id)) c->checked = checked;
}

bool ui_dialog_checked(UiDialog dialog, int32_t id) {
    const auto* c = find_control(dialog, id);
    return c && c->checked;
}

void ui_dialog_focus(UiDialog dialog, int32_t id) {
    Dialog* d = find_dialog(dialog);
    if (d && (id == 0 || find_control(d, id))) d->view.focus = id;
}

int32_t ui_dialog_add_row(UiDialog dialog, int32_t id, const char* text, intptr_t item_data) {
    auto* c = find_control(dialog, id);
    if (!c || !has_rows(*c)) return -1;
    c->rows.emplace_back(text ? text : "");
    c->row_data.push_back(item_data);
    c->row_selected.push_back(false);
    return static_cast<int32_t>(c->rows.size()) - 1;
}

void ui_dialog_delete_row(UiDialog dialog, int32_t id, int32_t row) {
    auto* c = find_control(dialog, id);
    if (!c || !row_exists(*c, row)) return;
    c->rows.erase(c->rows.begin() + row);
    c->row_data.erase(c->row_data.begin() + row);
    c->row_selected.erase(c->row_selected.begin() + row);
    if (c->selected == row) c->selected = -1;
    if (c->selected > row) --c->selected;
    c->top_row = std::clamp(c->top_row, 0, std::max(0, static_cast<int32_t>(c->rows.size()) - 1));
}

void ui_dialog_clear_rows(UiDialog dialog, int32_t id) {
    auto* c = find_control(dialog, id);
    if (!c) return;
    c->rows.clear();
    c->row_data.clear();
    c->row_selected.clear();
    c->selected = -1;
    c->top_row = 0;
    if (c->kind == UiControlKind::combo_box) c->text.clear();
}

int32_t ui_dialog_row_count(UiDialog dialog, int32_t id) {
    const auto* c = find_control(dialog, id);
    return c ? static_cast<int32_t>(c->rows.size()) : 0;
}

intptr_t ui_dialog_row_data(UiDialog dialog, int32_t id, int32_t row) {
    const auto* c = find_control(dialog, id);
    return c && row_exists(*c, row) ? c->row_data[static_cast<std::size_t>(row)] : -1;
}

void ui_dialog_select_row(UiDialog dialog, int32_t id, int32_t row) {
    auto* c = find_control(dialog, id);
    if (!c) return;
    c->selected = row_exists(*c, row) ? row : -1;
    c->text = c->selected >= 0 ? c->rows[static_cast<std::size_t>(row)] : std::string();
}

int32_t ui_dialog_selected_row(UiDialog dialog, int32_t id) {
    const auto* c = find_control(dialog, id);
    return c ? c->selected : -1;
}

int32_t ui_dialog_selected_rows(UiDialog dialog, int32_t id, int32_t* out, int32_t capacity) {
    const auto* c = find_control(dialog, id);
    if (!c) return 0;
    int32_t written = 0;
    for (std::size_t row = 0; row < c->row_selected.size() && written < capacity; ++row)
        if (c->row_selected[row]) out[written++] = static_cast<int32_t>(row);
    return written;
}

int32_t ui_dialog_top_row(UiDialog dialog, int32_t id) {
    const auto* c = find_control(dialog, id);
    return c ? c->top_row : 0;
}

void ui_dialog_set_top_row(UiDialog dialog, int32_t id, int32_t row) {
    if (auto* c = find_control(dialog, id))
        c->top_row = std::clamp(row, 0, std::max(0, static_cast<int32_t>(c->rows.size()) - 1));
}

std::vector<std::string> ui_choose_files(const UiFileRequest& request) {
    auto text = [](const char* s) { return std::string(s ? s : ""); };
    state().file_request = headless::FileRequestSeen{
        text(request.caption), text(request.filter_name), text(request.filter_pattern),
        request.multiple, text(request.start_directory)};
    std::vector<std::string> answer =
        std::move(state().file_answer).value_or(std::vector<std::string>{});
    state().file_answer.reset();
    return answer;
}

namespace headless {

std::optional<DialogView> open_dialog() {
    if (Dialog* dialog = top_dialog()) return dialog->view;
    return std::nullopt;
}

std::optional<DialogControl> dialog_control(int32_t id) {
    if (const DialogControl* c = find_control(top_dialog(), id)) return *c;
    return std::nullopt;
}

bool main_window_enabled() {
    return state().open.empty();
}

void click(int32_t id) {
    DialogControl* c = usable_control(id);
    if (!c) return;
    Dialog* dialog = top_dialog();
    if (c->kind == UiControlKind::check_box) c->checked = !c->checked;
    if (c->kind == UiControlKind::radio_option) {
        auto& controls = dialog->view.controls;
        check_in_group(controls, static_cast<std::size_t>(c - controls.data()));
    }
    notify_command(dialog->view.handle, id, ui_notify_clicked);
}

void type_text(int32_t id, std::string_view text) {
    if (!usable_control(id)) return;
    const UiDialog handle = top_dialog()->view.handle;
    top_dialog()->view.focus = id;
    for (const char character : text) {
        // A callback may have moved the focus or ended the dialog: the
        // characters go where the focus now is, as the keyboard's would.
        Dialog* dialog = find_dialog(handle);
        if (!dialog) return;
        const int32_t target = dialog->view.focus;
        DialogControl* c = find_control(dialog, target);
        if (c && takes_character(*c, character)) {
            c->text.push_back(character);
            c->selected = -1;
            notify_command(handle, target, change_code(*c));
        }
        const int32_t key = static_cast<unsigned char>(character);
        if (is_dialog_key(key)) notify_key(handle, target, key);
    }
}

void erase_text(int32_t id) {
    DialogControl* c = usable_control(id);
    if (!c || c->text.empty()) return;
    c->text.clear();
    c->selected = -1;
    notify_command(top_dialog()->view.handle, id, change_code(*c));
}

void press_key(int32_t id, int32_t key) {
    Dialog* dialog = top_dialog();
    if (!dialog || (id != 0 && !usable_control(id))) return;
    dialog->view.focus = id;
    if (is_dialog_key(key)) notify_key(dialog->view.handle, id, key);
}

void choose_row(int32_t id, int32_t row) {
    DialogControl* c = usable_control(id);
    if (!c || !row_exists(*c, row)) return;
    c->selected = row;
    c->text = c->rows[static_cast<std::size_t>(row)];
    notify_command(top_dialog()->view.handle, id, ui_notify_selection_changed);
}

void select_rows(int32_t id, const std::vector<int32_t>& rows) {
    DialogControl* c = usable_control(id);
    if (!c) return;
    std::fill(c->row_selected.begin(), c->row_selected.end(), false);
    for (int32_t row : rows)
        if (row_exists(*c, row)) c->row_selected[static_cast<std::size_t>(row)] = true;
}

void request_dialog_close() {
    Dialog* dialog = top_dialog();
    if (dialog && dialog->callbacks.close) dialog->callbacks.close(dialog->view.handle);
}

void choose_menu_item(int32_t id) {
    if (menu_enabled(id)) command(id, 0);
}

void notify_main_control(int32_t id, int32_t code) {
    const std::optional<Control> target = control(id);
    if (target && target->enabled) command(id, code);
}

void answer_file_chooser(std::vector<std::string> paths) {
    state().file_answer = std::move(paths);
}

std::optional<FileRequestSeen> last_file_request() {
    return state().file_request;
}

void reset_dialogs() {
    state().open.clear();
    state().file_answer.reset();
    state().file_request.reset();
}

} // namespace headless

} // namespace norvanta
