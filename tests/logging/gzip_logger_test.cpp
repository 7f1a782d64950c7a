#include <vlk/logging/gzip_logger.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "scratch_directory.hpp"

namespace {

namespace fs = std::filesystem;
using GzipLogger = vlk_test::scratch_directory;

using made =
    vlk_test::made_target<vlk::_gzip_logger_detail::gzip_logger_impl, vlk::gzip_logger::factory>;
constexpr auto make = made::make;

// What the gzip program reads from `path`, also from a file still being
// written, whose end it reports as missing.
std::string gunzip(const std::string& path) {
    std::string text;
    FILE* pipe = ::popen(("gzip -dc '" + path + "' 2>/dev/null").c_str(), "r");
    char buffer[4096];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        text.append(buffer, got);
    }
    ::pclose(pipe);
    return text;
}

// Lines of hexadecimal noise, which compresses to about half, flushed every
// 20 lines as the logging thread does after each pass, while `more` holds;
// returns what was logged.
template <typename More>
std::string logNoise(const made& file, More more) {
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

TEST_F(GzipLogger, EveryRecordComesBackAcrossSizeRotations) {
    made file = make({{"RotationThreshold", {"4k"}}, {"FileName", {"g-%n.log.gz"}}});
    ASSERT_TRUE(file.target->init());
    const std::string all = logNoise(file, [](int i) { return i < 600; });
    file.target->rotate();
    EXPECT_EQ(file.impl()._bytesWritten, 0u);
    file.target->shutdown();

    std::vector<fs::path> names(fs::directory_iterator("."), {});
    std::sort(names.begin(), names.end());  // the count's digits sort them in order
    ASSERT_GE(names.size(), 4u);
    std::string back;
    for (std::size_t i = 0; i < names.size(); ++i) {
        back += gunzip(names[i]);
        if (i + 2 < names.size()) {  // all but the one in use and the one opened on request
            EXPECT_GT(fs::file_size(names[i]), 4096u) << names[i];
            EXPECT_LT(fs::file_size(names[i]), 4096u + 1024u) << names[i];  // one pass more
        }
    }
    EXPECT_EQ(back, all);
}

TEST_F(GzipLogger, SyncFlushAndRestartKeepEveryRecordReadable) {
    made first = make({{"FileName", {"r.log.gz"}}});
    ASSERT_TRUE(first.target->init());
    first.log("one\n");
    first.log("two\n");
    EXPECT_EQ(gunzip("r.log.gz"), "");  // still in zlib's buffers
    first.target->flush();
    EXPECT_EQ(gunzip("r.log.gz"), "one\ntwo\n");
    first.target->shutdown();

    // A process killed after a pass leaves its member without a trailer,
    // here with a cut line: both are ended before a new member follows.
    made killed = make({{"FileName", {"k.log.gz"}}});
    ASSERT_TRUE(killed.target->init());
    killed.log("whole\n");
    killed.log("cut");
    killed.target->flush();
    fs::copy_file("k.log.gz", "left.log.gz");
    killed.target->shutdown();
    for (const char* name : {"left.log.gz", "r.log.gz"}) {  // the second: a second gzip member
        made restarted = make({{"FileName", {name}}});
        ASSERT_TRUE(restarted.target->init());
        restarted.log("next\n");
        restarted.target->shutdown();
        EXPECT_EQ(std::system(("gzip -t " + std::string(name)).c_str()), 0);
    }
    EXPECT_EQ(gunzip("left.log.gz"), "whole\ncut\nnext\n");
    EXPECT_EQ(gunzip("r.log.gz"), "one\ntwo\nnext\n");

    made same = make({{"RotationThreshold", {"10"}}, {"FileName", {"r.log.gz"}}});
    ASSERT_TRUE(same.target->init());
    same.log("four\n");  // counts the whole file, which it appends to
    same.target->flush();
    same.log("five\n");  // the same name again is started over
    same.target->shutdown();
    EXPECT_EQ(gunzip("r.log.gz"), "five\n");

    fs::create_directory("n-00001.log.gz");  // the next file cannot be made
    made stuck = make({{"RotationThreshold", {"0"}}, {"FileName", {"n-%n.log.gz"}}});
    ASSERT_TRUE(stuck.target->init());
    for (const char* line : {"six\n", "seven\n", "eight\n", "nine\n"}) {
        stuck.log(line);  // one try within the second, and the old file keeps the lines
        stuck.target->flush();
    }
    EXPECT_EQ(stuck.impl()._rotationCount, 2u);
    stuck.impl()._lastOpenTry -= 1'000'000'000;
    stuck.log("ten\n");  // a second later: one more try, and the next name opens
    EXPECT_EQ(stuck.impl()._rotationCount, 3u);
    stuck.target->shutdown();
    EXPECT_EQ(gunzip("n-00000.log.gz"), "six\nseven\neight\nnine\n");
    EXPECT_EQ(gunzip("n-00002.log.gz"), "ten\n");

    vlk_test::writeFile("plain", "x");
    made unopenable = make({{"FileName", {"plain/x.log.gz"}}});
    EXPECT_FALSE(unopenable.target->init());
    EXPECT_EQ(unopenable.impl()._bytesWritten, ~0ull);  // zlib's -1 for no file
    made numbered = make({{"RotationThreshold", {"1M"}}});
    EXPECT_EQ(numbered.impl()._fileNamePattern, "%Y-%m-%dT%H:%M:%S-%n.log.gz");
}

// A full disk breaks the member being written; once there is room again it
// is finished at its last sync flush and writing goes on in a new member.
TEST_F(GzipLogger, FullDiskResumesInANewMemberThatGzipAccepts) {
    const vlk_test::small_tmpfs disk(_root + "/mnt", "size=64k");
    if (!disk.mounted) {
        GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    vlk_test::writeFile(disk.path + "/filler", std::string(60 * 1024, 'f'));
    made file = make({{"FileName", {disk.path + "/g.log.gz"}}});
    ASSERT_TRUE(file.target->init());
    const std::string all =
        logNoise(file, [&](int i) { return i < 2000 && !file.impl()._writeFailed; });
    ASSERT_TRUE(file.impl()._writeFailed);
    file.log("dropped\n");
    fs::remove(disk.path + "/filler");
    file.impl()._lastSpaceCheck -= 6;
    file.log("resumed\n");
    file.target->shutdown();

    EXPECT_EQ(std::system(("gzip -t " + disk.path + "/g.log.gz").c_str()), 0);
    const std::string text = gunzip(disk.path + "/g.log.gz");
    const std::size_t kept = text.find(" [0] developer: 00-0000 ");
    ASSERT_NE(kept, std::string::npos) << text;
    // Whole records, then the notice at the start of a line, then the line.
    EXPECT_EQ(text.substr(0, kept), all.substr(0, kept));
    const std::uint64_t lost = all.size() / 38 - kept / 38 + 1;
    EXPECT_EQ(text.substr(kept), " [0] developer: 00-0000 " + std::to_string(lost) +
                                     " lines were dropped while " + disk.path +
                                     "/g.log.gz could not be written\nresumed\n");
}

}  // namespace
