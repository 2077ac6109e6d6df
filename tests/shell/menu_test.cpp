// The menu bar as the headless window holds it after start-up has built it.
#include "shell/menu.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "platform/headless/ui_headless.h"
#include "shell/config.h"
#include "shell/main.h"
#include "shell/window.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

using enum headless::MenuEntryKind;

struct Expected {
    int level;
    headless::MenuEntryKind kind;
    int32_t id;
    const char* french;
    const char* english;
    bool checked;
    bool enabled;
};

// The bar as a user sees it, depth first; written out independently of the table.
const Expected expected_bar[] = {
    {0, popup, 0, "&Fichier", "&File", false, true},
    {1, item, 40058, "&Ouvrir\tCtrl+O", "&Open\tCtrl+O", false, true},
    {1, separator, 0, "", "", false, true},
    {1, item, 40002, "&Quitter\tCtrl+Q", "&Quit\tCtrl+Q", false, true},
    {0, popup, 0, "&Gps", "&Gps", false, true},
    {1, item, 40036, "&Navigation\tCtrl+N", "&Navigation\tCtrl+N", false, true},
    {1, separator, 0, "", "", false, true},
    {1, item, 40063, "Log navigation", "Log navigation", false, true},
    {1, item, 40038, "Log donnees phase brutes", "Log raw phase data", false, false},
    {0, popup, 0, "&Diffusion", "&Diffusion", false, true},
    {1, item, 40201, "Adresses de diffusion", "Diffusion addresses", false, true},
    {1, separator, 0, "", "", false, true},
    {1, item, 40209, "Diffusion", "Diffusion", true, true},
    {0, item, 65535, "A propos de", "About", false, true},
};

TEST(Menu, BarHasEveryEntryAtItsLevelInTheLanguageInUseWithItsStartingMarks) {
    object_store_create();
    create_main_window();
    build_main_menu();
    std::vector<headless::MenuEntry> entries = headless::menu_entries();
    ASSERT_EQ(entries.size(), std::size(expected_bar));
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const Expected& want = expected_bar[i];
        SCOPED_TRACE("entry " + std::to_string(i) + " " + want.english);
        EXPECT_EQ(entries[i].level, want.level);
        EXPECT_EQ(entries[i].kind, want.kind);
        EXPECT_EQ(entries[i].id, want.id);
        EXPECT_EQ(entries[i].text, language_index() == 1 ? want.french : want.english);
        EXPECT_EQ(entries[i].checked, want.checked);
        EXPECT_EQ(entries[i].enabled, want.enabled);
    }
}

} // namespace
} // namespace norvanta
