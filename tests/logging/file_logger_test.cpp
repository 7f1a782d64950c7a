#include <vlk/logging/file_logger.hpp>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include <vlk/catalogue/errors.hpp>

#include "scratch_directory.hpp"

namespace {

using vlk::target_config;
using vlk::_file_logger_detail::file_logger_impl;
namespace fs = std::filesystem;
using vlk_test::readFile;
using vlk_test::writeFile;
using FileLogger = vlk_test::scratch_directory;

struct made {
    vlk::base::shared_pointer<vlk::velk_logger::logger> target;
    file_logger_impl& impl() const { return static_cast<file_logger_impl&>(*target.get()); }
    void log(const std::string& line) const {
        target->log(vlk::errors::E000001, line.data(), line.size());
    }
};

made make(target_config config) {
    config["Level"] = std::string("info");
    return {vlk::file_logger::factory(config)};
}

std::int64_t coarseSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

TEST_F(FileLogger, DefaultPatternsCarryTheCountOnlyWithAThreshold) {
    const char* const cases[][3] = {// threshold, pattern, name ending
                                    {"", "%Y-%m-%dT%H:%M:%S.log", ".log"},
                                    {"lots", "%Y-%m-%dT%H:%M:%S.log", ".log"},
                                    {"2k", "%Y-%m-%dT%H:%M:%S-%n.log", "-00000.log"}};
    for (const auto& [threshold, pattern, ending] : cases) {
        made file = make({{"RotationThreshold", {threshold}}});
        ASSERT_TRUE(file.target->init()) << threshold;
        EXPECT_EQ(file.impl()._fileNamePattern, pattern);
        EXPECT_EQ(file.impl()._rotationThreshold, *threshold == '2' ? 2048u : ~0ull);
        EXPECT_TRUE(file.impl()._currentFileName.ends_with(ending)) << file.impl()._currentFileName;
        EXPECT_EQ(file.impl()._currentFileName.size(), 19 + std::string(ending).size());
        file.target->shutdown();
    }
}

TEST_F(FileLogger, CountInNameGoesOnAcrossFailedRotations) {
    fs::create_directory("a-00002.log");  // the third open fails
    made file = make({{"RotationThreshold", {"0"}}, {"FileName", {"a-%n.log"}}});
    ASSERT_TRUE(file.target->init());
    for (char record : {'0', '1', '2', '3'}) {
        file.log(std::string("record ") + record + "\n");  // a threshold of 0 rotates every time
    }
    file.target->flush();
    EXPECT_EQ(readFile("a-00000.log"), "record 0\n");
    EXPECT_EQ(readFile("a-00001.log"), "record 1\n");
    EXPECT_EQ(readFile("a-00003.log"), "record 2\n");
    EXPECT_EQ(readFile("a-00004.log"), "record 3\n");
    vlk::file_logging_info info;
    ASSERT_TRUE(file.target->getFileLoggerInfo(info));
    EXPECT_EQ(info.rotationCount, 5u);
    EXPECT_EQ(info.fileName, "a-00004.log");
    EXPECT_EQ(info.fileNamePattern, "a-%n.log");
    EXPECT_EQ(info.bytesWritten, 9u);

    file.impl()._rotationCount = 100000;
    file.target->rotate();  // on request, whatever the size
    EXPECT_EQ(file.impl()._currentFileName, "a-100000.log");
    file.target->shutdown();

    made lineFeed = make({{"FileName", {"x\ny-%n.log"}}});  // a line feed is a number too
    ASSERT_TRUE(lineFeed.target->init());
    EXPECT_EQ(lineFeed.impl()._currentFileName, "x00000y-00000.log");
    lineFeed.target->shutdown();
}

TEST_F(FileLogger, SizeRotationPassesTheThresholdByOneRecordThenEmptiesTheSameName) {
    made file = make({{"RotationThreshold", {"1000"}}, {"FileName", {"a.log"}}});
    ASSERT_TRUE(file.target->init());
    const std::string record = std::string(99, 'r') + "\n";
    for (int i = 0; i < 11; ++i) {
        file.log(record);
    }
    file.target->flush();
    EXPECT_EQ(fs::file_size("a.log"), 1100u);
    file.log(record);
    file.target->flush();
    EXPECT_EQ(readFile("a.log"), record);
    EXPECT_EQ(file.impl()._bytesWritten, 100u);
    file.target->rotate();
    EXPECT_EQ(fs::file_size("a.log"), 0u);
    file.target->shutdown();
}

TEST_F(FileLogger, AppendsToAnExistingFileAndFilters) {
    writeFile("a.log", "old line\n");
    made file = make({{"FileName", {"a.log"}}, {"ExcludeErrors", {"00-0001"}}});
    ASSERT_TRUE(file.target->init());
    EXPECT_EQ(file.impl()._bytesWritten, 9u);
    file.log("excluded\n");
    file.target->log(vlk::errors::E000046, "kept\n", 5);
    file.target->shutdown();
    EXPECT_EQ(readFile("a.log"), "old line\nkept\n");
    EXPECT_EQ(file.impl()._bytesWritten, 0u);

    // Already over the threshold at init: the first record starts it over.
    made over = make({{"RotationThreshold", {"4"}}, {"FileName", {"a.log"}}});
    ASSERT_TRUE(over.target->init());
    over.log("new\n");
    over.target->shutdown();
    EXPECT_EQ(readFile("a.log"), "new\n");
}

TEST_F(FileLogger, LinesAreDroppedWhileTheSameNameCannotBeReopened) {
    made file = make({{"RotationThreshold", {"0"}}, {"FileName", {"a.log"}}});
    ASSERT_TRUE(file.target->init());
    file.log("first\n");
    fs::remove("a.log");
    fs::create_directory("a.log");
    file.log("lost\n");
    EXPECT_EQ(file.impl()._file, nullptr);
    file.log("lost too\n");
    file.target->flush();
    fs::remove("a.log");
    file.target->rotate();
    file.log("back\n");
    file.target->shutdown();
    EXPECT_EQ(readFile("a.log"), "back\n");
}

TEST_F(FileLogger, InitFailsWhenNoFileCanBeOpened) {
    writeFile("plain", "x");
    for (const char* name : {"plain/x.log", "bad dir/x.log", "."}) {
        made file = make({{"FileName", {name}}});
        EXPECT_FALSE(file.target->init()) << name;
    }
    EXPECT_FALSE(fs::exists("bad dir"));
}

TEST_F(FileLogger, FullDeviceDropsLinesAndSuspendsWriting) {
    made file = make({{"FileName", {"/dev/full"}}});
    ASSERT_TRUE(file.target->init());
    const std::string record = std::string(99, 'r') + "\n";
    const std::int64_t before = coarseSeconds();
    for (int i = 0; i < 100 && !file.impl()._diskFull; ++i) {
        file.log(record);  // the stream's buffer fills, then its write fails
    }
    ASSERT_TRUE(file.impl()._diskFull);
    EXPECT_GE(file.impl()._lastSpaceCheck, before);
    EXPECT_LE(file.impl()._lastSpaceCheck, coarseSeconds());
    const std::uint64_t written = file.impl()._bytesWritten;
    EXPECT_LT(written, 100u * record.size());
    file.log(record);
    file.target->flush();
    EXPECT_EQ(file.impl()._bytesWritten, written);
    file.target->shutdown();
}

// Fills a small tmpfs, frees it, and moves the last look at free space back
// instead of waiting for the clock.
TEST_F(FileLogger, FullFileSystemDropsLinesUntilSpaceIsFreed) {
    const std::string mountPoint = _root + "/mnt";
    fs::create_directory(mountPoint);
    if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    struct unmount {
        std::string path;
        ~unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmountAtEnd{mountPoint};
    writeFile(mountPoint + "/filler", std::string(64 * 1024, 'f'));  // cut short by ENOSPC
    ASSERT_GT(fs::file_size(mountPoint + "/filler"), 0u);

    made file = make({{"FileName", {mountPoint + "/a.log"}}});
    ASSERT_TRUE(file.target->init());
    const std::string record = std::string(99, 'r') + "\n";
    for (int i = 0; i < 100 && !file.impl()._diskFull; ++i) {
        file.log(record);
    }
    ASSERT_TRUE(file.impl()._diskFull);
    const std::uint64_t written = file.impl()._bytesWritten;

    file.impl()._lastSpaceCheck -= 6;  // looks, finds no space, looks again later
    file.log(record);
    EXPECT_GE(file.impl()._lastSpaceCheck, coarseSeconds() - 1);
    EXPECT_TRUE(file.impl()._diskFull);

    fs::remove(mountPoint + "/filler");
    // Five seconds after the last look the line goes without a look. Starting
    // just after a clock second keeps the check within that second.
    for (const std::int64_t start = coarseSeconds(); coarseSeconds() == start;) {
        ::usleep(1000);
    }
    file.impl()._lastSpaceCheck = coarseSeconds() - 5;
    file.log(record);
    EXPECT_TRUE(file.impl()._diskFull);
    EXPECT_EQ(file.impl()._bytesWritten, written);

    file.impl()._lastSpaceCheck = coarseSeconds() - 6;
    file.log("resumed\n");
    file.target->flush();
    EXPECT_FALSE(file.impl()._diskFull);
    EXPECT_EQ(file.impl()._bytesWritten, written + 8);
    EXPECT_TRUE(readFile(mountPoint + "/a.log").ends_with("resumed\n"));
    file.target->shutdown();
}

}  // namespace
