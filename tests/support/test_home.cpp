// Temporary homes and the small file helpers of the tests.
#include "support/test_home.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <gtest/gtest.h>

namespace norvanta::testing {

TestHome::TestHome() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "norvanta-test-XXXXXX").string();
    char* made = mkdtemp(pattern.data());
    if (!made) {
        ADD_FAILURE() << "cannot make a temporary directory from " << pattern;
        return;
    }
    path_ = std::string(made) + "/";
}

TestHome::~TestHome() {
    if (path_.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TestHome::make_current() const {
    setenv("NORVANTA_HOME", path_.c_str(), 1);
}

namespace {

class PrivateHome : public ::testing::Environment {
  public:
    void SetUp() override {
        home_ = std::make_unique<TestHome>();
        home_->make_current();
    }
    void TearDown() override { home_.reset(); }

  private:
    std::unique_ptr<TestHome> home_;
};

} // namespace

::testing::Environment* use_private_home_for_this_process() {
    // gtest owns and deletes the environment.
    static ::testing::Environment* const environment =
        ::testing::AddGlobalTestEnvironment(new PrivateHome);
    return environment;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

bool file_exists(const std::string& path) {
    return std::filesystem::exists(path);
}

} // namespace norvanta::testing
