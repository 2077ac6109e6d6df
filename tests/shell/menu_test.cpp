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

using headless::MenuEntryKind;

struct Expected {
    int level;
    MenuEntryKind kind;
    int32_t id;
    const char* french;
    const char* english;
};

// The bar as a user sees it, depth first; written out independently of the table.
const Expected expected_bar[] = {
    {0, MenuEntryKind::popup, 0, "&Fichier", "&File"},
    {1, MenuEntryKind::item, 40058, "&Ouvrir\tCtrl+O", "&Open\tCtrl+O"},
    {1, MenuEntryKind::separator, 0, "", ""},
    {1, MenuEntryKind::item, 40002, "&Quitter\tCtrl+Q", "&Quit\tCtrl+Q"},
    {0, MenuEntryKind::popup, 0, "&Gps", "&Gps"},
    {1, MenuEntryKind::item, 40036, "&Navigation\tCtrl+N", "&Navigation\tCtrl+N"},
    {1, MenuEntryKind::separator, 0, "", ""},
    {1, MenuEntryKind::item, 40063, "Log navigation", "Log navigation"},
    {1, MenuEntryKind::item, 40038, "Log donnees phase brutes", "Log raw phase data"},
    {0, MenuEntryKind::popup, 0, "&Diffusion", "&Diffusion"},
    {1, MenuEntryKind::item, 40201, "Adresses de diffusion", "Diffusion addresses"},
    {1, MenuEntryKind::separator, 0, "", ""},
    {1, MenuEntryKind::item, 40209, "Diffusion", "Diffusion"},
    {0, MenuEntryKind::item, 65535, "A propos de", "About"},
};

class Menu : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        home_ = new testing::TestHome;
        home_->make_current();
        object_store_create();
        create_main_window();
        build_main_menu();
    }
    static void TearDownTestSuite() {
        delete home_;
        home_ = nullptr;
    }
    static testing::TestHome* home_;
};
testing::TestHome* Menu::home_ = nullptr;

TEST_F(Menu, BarHasEveryEntryAtItsLevelInTheLanguageInUse) {
    std::vector<headless::MenuEntry> entries = headless::menu_entries();
    ASSERT_EQ(entries.size(), std::size(expected_bar));
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const Expected& want = expected_bar[i];
        SCOPED_TRACE("entry " + std::to_string(i) + " " + want.english);
        EXPECT_EQ(entries[i].level, want.level);
        EXPECT_EQ(entries[i].kind, want.kind);
        EXPECT_EQ(entries[i].id, want.id);
        EXPECT_EQ(entries[i].text, language_index() == 1 ? want.french : want.english);
    }
}

TEST_F(Menu, StartsWithDiffusionOnAndTheRawLogGray) {
    struct Row {
        int32_t id;
        bool checked;
        bool enabled;
    };
    const Row rows[] = {
        {menu_navigation, false, true},     {menu_navigation_log, false, true},
        {menu_raw_phase_log, false, false}, {menu_diffusion, true, true},
        {menu_open, false, true},           {menu_about, false, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("item " + std::to_string(row.id));
        EXPECT_EQ(ui_menu_checked(row.id), row.checked);
        EXPECT_EQ(headless::menu_enabled(row.id), row.enabled);
    }
}

} // namespace
} // namespace norvanta
