#include "support/program_environment.h"

#include "diffusion/clients.h"
#include "diffusion/sockets.h"
#include "replay/engine.h"
#include "shell/config.h"
#include "shell/dashboard.h"
#include "shell/errors.h"
#include "shell/main.h"
#include "shell/window.h"
#include "support/udp_listener.h"

namespace norvanta::testing {

void ProgramEnvironment::SetUp() {
    home_ = std::make_unique<TestHome>();
    const std::string path = home_->file("norvanta.cfg");
    write_file(path, configuration_);
    config_use_file(path.c_str());
    locate_program();
    init_modules();
    ASSERT_FALSE(error_pending()) << error_text();
    create_main_window();
    build_main_menu();
    if (with_dashboard_) create_dashboard();
    load_client_lists();
}

UdpListener& start_replay_to_one_client() {
    static auto* const client = new UdpListener;
    socket_startup();
    create_main_window();
    build_main_menu();
    create_dashboard();
    replay_init();
    add_client("127.0.0.1", client->port(), nullptr, nullptr);
    refresh_snapshot();
    return *client;
}

} // namespace norvanta::testing
