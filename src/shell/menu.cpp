// The menu bar, built from its table through the window seam.
#include "shell/menu.h"

#include "platform/ui.h"
#include "shell/config.h"

namespace norvanta {

// One menu per level with a running insert position each: a popup row opens
// the next level, whose position starts again at 0.
void build_menu(std::span<const MenuRow> table) {
    std::array<UiMenu, menu_level_limit> menus{};
    std::array<int, menu_level_limit> positions{};
    menus[0] = ui_menu_create_bar();
    for (const MenuRow& row : table) {
        if (row.kind == MenuKind::end) break;
        if (row.level < 0 || row.level >= menu_level_limit - 1) continue;
        auto level = static_cast<std::size_t>(row.level);
        const char* text = localized(row.french, row.english);
        switch (row.kind) {
        case MenuKind::popup: {
            UiMenu popup = ui_menu_create_popup();
            ui_menu_insert_popup(menus[level], positions[level]++, popup, text);
            menus[level + 1] = popup;
            positions[level + 1] = 0;
            break;
        }
        case MenuKind::item:
            ui_menu_insert_item(menus[level], positions[level]++, row.id, text);
            break;
        case MenuKind::separator:
            ui_menu_insert_separator(menus[level], positions[level]++);
            break;
        case MenuKind::end:
            break;
        }
    }
    ui_menu_attach(menus[0]);
}

} // namespace norvanta
