// A private NORVANTA_HOME for a test: a fresh temporary directory that is
// removed afterwards, so that no test reads or writes a real home.
#pragma once

#include <string>

#include <gtest/gtest.h>

namespace norvanta::testing {

class TestHome {
  public:
    TestHome();
    ~TestHome();
    TestHome(const TestHome&) = delete;
    TestHome& operator=(const TestHome&) = delete;

    const std::string& path() const { return path_; } // ends in '/'
    std::string file(const std::string& name) const { return path_ + name; }
    // Sets NORVANTA_HOME for this process (children inherit it).
    void make_current() const;

  private:
    std::string path_;
};

// Registers, once per process, a gtest environment that gives the whole test
// program a private home before the first test. The configuration, directories
// and log are formed once, at whatever first asks, so call it at namespace scope
// ahead of the file's own environments:
//   [[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();
::testing::Environment* use_private_home_for_this_process();

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);

} // namespace norvanta::testing
