// The program as its start-up leaves it, for tests that drive the shell
// through the headless window: a private home with a configuration of the
// test's choosing, the modules, the main window, its menu and the client
// lists.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/test_home.h"

namespace norvanta::testing {

class ProgramEnvironment : public ::testing::Environment {
  public:
    // configuration is the text of the configuration file; with_dashboard
    // also makes the Dashboard's controls.
    explicit ProgramEnvironment(std::string configuration, bool with_dashboard = false)
        : configuration_(std::move(configuration)), with_dashboard_(with_dashboard) {}
    void SetUp() override;
    void TearDown() override { home_.reset(); }

  private:
    std::string configuration_;
    bool with_dashboard_;
    std::unique_ptr<TestHome> home_;
};

class UdpListener;

// For tests of the replay on a store they made themselves: the sockets, the
// main window with its menu and Dashboard, and the replay engine, sending to
// one client of the process (the default clients are never loaded), which is
// returned.
UdpListener& start_replay_to_one_client();

// The environment of such tests: prepare makes the store, then the replay
// starts; client() is the one client.
class ReplayEnvironment : public ::testing::Environment {
  public:
    explicit ReplayEnvironment(void (*prepare)()) : prepare_(prepare) {}
    void SetUp() override {
        prepare_();
        client_ = &start_replay_to_one_client();
    }
    static UdpListener& client() { return *client_; }

  private:
    void (*prepare_)();
    static inline UdpListener* client_ = nullptr;
};

} // namespace norvanta::testing
