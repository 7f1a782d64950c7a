// Test support for the file-writing targets: each test runs in a fresh
// temporary directory made the current one, and undone afterwards.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <vlk/catalogue/error_manager.hpp>

namespace vlk_test {

namespace fs = std::filesystem;

class scratch_directory : public testing::Test {
  protected:
    static void SetUpTestSuite() { vlk::error_manager::init(); }
    void SetUp() override {
        std::string pattern = "/tmp/vlk_log_XXXXXX";  // no characters a log path refuses
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        _root = pattern;
        fs::current_path(_root);
    }
    void TearDown() override {
        fs::current_path(_previous);
        std::error_code ignored;
        fs::remove_all(_root, ignored);
    }

    const fs::path _previous = fs::current_path();
    std::string _root;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

}  // namespace vlk_test
