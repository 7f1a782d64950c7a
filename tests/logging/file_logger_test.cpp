#include <vlk/logging/file_logger.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>

#include "scratch_directory.hpp"

namespace {

namespace fs = std::filesystem;
using vlk_test::readFile;
using FileLogger = vlk_test::scratch_directory;

using made =
    vlk_test::made_target<vlk::_file_logger_detail::file_logger_impl, vlk::file_logger::factory>;
constexpr auto make = made::make;

std::int64_t coarseSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

const std::string record = std::string(99, 'r') + "\n";

TEST_F(FileLogger, CountInNameGoesOnAcrossFailedOpens) {
    for (const char* threshold : {"", "lots", "2k"}) {  // "%n" only with a threshold
        made file = make({{"RotationThreshold", {threshold}}});
        ASSERT_TRUE(file.target->init()) << threshold;
        EXPECT_EQ(file.impl()._currentFileName.substr(19),
                  *threshold == '2' ? "-00000.log" : ".log");
        EXPECT_EQ(file.impl()._rotationThreshold, *threshold == '2' ? 2048u : ~0ull);
        file.target->shutdown();
    }
    fs::create_directory("a-00002.log");  // the third open fails
    // A line feed in the pattern stands for the count, as "%n" does.
    made file = make({{"RotationThreshold", {"0"}}, {"FileName", {"a-\n.log"}}});
    ASSERT_TRUE(file.target->init());
    for (const char* line : {"0\n", "1\n", "2\n", "3\n", "4\n"}) {
        file.log(line);  // a threshold of 0 rotates before each record but the first
    }
    file.target->flush();
    // "2" found no new file and went on into the old one; "3" and "4" came
    // within the second after the failure, so nothing was tried for them.
    EXPECT_EQ(readFile("a-00001.log"), "1\n2\n3\n4\n");
    EXPECT_EQ(file.impl()._rotationCount, 3u);
    file.impl()._lastOpenTry -= 1'000'000'000;
    file.log("5\n");
    file.target->flush();
    EXPECT_EQ(readFile("a-00000.log") + readFile("a-00003.log"), "0\n5\n");
    vlk::file_logging_info info;
    ASSERT_TRUE(file.target->getFileLoggerInfo(info));
    EXPECT_EQ(info.rotationCount, 4u);
    EXPECT_EQ(info.fileName, "a-00003.log");
    file.impl()._rotationCount = 100000;
    file.target->rotate();
    EXPECT_EQ(file.impl()._currentFileName, "a-100000.log");
    file.target->shutdown();
}

// An existing file is appended to, a line cut in it by a crash or a full
// disk ended first; a rotation to the same name starts the file over.
TEST_F(FileLogger, SameNameIsAppendedToAtInitAndEmptiedByRotation) {
    vlk_test::writeFile("a.log", "whole\ncut");
    made file = make({{"FileName", {"a.log"}}, {"ExcludeErrors", {"00-0001"}}});
    ASSERT_TRUE(file.target->init());
    EXPECT_EQ(file.impl()._bytesWritten, 9u);  // the size it had
    file.log("excluded\n");
    file.target->log(vlk::errors::E000046, "kept\n", 5);
    file.target->log(vlk::errors::E000046, "after\n", 6);
    file.target->shutdown();
    EXPECT_EQ(readFile("a.log"), "whole\ncut\nkept\nafter\n");

    vlk_test::writeFile("a.log", std::string(1001, 'o'));
    made sized = make({{"RotationThreshold", {"1000"}}, {"FileName", {"a.log"}}});
    ASSERT_TRUE(sized.target->init());
    for (int i = 0; i < 11; ++i) {
        sized.log(record);  // the first starts the file over, past 1000 already
    }
    sized.target->flush();
    EXPECT_EQ(fs::file_size("a.log"), 1100u);
    sized.log(record);
    sized.target->flush();
    EXPECT_EQ(readFile("a.log"), record);
    sized.target->rotate();  // on request, whatever the size
    EXPECT_EQ(fs::file_size("a.log"), 0u);
    sized.target->shutdown();
}

TEST_F(FileLogger, UnopenableNamesFailInitOrDropLines) {
    vlk_test::writeFile("plain", "x");
    for (const char* name : {"plain/x.log", "bad dir/x.log", "."}) {
        EXPECT_FALSE(make({{"FileName", {name}}}).target->init()) << name;
    }
    EXPECT_FALSE(fs::exists("bad dir"));

    made file = make({{"RotationThreshold", {"0"}}, {"FileName", {"a.log"}}});
    ASSERT_TRUE(file.target->init());
    file.log("first\n");
    fs::remove("a.log");
    fs::create_directory("a.log");
    file.log("lost\n");  // the reopen fails and leaves no stream
    fs::remove("a.log");
    file.log("lost\n");  // within the second after the failure: not tried
    EXPECT_EQ(file.impl()._rotationCount, 2u);
    file.impl()._lastOpenTry -= 1'000'000'000;
    file.log("2026-11-22T11:59:29.3858940 back\n");  // tried again by the target itself
    file.target->flush();
    EXPECT_EQ(readFile("a.log"),
              "2026-11-22T11:59:29.3858940 [0] developer: 00-0000 2 lines were dropped while a.log "
              "could not be written\n2026-11-22T11:59:29.3858940 back\n");
    EXPECT_EQ(file.impl()._bytesWritten, fs::file_size("a.log"));
    file.log("more\n");  // size rotation works again
    file.target->shutdown();
    EXPECT_EQ(readFile("a.log"), "more\n");
}

// Moves the last look at free space back instead of waiting for the clock.
TEST_F(FileLogger, FullFileSystemDropsLinesUntilSpaceIsFreed) {
    const vlk_test::small_tmpfs disk(_root + "/mnt", "size=64k");
    if (!disk.mounted) {
        GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    const std::string& mountPoint = disk.path;
    vlk_test::writeFile(mountPoint + "/filler", std::string(60 * 1024, 'f'));  // a page is left

    made file = make({{"FileName", {mountPoint + "/a.log"}}});
    ASSERT_TRUE(file.target->init());
    for (int i = 0; i < 100 && !file.impl()._diskFull; ++i) {
        file.log(record);
        file.target->flush();  // the logger flushes after each pass
    }
    ASSERT_TRUE(file.impl()._diskFull);
    const std::uint64_t written = file.impl()._bytesWritten;
    file.impl()._lastSpaceCheck -= 6;  // looks, finds no space: the next look is later
    file.log(record);
    EXPECT_GE(file.impl()._lastSpaceCheck, coarseSeconds() - 1);

    fs::remove(mountPoint + "/filler");
    // Starting just after a clock second keeps this within that second.
    for (const std::int64_t start = coarseSeconds(); coarseSeconds() == start;) {
        ::usleep(1000);
    }
    file.impl()._lastSpaceCheck = coarseSeconds() - 5;  // too early to look
    file.log(record);
    EXPECT_TRUE(file.impl()._diskFull);
    EXPECT_EQ(file.impl()._bytesWritten, written);

    file.impl()._lastSpaceCheck = coarseSeconds() - 6;
    file.log("resumed\n");
    file.target->shutdown();
    EXPECT_FALSE(file.impl()._diskFull);
    // The cut record is ended, and no line merges with another.
    const std::string text = readFile(mountPoint + "/a.log");
    const std::string notice = " [0] developer: 00-0000 3 lines were dropped while " + mountPoint +
                               "/a.log could not be written\nresumed\n";
    EXPECT_TRUE(text.ends_with("r\n" + notice)) << text.substr(text.size() - 200);
}

}  // namespace
