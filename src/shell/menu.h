// The menu bar: one table, both languages, built through the window seam.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace norvanta {

enum class MenuKind : int32_t { end = 0, popup = 1, item = 2, separator = 3 };

struct MenuRow {
    MenuKind kind;
    int32_t id;         // command id; 0 for popups and separators
    int32_t level;      // 0 the menu bar, 1 a popup of the bar, and so on
    const char* french; // text of the entry; "\t" puts the shortcut apart
    const char* english;
    int32_t reserved; // 0
};

// The command ids of the menu.
inline constexpr int32_t menu_open = 40058;
inline constexpr int32_t menu_quit = 40002;
inline constexpr int32_t menu_navigation = 40036;
inline constexpr int32_t menu_navigation_log = 40063;
inline constexpr int32_t menu_raw_phase_log = 40038;
inline constexpr int32_t menu_addresses = 40201;
inline constexpr int32_t menu_diffusion = 40209;
inline constexpr int32_t menu_about = 65535;

// Deepest level a menu table may use.
inline constexpr int32_t menu_level_limit = 8;

// Kept on purpose: the program has no accelerator table, so the shortcuts
// that the texts show ("Ctrl+O" and the others) are decoration only.
inline constexpr std::array<MenuRow, 15> main_menu_table = {{
    {MenuKind::popup, 0, 0, "&Fichier", "&File", 0},
    {MenuKind::item, menu_open, 1, "&Ouvrir\tCtrl+O", "&Open\tCtrl+O", 0},
    {MenuKind::separator, 0, 1, "", "", 0},
    {MenuKind::item, menu_quit, 1, "&Quitter\tCtrl+Q", "&Quit\tCtrl+Q", 0},
    {MenuKind::popup, 0, 0, "&Gps", "&Gps", 0},
    {MenuKind::item, menu_navigation, 1, "&Navigation\tCtrl+N", "&Navigation\tCtrl+N", 0},
    {MenuKind::separator, 0, 1, "", "", 0},
    {MenuKind::item, menu_navigation_log, 1, "Log navigation", "Log navigation", 0},
    {MenuKind::item, menu_raw_phase_log, 1, "Log donnees phase brutes", "Log raw phase data", 0},
    {MenuKind::popup, 0, 0, "&Diffusion", "&Diffusion", 0},
    {MenuKind::item, menu_addresses, 1, "Adresses de diffusion", "Diffusion addresses", 0},
    {MenuKind::separator, 0, 1, "", "", 0},
    {MenuKind::item, menu_diffusion, 1, "Diffusion", "Diffusion", 0},
    // A plain item on the bar itself.
    {MenuKind::item, menu_about, 0, "A propos de", "About", 0},
    {MenuKind::end, 0, 0, nullptr, nullptr, 0},
}};

// A table is walked up to its end row; each row's level must have a menu
// (a popup row opens the next level).
consteval bool menu_table_well_formed(std::span<const MenuRow> table) {
    int32_t open_level = 0; // deepest level that has a menu so far
    for (const MenuRow& row : table) {
        if (row.kind == MenuKind::end) return true;
        if (row.level < 0 || row.level > open_level || row.level >= menu_level_limit - 1)
            return false;
        open_level = row.kind == MenuKind::popup ? row.level + 1 : open_level;
    }
    return false;
}
static_assert(menu_table_well_formed(main_menu_table));

// Makes the menu bar of the main window from a table, in the language of
// language_index().
void build_menu(std::span<const MenuRow> table);

} // namespace norvanta
