#include <vlk/logging/gzip_logger.hpp>

#include <gtest/gtest.h>

#include <cstdlib>

#include "file_target_suite.hpp"

namespace {

namespace fs = std::filesystem;
using GzipLogger = vlk_test::scratch_directory;

using made =
    vlk_test::made_target<vlk::_gzip_logger_detail::gzip_logger_impl, vlk::gzip_logger::factory>;
constexpr auto opened = made::opened;

// What the gzip program reads from `path`, also from a file still being
// written, whose end it reports as missing.
std::string gunzip(const std::string& path) {
    EXPECT_NE(std::system(("gzip -dc '" + path + "' >gunzipped 2>/dev/null").c_str()), -1);
    return vlk_test::readFile("gunzipped");
}

struct gzip_kind {
    using made = ::made;
    static constexpr const char* extension = ".log.gz";
    // What the gzip program reads from a file written to its end, which it
    // must accept as whole.
    static std::string read(const std::string& path) {
        EXPECT_EQ(std::system(("gzip -t '" + path + "'").c_str()), 0) << path;
        return gunzip(path);
    }
    static bool suspended(const made& file) { return file.impl()._writeFailed; }
};
INSTANTIATE_TYPED_TEST_SUITE_P(GzipLogger, FileTarget, gzip_kind);

TEST_F(GzipLogger, SyncFlushAndRestartKeepEveryRecordReadable) {
    made first = opened({{"FileName", {"r.log.gz"}}});
    first.log("one\n");
    first.log("two\n");
    EXPECT_EQ(gunzip("r.log.gz"), "");  // still in zlib's buffers
    first.target->flush();
    EXPECT_EQ(gunzip("r.log.gz"), "one\ntwo\n");
    first.target->shutdown();

    // A process killed after a pass leaves its member without a trailer,
    // here with a cut line: both are ended before a new member follows.
    made killed = opened({{"FileName", {"k.log.gz"}}});
    killed.log("whole\n");
    killed.log("cut");
    killed.target->flush();
    fs::copy_file("k.log.gz", "left.log.gz");
    killed.target->shutdown();
    for (const char* name : {"left.log.gz", "r.log.gz"}) {  // the second: a second gzip member
        made restarted = opened({{"FileName", {name}}});
        restarted.log("next\n");
        restarted.target->shutdown();
    }
    EXPECT_EQ(gzip_kind::read("left.log.gz"), "whole\ncut\nnext\n");
    EXPECT_EQ(gzip_kind::read("r.log.gz"), "one\ntwo\nnext\n");

    made same = opened({{"RotationThreshold", {"10"}}, {"FileName", {"r.log.gz"}}});
    same.log("four\n");  // counts the whole file, which it appends to
    same.target->flush();
    same.log("five\n");  // the same name again is started over
    same.target->shutdown();
    EXPECT_EQ(gunzip("r.log.gz"), "five\n");

    vlk_test::writeFile("plain", "x");
    made unopenable = made::make({{"FileName", {"plain/x.log.gz"}}});
    EXPECT_FALSE(unopenable.target->init());
    made numbered = made::make({{"RotationThreshold", {"1M"}}});
    EXPECT_EQ(numbered.impl()._fileNamePattern, "%Y-%m-%dT%H:%M:%S-%n.log.gz");
}

}  // namespace
