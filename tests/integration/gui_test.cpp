// The desktop program as a user meets it, on a virtual display of the test's
// own: the window comes up, the forward button replays a file to the
// clients, both dialogs open and close, a client added in the addresses
// dialog receives, and quitting during a replay sends the STOP mark.
//
// The program is driven with xdotool and looked at with ImageMagick's
// import; what it shows is judged from the pixels of a field (blank or not)
// and from the window title, what it sends from a UDP listener. With
// NORVANTA_SCREENSHOT_DIR set, the screenshots taken on the way are also
// copied there (that is how docs/screenshots/ is made).
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/cli_process.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

extern char** environ;

namespace norvanta {
namespace {

using namespace std::chrono_literals;
using testing::TestHome;
using testing::UdpListener;

constexpr int client_width = 536;
constexpr int client_height = 472;
constexpr auto deadline = 30s;
constexpr auto poll_interval = 50ms;

// Places in the client area, from the Dashboard's table.
struct Spot {
    int x;
    int y;
};
struct Area {
    int x;
    int y;
    int width;
    int height;
};
constexpr Spot forward_button{336, 168};
constexpr Area sentence_box{12, 376, 512, 84};
constexpr Area longitude_field{104, 268, 156, 20};
// In the dialogs' client areas.
constexpr Spot navigation_cancel{500, 282};
constexpr int navigation_client_height = 304;
constexpr int addresses_client_height = 256;
constexpr Spot add_client_button{520, 42};
constexpr Spot addresses_close{272, 232};

// ---- the virtual display ----

std::string display_name;

class VirtualDisplay : public ::testing::Environment {
  public:
    void SetUp() override {
        if (std::system("command -v Xvfb >/dev/null && command -v xdotool >/dev/null && "
                        "command -v import >/dev/null") != 0) {
            failure_ = "the GUI tests need Xvfb, xdotool and ImageMagick's import "
                       "(Debian: xvfb xdotool imagemagick; scripts/packages.sh lists them)";
            return;
        }
        // The server picks a free display itself and writes its number to
        // the pipe: test processes that run side by side can never take the
        // same one.
        int pipe_ends[2];
        if (pipe(pipe_ends) != 0) {
            failure_ = "no pipe for the virtual display";
            return;
        }
        std::vector<std::string> args = {"Xvfb",      "-displayfd", std::to_string(pipe_ends[1]),
                                         "-screen",   "0",          "800x600x24",
                                         "-nolisten", "tcp"};
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addclose(&actions, pipe_ends[0]);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        const int spawned = posix_spawnp(&server_, "Xvfb", &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(pipe_ends[1]);
        std::string number;
        pollfd ready{pipe_ends[0], POLLIN, 0};
        const int wait_ms = static_cast<int>(std::chrono::milliseconds(deadline).count());
        while (spawned == 0 && poll(&ready, 1, wait_ms) == 1) {
            char c = 0;
            if (read(pipe_ends[0], &c, 1) != 1 || c == '\n') break;
            number.push_back(c);
        }
        close(pipe_ends[0]);
        if (!number.empty()) {
            display_name = ":" + number;
            return;
        }
        if (server_ > 0) {
            kill(server_, SIGKILL);
            waitpid(server_, nullptr, 0);
            server_ = -1;
        }
        failure_ = "no virtual display could be started";
    }

    void TearDown() override {
        if (server_ > 0) {
            kill(server_, SIGTERM);
            waitpid(server_, nullptr, 0);
        }
    }

    static const std::string& failure() { return failure_; }

  private:
    pid_t server_ = -1;
    static inline std::string failure_;
};

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();
[[maybe_unused]] auto* const display = ::testing::AddGlobalTestEnvironment(new VirtualDisplay);

// ---- tools on the display ----

// Runs a command line with the display set; its standard output, the last
// line end taken off.
std::string on_display(const std::string& command) {
    std::string out;
    FILE* pipe = popen(("DISPLAY=" + display_name + " " + command + " 2>/dev/null").c_str(), "r");
    if (!pipe) return out;
    std::array<char, 4096> buffer;
    for (std::size_t got; (got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        out.append(buffer.data(), got);
    pclose(pipe);
    if (!out.empty() && out.back() == '\n') out.pop_back();
    return out;
}

template <class Condition>
bool wait_for(Condition&& condition) {
    for (auto end = std::chrono::steady_clock::now() + deadline;
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(poll_interval))
        if (condition()) return true;
    return false;
}

// A visible top-level window whose title matches; empty when there is none.
std::string window_named(const std::string& pattern) {
    std::string found = on_display("xdotool search --onlyvisible --name '" + pattern + "'");
    return found.substr(0, found.find('\n'));
}

// A window's place on the screen and, below its menu bar, where its client
// area starts. With no window manager there is no frame around it.
struct Window {
    std::string id;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    int client_top = 0;
};

Window window_of(const std::string& id, int client_area_height) {
    Window w;
    w.id = id;
    const std::string shell = on_display("xdotool getwindowgeometry --shell " + id);
    std::sscanf(shell.c_str(), "WINDOW=%*d X=%d Y=%d WIDTH=%d HEIGHT=%d", &w.x, &w.y, &w.width,
                &w.height);
    w.client_top = w.height - client_area_height;
    return w;
}

void click(const Window& w, Spot at) {
    on_display("xdotool mousemove " + std::to_string(w.x + at.x) + " " +
               std::to_string(w.y + w.client_top + at.y) + " sleep 0.2 click 1");
}

void keys(const Window& w, const std::string& names) {
    on_display("xdotool windowfocus --sync " + w.id + " key --delay 150 " + names);
}

// How many colours a part of the client area shows: 1 for a blank field.
std::size_t colours_in(const Window& w, Area area) {
    const std::string raw =
        on_display("import -window " + w.id + " -crop " + std::to_string(area.width) + "x" +
                   std::to_string(area.height) + "+" + std::to_string(area.x) + "+" +
                   std::to_string(area.y + w.client_top) + " -depth 8 rgb:-");
    std::set<std::string> seen;
    for (std::size_t at = 0; at + 3 <= raw.size(); at += 3)
        seen.insert(raw.substr(at, 3));
    return seen.size();
}

void screenshot(const TestHome& home, const Window& w, const std::string& name) {
    const std::string file = home.file(name + ".png");
    on_display("import -window " + w.id + " " + file);
    EXPECT_TRUE(testing::file_exists(file)) << "no screenshot " << name;
    if (const char* keep = std::getenv("NORVANTA_SCREENSHOT_DIR")) {
        std::error_code ignored;
        std::filesystem::copy_file(file, std::string(keep) + "/" + name + ".png",
                                   std::filesystem::copy_options::overwrite_existing, ignored);
    }
}

// Choosing a menu item with the keyboard: F10 opens the first menu, Right
// moves along the bar, Down to the item.
void choose_menu_item(const Window& w, int menu, int item) {
    std::string names = "F10";
    for (int i = 0; i < menu; ++i)
        names += " Right";
    for (int i = 0; i <= item; ++i)
        names += " Down";
    keys(w, names + " Return");
}
constexpr int file_menu = 0;
constexpr int gps_menu = 1;
constexpr int diffusion_menu = 2;
constexpr int quit_item = 1; // past the separator
constexpr int navigation_item = 0;
constexpr int addresses_item = 0;

// ---- the program ----

class Program {
  public:
    Program(const TestHome& home, std::vector<std::string> args) : home_(home) {
        // The test's own environment (sanitizer options among it), with the
        // display, a private home and the "C" language.
        std::vector<std::string> variables = {"DISPLAY=" + display_name,
                                              "NORVANTA_HOME=" + home.path(), "LC_ALL=C", "LANG=C",
                                              "NO_AT_BRIDGE=1"};
        for (char** variable = environ; *variable; ++variable) {
            std::string text = *variable;
            const std::string name = text.substr(0, text.find('=') + 1);
            if (name == "DISPLAY=" || name == "NORVANTA_HOME=" || name == "LC_ALL=" ||
                name == "LANG=" || name == "NO_AT_BRIDGE=")
                continue;
            // The GTK stack is not built for ThreadSanitizer: what it does
            // on its own, its locks included, is not judged.
            if (name == "TSAN_OPTIONS=")
                text += ":report_mutex_bugs=0:suppressions=" NORVANTA_GUI_TSAN_SUPPRESSIONS;
            variables.push_back(text);
        }
        std::vector<char*> envp;
        for (std::string& variable : variables)
            envp.push_back(variable.data());
        envp.push_back(nullptr);
        pid_ = testing::spawn_program(NORVANTA_GUI_PATH, home, std::move(args), envp.data());
    }

    ~Program() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    // The main window once it is shown, its title matching.
    Window main_window(const std::string& title_pattern = "^Norvanta") {
        std::string id;
        EXPECT_TRUE(wait_for([&] { return !(id = window_named(title_pattern)).empty(); }))
            << "no window titled " << title_pattern << "; " << errors();
        return window_of(id, client_height);
    }

    // The exit status, once the program has ended by itself.
    int finish() {
        int raw = 0;
        const bool ended = wait_for([&] { return waitpid(pid_, &raw, WNOHANG) == pid_; });
        EXPECT_TRUE(ended) << "the program did not end; " << errors();
        if (!ended) return -1;
        pid_ = -1;
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    }

    void signal(int number) const { kill(pid_, number); }
    std::string errors() const { return testing::read_file(home_.file("stderr.txt")); }

  private:
    const TestHome& home_;
    pid_t pid_ = -1;
};

const std::string replayed_file = NORVANTA_TEST_DATA_DIR "/gpx/expertgps.gpx";

// Datagrams until one holds the text; false at the listener's deadline.
bool receives(const UdpListener& listener, const std::string& text) {
    for (std::string got = listener.next(); got != "<none>"; got = listener.next())
        if (got.find(text) != std::string::npos) return true;
    return false;
}

// The last datagram before the listener falls silent.
std::string last_datagram(const UdpListener& listener) {
    std::string last;
    for (std::string got = listener.next(); got != "<none>"; got = listener.next())
        last = got;
    return last;
}

#define REQUIRE_DISPLAY()                                                                          \
    if (display_name.empty()) GTEST_FAIL() << VirtualDisplay::failure()

TEST(Gui, StartsWithItsFixedWindowAndEmptyFields) {
    REQUIRE_DISPLAY();
    TestHome home;
    Program program(home, {});
    Window w = program.main_window();
    // The menu bar comes once the window is up.
    EXPECT_TRUE(wait_for([&] { return (w = window_of(w.id, client_height)).client_top > 0; }))
        << "the menu bar stands above the client area";
    EXPECT_EQ(w.width, client_width);
    EXPECT_EQ(on_display("xdotool getwindowname " + w.id), "Norvanta")
        << "no track, no title part of its own";
    EXPECT_TRUE(wait_for([&] { return colours_in(w, sentence_box) == 1; }))
        << "the sentence box is blank";
    EXPECT_EQ(colours_in(w, longitude_field), 1u) << "the longitude field is blank";
    screenshot(home, w, "main-idle");
}

TEST(Gui, ForwardReplaysToTheClientsAndQuitSendsTheStopMark) {
    REQUIRE_DISPLAY();
    TestHome home;
    UdpListener listener;
    Program program(home,
                    {"--client", "127.0.0.1:" + std::to_string(listener.port()), replayed_file});
    const Window w = program.main_window("expertgps");
    EXPECT_EQ(colours_in(w, sentence_box), 1u) << "nothing is shown before the run";

    click(w, forward_button);
    EXPECT_TRUE(receives(listener, "$GPRMC"))
        << "the replay reaches the client; " << program.errors();
    EXPECT_TRUE(wait_for([&] { return colours_in(w, sentence_box) > 1; }))
        << "the sentences are shown";
    EXPECT_TRUE(wait_for([&] { return colours_in(w, longitude_field) > 1; }))
        << "the position is shown";
    screenshot(home, w, "main-replaying");

    choose_menu_item(w, file_menu, quit_item);
    EXPECT_EQ(program.finish(), 0);
    EXPECT_EQ(last_datagram(listener), "$PKLNT,STOP*79\r\n") << "the run ends with its mark";
}

TEST(Gui, DialogsOpenAndCloseAndAClientAddedThereReceives) {
    REQUIRE_DISPLAY();
    TestHome home;
    UdpListener listener;
    Program program(home, {replayed_file});
    const Window w = program.main_window("expertgps");

    choose_menu_item(w, gps_menu, navigation_item);
    std::string navigation;
    ASSERT_TRUE(wait_for([&] {
        return !(navigation = window_named("^Real time navigation$")).empty();
    })) << program.errors();
    const Window navigation_window = window_of(navigation, navigation_client_height);
    screenshot(home, navigation_window, "navigation-dialog");
    click(navigation_window, navigation_cancel);
    EXPECT_TRUE(wait_for([&] { return window_named("^Real time navigation$").empty(); }))
        << "Cancel closes the dialog";

    choose_menu_item(w, diffusion_menu, addresses_item);
    std::string addresses;
    ASSERT_TRUE(wait_for([&] {
        return !(addresses = window_named("^Diffusion addresses$")).empty();
    })) << program.errors();
    const Window addresses_window = window_of(addresses, addresses_client_height);
    // The host entry has the focus; the colon moves it to the port entry.
    on_display("xdotool windowfocus --sync " + addresses +
               " type --delay 50 '127.0.0.1:" + std::to_string(listener.port()) + "'");
    click(addresses_window, add_client_button);
    screenshot(home, addresses_window, "addresses-dialog");
    click(addresses_window, addresses_close);
    EXPECT_TRUE(wait_for([&] { return window_named("^Diffusion addresses$").empty(); }))
        << "Close closes the dialog";

    click(w, forward_button);
    EXPECT_TRUE(receives(listener, "$GPRMC"))
        << "the new client receives the replay; " << program.errors();
    // A signal takes the window's way out, STOP mark included.
    program.signal(SIGTERM);
    EXPECT_EQ(program.finish(), 0);
    EXPECT_EQ(last_datagram(listener), "$PKLNT,STOP*79\r\n");
}

} // namespace
} // namespace norvanta
