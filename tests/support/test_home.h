// A private NORVANTA_HOME for a test: a fresh temporary directory that is
// removed afterwards, so that no test reads or writes a real home.
#pragma once

#include <string>

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

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);

} // namespace norvanta::testing
