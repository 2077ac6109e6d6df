// The diffusion addresses dialog through the headless window: the two lists
// with their slots, Add, the keys of the entries, the arrows and the close
// that hands the lists to the senders.
#include "shell/addresses_dialog.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/pair_list.h"
#include "diffusion/clients.h"
#include "platform/headless/ui_dialog_headless.h"
#include "platform/headless/ui_headless.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/events.h"
#include "shell/main.h"
#include "shell/menu.h"
#include "shell/window.h"
#include "support/program_environment.h"
#include "support/serve_events.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

[[maybe_unused]] const auto* const addresses_environment =
    ::testing::AddGlobalTestEnvironment(new testing::ProgramEnvironment("LANG ENGLISH\n"));

class AddressesDialog : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::serve_until_idle();
        headless::reset();
        headless::reset_dialogs();
        headless::choose_menu_item(menu_addresses);
        headless::reset();
        ASSERT_TRUE(addresses_dialog_open());
    }
    void TearDown() override {
        if (addresses_dialog_open()) headless::click(addresses_close_button);
        testing::serve_until_idle();
    }
    static headless::DialogControl control(int32_t id) {
        auto found = headless::dialog_control(id);
        EXPECT_TRUE(found.has_value()) << "no control " << id;
        return found.value_or(headless::DialogControl{});
    }
    static std::string text(int32_t id) { return control(id).text; }
    static int32_t focus() {
        return headless::open_dialog().value_or(headless::DialogView{}).focus;
    }
    // The address of the client in a slot of a list; "<hole>" for none.
    static std::string address_at(const PairList* list, intptr_t slot) {
        if (slot < 0 || slot >= pair_list_count(list)) return "<no slot>";
        const auto* client = reinterpret_cast<const SocketRecord*>(list->pairs[slot].value);
        return client && client->address ? client->address : "<hole>";
    }
    // Each row of a list names the client of its slot in the list it stands for.
    static void expect_rows_match_slots(int32_t list_id, const PairList* list) {
        const auto list_control = control(list_id);
        ASSERT_EQ(list_control.rows.size(), list_control.row_data.size());
        for (std::size_t row = 0; row < list_control.rows.size(); ++row)
            EXPECT_EQ(list_control.rows[row], address_at(list, list_control.row_data[row]))
                << "row " << row << " of list " << list_id;
    }
    static int posted(int32_t event) {
        int count = 0;
        for (const headless::Message& message : headless::pending_messages())
            count += message.event == event;
        return count;
    }
};

TEST_F(AddressesDialog, OpensWithBothListsFromTheLastSlotAndTheFocusOnTheHost) {
    const auto dialog = headless::open_dialog();
    ASSERT_TRUE(dialog.has_value());
    EXPECT_EQ(dialog->title, "Diffusion addresses");
    EXPECT_EQ(dialog->focus, addresses_host_entry);
    EXPECT_FALSE(headless::main_window_enabled());
    // The defaults: 7551 and 7552 active, 7553 to 7559 known but not selected.
    const auto right = control(addresses_active_list);
    EXPECT_EQ(right.rows, (std::vector<std::string>{"localhost:7552", "localhost:7551"}));
    EXPECT_EQ(right.row_data, (std::vector<intptr_t>{1, 0}));
    const auto left = control(addresses_inactive_list);
    ASSERT_EQ(left.rows.size(), 7u);
    EXPECT_EQ(left.rows.front(), "localhost:7559");
    EXPECT_EQ(left.rows.back(), "localhost:7553");
    expect_rows_match_slots(addresses_inactive_list, inactive_clients());
}

TEST_F(AddressesDialog, AddTakesHostAndPortAndAnswersAKnownAddressWithItsSlot) {
    const testing::UdpListener client;
    const std::string port = std::to_string(client.port());
    auto rows = [] { return control(addresses_active_list).rows.size(); };
    const std::size_t before = rows();

    // Either entry empty: nothing at all.
    headless::type_text(addresses_port_entry, port);
    headless::click(addresses_add_button);
    headless::erase_text(addresses_port_entry);
    headless::type_text(addresses_host_entry, "127.0.0.1");
    headless::click(addresses_add_button);
    EXPECT_EQ(rows(), before);
    EXPECT_TRUE(headless::boxes().empty());

    headless::type_text(addresses_port_entry, port);
    headless::click(addresses_add_button);
    ASSERT_EQ(rows(), before + 1);
    EXPECT_EQ(control(addresses_active_list).rows.back(), "127.0.0.1:" + port);
    EXPECT_EQ(text(addresses_host_entry), "");
    EXPECT_EQ(text(addresses_port_entry), port);
    expect_rows_match_slots(addresses_active_list, active_clients());
    const intptr_t slot = control(addresses_active_list).row_data.back();

    // Known, in this list or the other: an empty row with its slot.
    headless::type_text(addresses_host_entry, "127.0.0.1");
    headless::click(addresses_add_button);
    headless::type_text(addresses_host_entry, "localhost");
    headless::erase_text(addresses_port_entry);
    headless::type_text(addresses_port_entry, "7553");
    headless::click(addresses_add_button);
    const auto right = control(addresses_active_list);
    ASSERT_EQ(right.rows.size(), before + 3);
    EXPECT_EQ(right.rows[before + 1], "");
    EXPECT_EQ(right.row_data[before + 1], slot);
    EXPECT_EQ(right.rows[before + 2], "");
    EXPECT_EQ(address_at(inactive_clients(), right.row_data[before + 2]), "localhost:7553");

    // Port 0 is refused by a box; the entries keep their text.
    headless::type_text(addresses_host_entry, "127.0.0.1");
    headless::erase_text(addresses_port_entry);
    headless::type_text(addresses_port_entry, "0");
    headless::click(addresses_add_button);
    EXPECT_EQ(headless::boxes().size(), 1u);
    EXPECT_EQ(rows(), before + 3);
    EXPECT_EQ(text(addresses_host_entry), "127.0.0.1");

    // A port past the last one is refused as port 0 is, not cut to 16 bits
    // into a port of some other program.
    headless::erase_text(addresses_port_entry);
    headless::type_text(addresses_port_entry, "4294974847");
    EXPECT_EQ(text(addresses_port_entry), "4294974847");
    headless::click(addresses_add_button);
    EXPECT_EQ(headless::boxes().size(), 2u);
    EXPECT_EQ(rows(), before + 3);
}

TEST_F(AddressesDialog, TheColonTabAndEscapeWalkTheEntries) {
    // Typing goes where the focus goes: the colon ends the host.
    headless::type_text(addresses_host_entry, "gps.example.org:80x8");
    EXPECT_EQ(text(addresses_host_entry), "gps.example.org");
    EXPECT_EQ(text(addresses_port_entry), "808");
    EXPECT_EQ(focus(), addresses_port_entry);

    struct Step {
        int32_t where;
        int32_t focus_after;
    };
    const Step tabs[] = {
        {addresses_port_entry, addresses_host_entry},
        {addresses_host_entry, addresses_port_entry},
        {0, addresses_host_entry},
        {addresses_inactive_list, addresses_inactive_list},
    };
    for (const Step& step : tabs) {
        headless::press_key(step.where, ui_key_tab);
        EXPECT_EQ(focus(), step.focus_after) << "Tab in control " << step.where;
    }
    // A colon in the port is no separator.
    headless::type_text(addresses_port_entry, ":");
    EXPECT_EQ(focus(), addresses_port_entry);

    headless::press_key(addresses_active_list, ui_key_escape);
    EXPECT_TRUE(addresses_dialog_open()) << "a list keeps its keys";
    headless::press_key(addresses_port_entry, ui_key_escape);
    EXPECT_FALSE(addresses_dialog_open());
    EXPECT_TRUE(headless::main_window_enabled());
    EXPECT_EQ(posted(event_send_list), 1);
}

TEST_F(AddressesDialog, ArrowsMoveTheSelectedRowsAndCloseHandsTheListsToTheSenders) {
    const std::vector<std::string> left_before = control(addresses_inactive_list).rows;
    const std::vector<std::string> right_before = control(addresses_active_list).rows;
    ASSERT_GE(left_before.size(), 3u);
    headless::select_rows(addresses_inactive_list, {0, 2});
    headless::click(addresses_right_arrow);
    std::vector<std::string> left_after = left_before;
    left_after.erase(left_after.begin() + 2);
    left_after.erase(left_after.begin());
    EXPECT_EQ(control(addresses_inactive_list).rows, left_after);
    // The last selected row moves first.
    std::vector<std::string> right_after = right_before;
    right_after.push_back(left_before[2]);
    right_after.push_back(left_before[0]);
    EXPECT_EQ(control(addresses_active_list).rows, right_after);
    expect_rows_match_slots(addresses_active_list, active_clients());
    expect_rows_match_slots(addresses_inactive_list, inactive_clients());

    headless::select_rows(addresses_active_list, {0});
    headless::click(addresses_left_arrow);
    EXPECT_EQ(control(addresses_inactive_list).rows.back(), right_before.front());
    expect_rows_match_slots(addresses_inactive_list, inactive_clients());

    // The senders keep the old list until the dialog closes.
    EXPECT_FALSE(pair_list_equal(send_snapshot(), active_clients()));
    headless::click(addresses_close_button);
    EXPECT_FALSE(addresses_dialog_open());
    EXPECT_EQ(posted(event_send_list), 1);
    testing::serve_until_idle();
    EXPECT_TRUE(pair_list_equal(send_snapshot(), active_clients()));
}

TEST_F(AddressesDialog, AnArrowMovesAtMostAHundredRows) {
    headless::click(addresses_close_button);
    constexpr int32_t added = 110;
    const int32_t base = testing::free_udp_port();
    for (int32_t i = 0; i < added; ++i)
        add_client("127.0.0.1", base + i, nullptr, nullptr);
    headless::choose_menu_item(menu_addresses);
    const auto right = control(addresses_active_list);
    const int32_t count = static_cast<int32_t>(right.rows.size());
    ASSERT_GT(count, 100);
    std::vector<int32_t> all;
    for (int32_t row = 0; row < count; ++row)
        all.push_back(row);
    headless::select_rows(addresses_active_list, all);
    headless::click(addresses_left_arrow);
    const auto kept = control(addresses_active_list);
    const std::vector<std::string> tail(right.rows.begin() + 100, right.rows.end());
    EXPECT_EQ(kept.rows, tail) << "the rows past the first hundred stay";
    expect_rows_match_slots(addresses_inactive_list, inactive_clients());
}

} // namespace
} // namespace norvanta
