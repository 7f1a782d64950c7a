#include <vlk/logging/file_logger.hpp>

#include <gtest/gtest.h>

#include "file_target_suite.hpp"

namespace {

namespace fs = std::filesystem;
using vlk_test::readFile;
using FileLogger = vlk_test::scratch_directory;

using made =
    vlk_test::made_target<vlk::_file_logger_detail::file_logger_impl, vlk::file_logger::factory>;
constexpr auto opened = made::opened;

struct file_kind {
    using made = ::made;
    static constexpr const char* extension = ".log";
    static std::string read(const std::string& path) { return readFile(path); }
    static bool suspended(const made& file) { return file.impl()._diskFull; }
};
INSTANTIATE_TYPED_TEST_SUITE_P(FileLogger, FileTarget, file_kind);

TEST_F(FileLogger, CountInNameFollowsTheThresholdAndWidensPastFiveDigits) {
    for (const char* threshold : {"", "lots", "2k"}) {  // "%n" only with a threshold
        made file = opened({{"RotationThreshold", {threshold}}});
        EXPECT_EQ(file.impl()._currentFileName.substr(19),
                  *threshold == '2' ? "-00000.log" : ".log");
        file.target->shutdown();
    }
    // A line feed in the pattern stands for the count, as "%n" does.
    made file = opened({{"RotationThreshold", {"0"}}, {"FileName", {"a-\n.log"}}});
    file.log("0\n");
    file.log("1\n");  // a threshold of 0 rotates before each record but the first
    vlk::file_logging_info info;
    ASSERT_TRUE(file.target->getFileLoggerInfo(info));
    EXPECT_EQ(info.rotationCount, 2u);
    EXPECT_EQ(info.fileName, "a-00001.log");
    file.impl()._rotationCount = 100000;
    file.target->rotate();
    EXPECT_EQ(file.impl()._currentFileName, "a-100000.log");
    file.target->shutdown();
}

// An existing file is appended to, a line cut in it by a crash or a full
// disk ended first; a rotation to the same name starts the file over.
TEST_F(FileLogger, SameNameIsAppendedToAtInitAndEmptiedByRotation) {
    vlk_test::writeFile("a.log", "whole\ncut");
    made file = opened({{"FileName", {"a.log"}}, {"ExcludeErrors", {"00-0001"}}});
    file.log("excluded\n");
    file.target->log(vlk::errors::E000046, "kept\n", 5);
    file.target->log(vlk::errors::E000046, "after\n", 6);
    file.target->shutdown();
    EXPECT_EQ(readFile("a.log"), "whole\ncut\nkept\nafter\n");

    vlk_test::writeFile("a.log", std::string(1001, 'o'));
    made sized = opened({{"RotationThreshold", {"1000"}}, {"FileName", {"a.log"}}});
    sized.log("record\n");  // counted with its 1001 bytes, past 1000: the file is started over
    sized.target->flush();
    EXPECT_EQ(readFile("a.log"), "record\n");
    sized.target->rotate();  // on request, whatever the size
    EXPECT_EQ(fs::file_size("a.log"), 0u);
    sized.target->shutdown();
}

TEST_F(FileLogger, UnopenableNamesFailInitOrDropLines) {
    vlk_test::writeFile("plain", "x");
    for (const char* name : {"plain/x.log", "bad dir/x.log", "."}) {
        EXPECT_FALSE(made::make({{"FileName", {name}}}).target->init()) << name;
    }
    EXPECT_FALSE(fs::exists("bad dir"));

    made file = opened({{"RotationThreshold", {"0"}}, {"FileName", {"a.log"}}});
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

}  // namespace
