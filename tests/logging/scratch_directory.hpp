// Test support for the file-writing targets: each test runs in a fresh
// temporary directory made the current one, and undone afterwards.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/errors.hpp>
#include <vlk/logging/target.hpp>

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

// A tmpfs of `size` mounted at `path` (made here) for as long as this
// lives, for a real full disk; `mounted` is false where no mount is allowed.
struct small_tmpfs {
    small_tmpfs(const std::string& path, const char* size) : path(path) {
        fs::create_directory(path);
        mounted = ::mount("tmpfs", path.c_str(), "tmpfs", 0, size) == 0;
    }
    ~small_tmpfs() {
        if (mounted) {
            ::umount2(path.c_str(), MNT_DETACH);
        }
    }
    std::string path;
    bool mounted = false;
};

// A target made by `factory` at level info, with its implementation at hand.
template <typename Impl, auto factory>
struct made_target {
    static made_target make(vlk::target_config config) {
        config["Level"] = std::string("info");
        return {factory(config)};
    }
    Impl& impl() const { return static_cast<Impl&>(*target.get()); }
    void log(const std::string& line) const {
        target->log(vlk::errors::E000001, line.data(), line.size());
    }
    vlk::base::shared_pointer<vlk::velk_logger::logger> target;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

}  // namespace vlk_test
