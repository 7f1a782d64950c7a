// Test support for the file-writing targets: each test runs in a fresh
// temporary directory made the current one, and undone afterwards; and the
// tests that the plain and the gzip target pass alike, instantiated by each
// target's own test with a kind that says how to make and read its files.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

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
        ::umount2((_root + "/mnt").c_str(), MNT_DETACH);  // where a test mounted a small disk
        std::error_code ignored;
        fs::remove_all(_root, ignored);
    }

    const fs::path _previous = fs::current_path();
    std::string _root;
};

// A target made by `factory` at level info, with its implementation at hand.
template <typename Impl, auto factory>
struct made_target {
    static made_target make(vlk::target_config config) {
        config["Level"] = std::string("info");
        return {factory(config)};
    }
    // Made and opened, which must succeed.
    static made_target opened(vlk::target_config config) {
        made_target made = make(std::move(config));
        EXPECT_TRUE(made.target->init());
        return made;
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

inline std::int64_t coarseSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

// Lines of 38 bytes of hexadecimal noise, which compresses to about half,
// flushed every 20 lines as the logging thread does after each pass, while
// `more` holds; returns what was logged.
template <typename Made, typename More>
std::string logNoise(const Made& file, More more) {
    std::mt19937_64 random(7);
    std::string all;
    for (int i = 0; more(i); ++i) {
        char line[64];
        std::snprintf(line, sizeof line, "%04d %016lx%016lx\n", i, random(), random());
        all += line;
        file.log(line);
        if (i % 20 == 19) {
            file.target->flush();
        }
    }
    return all;
}

}  // namespace vlk_test

// Kind: `made`, the made_target; `extension`; `read(path)`, the text a
// reader gets back; `suspended(made)`, whether writing waits for space.
template <typename Kind>
class FileTarget : public vlk_test::scratch_directory {};
TYPED_TEST_SUITE_P(FileTarget);

TYPED_TEST_P(FileTarget, AFailedOpenLeavesTheOldFileInUseAndIsTriedAgainASecondLater) {
    const std::string extension = TypeParam::extension;
    std::filesystem::create_directory("n-00001" + extension);  // the next file cannot be made
    const auto stuck =
        TypeParam::made::opened({{"RotationThreshold", {"0"}}, {"FileName", {"n-%n" + extension}}});
    for (const char* line : {"six\n", "seven\n", "eight\n", "nine\n"}) {
        stuck.log(line);  // one try within the second, and the old file keeps the lines
        stuck.target->flush();
    }
    EXPECT_EQ(stuck.impl()._rotationCount, 2u);
    stuck.impl()._lastOpenTry -= 1'000'000'000;
    stuck.log("ten\n");  // a second later: one more try, and the next name opens
    EXPECT_EQ(stuck.impl()._rotationCount, 3u);
    stuck.target->shutdown();
    EXPECT_EQ(TypeParam::read("n-00000" + extension), "six\nseven\neight\nnine\n");
    EXPECT_EQ(TypeParam::read("n-00002" + extension), "ten\n");
}

// 3800 bytes are 100 plain lines: the plain file rotates past the threshold,
// not at it.
TYPED_TEST_P(FileTarget, EveryRecordComesBackAcrossSizeRotations) {
    const std::string pattern = std::string("g-%n") + TypeParam::extension;
    const auto file =
        TypeParam::made::opened({{"RotationThreshold", {"3800"}}, {"FileName", {pattern}}});
    const std::string all = vlk_test::logNoise(file, [](int i) { return i < 1200; });
    file.target->rotate();
    EXPECT_EQ(file.impl()._bytesWritten, 0u);
    file.target->shutdown();

    std::vector<std::filesystem::path> names(std::filesystem::directory_iterator("."), {});
    std::sort(names.begin(), names.end());  // the count's digits sort them in order
    ASSERT_GE(names.size(), 4u);
    std::string back;
    for (std::size_t i = 0; i < names.size(); ++i) {
        back += TypeParam::read(names[i]);
        if (i + 2 < names.size()) {  // all but the one in use and the one opened on request
            EXPECT_GT(std::filesystem::file_size(names[i]), 3800u) << names[i];
            EXPECT_LT(std::filesystem::file_size(names[i]), 3800u + 1024u)
                << names[i];  // one pass more
        }
    }
    EXPECT_EQ(back, all);
}

// A real full disk, a small tmpfs; moves the last look at free space back
// instead of waiting for the clock.
TYPED_TEST_P(FileTarget, AFullDiskDropsLinesUntilThereIsRoomAndThenSaysHowMany) {
    const std::string disk = this->_root + "/mnt";
    std::filesystem::create_directory(disk);
    if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    vlk_test::writeFile(disk + "/filler", std::string(60 * 1024, 'f'));  // a page is left
    const std::string path = disk + "/a" + TypeParam::extension;
    const auto file = TypeParam::made::opened({{"FileName", {path}}});
    const std::string all =
        vlk_test::logNoise(file, [&](int i) { return i < 2000 && !TypeParam::suspended(file); });
    ASSERT_TRUE(TypeParam::suspended(file));
    file.impl()._lastSpaceCheck -= 6;  // looks, finds no space: the next look is later
    file.log("dropped\n");
    EXPECT_GE(file.impl()._lastSpaceCheck, vlk_test::coarseSeconds() - 1);

    std::filesystem::remove(disk + "/filler");
    // Starting just after a clock second keeps this within that second.
    for (const std::int64_t start = vlk_test::coarseSeconds();
         vlk_test::coarseSeconds() == start;) {
        ::usleep(1000);
    }
    file.impl()._lastSpaceCheck = vlk_test::coarseSeconds() - 5;  // too early to look
    file.log("dropped\n");
    EXPECT_TRUE(TypeParam::suspended(file));
    file.impl()._lastSpaceCheck = vlk_test::coarseSeconds() - 6;
    file.log("resumed\n");
    file.target->shutdown();

    // Whole records, a cut one ended, then the notice counting the records
    // not wholly kept and the two dropped, then the line.
    const std::string text = TypeParam::read(path);
    const std::string kept = text.substr(0, text.find(" [0] developer: 00-0000 "));
    ASSERT_LT(kept.size(), text.size()) << text;
    EXPECT_EQ(kept, all.substr(0, kept.size() - 1) + "\n");
    const std::size_t lost = (all.size() - kept.size() + 37) / 38 + 2;
    EXPECT_EQ(text.substr(kept.size()), " [0] developer: 00-0000 " + std::to_string(lost) +
                                            " lines were dropped while " + path +
                                            " could not be written\nresumed\n");
}

REGISTER_TYPED_TEST_SUITE_P(FileTarget, EveryRecordComesBackAcrossSizeRotations,
                            AFailedOpenLeavesTheOldFileInUseAndIsTriedAgainASecondLater,
                            AFullDiskDropsLinesUntilThereIsRoomAndThenSaysHowMany);
