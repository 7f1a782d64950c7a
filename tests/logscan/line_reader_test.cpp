#include "logscan.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace vlk::logscan;

struct collected : line_consumer {
    std::vector<std::string> lines;
    std::size_t cut = 0;
    void line(std::string_view text, bool terminated) override {
        lines.emplace_back(text);
        cut += terminated ? 0 : 1;
    }
};

class LineReader : public ::testing::Test {
  protected:
    void SetUp() override {
        _dir = std::filesystem::temp_directory_path() /
               ("logscan_reader_" + std::to_string(::getpid()));
        std::filesystem::create_directories(_dir);
        std::ofstream(path("lines")) << numbered(1, 20000);
        std::ofstream(path("more")) << numbered(20001, 30000);
    }
    void TearDown() override { std::filesystem::remove_all(_dir); }

    static std::string numbered(int first, int last) {
        std::string text;
        for (int i = first; i <= last; ++i) {
            text += "line " + std::to_string(i) + '\n';
        }
        return text;
    }
    std::string path(const char* name) const { return (_dir / name).string(); }
    void shell(const std::string& command) const {
        ASSERT_EQ(std::system(("cd " + _dir.string() + " && " + command).c_str()), 0) << command;
    }
    collected read(const char* name, read_problem& problem, std::size_t buffer = 1 << 20) const {
        collected sink;
        line_splitter splitter(buffer);
        const int fd = ::open(path(name).c_str(), O_RDONLY);
        readStream(fd, splitter, sink, problem);
        ::close(fd);
        return sink;
    }

    std::filesystem::path _dir;
};

// Every case made with the real gzip; lines must come out whole and in
// order, as far as the input allows, and a fault must be named.
TEST_F(LineReader, ReadsEveryMemberAndKeepsWhatPrecedesAFault) {
    shell("gzip -c lines >one.gz && gzip -c more >>two.gz && cat one.gz two.gz >multi.gz");
    shell("head -c $(( $(stat -c %s one.gz) - 2000 )) one.gz >cut.gz");
    // A second member whose header names no known compression method.
    shell("{ cat one.gz; printf '\\037\\213\\011\\000garbage'; } >bad.gz");
    shell("cat one.gz /dev/zero | head -c $(( $(stat -c %s one.gz) + 512 )) >padded.gz");
    shell("head -c -3 lines >unterminated");
    struct row {
        const char* file;
        std::size_t least, most;  // lines expected
        const char* problem;      // part of the message; "" for none
        std::size_t cut;          // unterminated lines handed over
    };
    const row rows[] = {
        {"lines", 20000, 20000, "", 0},          {"unterminated", 20000, 20000, "", 1},
        {"multi.gz", 30000, 30000, "", 0},       {"padded.gz", 20000, 20000, "", 0},
        {"cut.gz", 1000, 19999, "truncated", 1}, {"bad.gz", 20000, 20000, "corrupt", 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.file);
        read_problem problem;
        const collected got = read(r.file, problem);
        EXPECT_GE(got.lines.size(), r.least);
        EXPECT_LE(got.lines.size(), r.most);
        EXPECT_NE(problem.what.find(r.problem), std::string::npos) << problem.what;
        EXPECT_EQ(problem.what.empty(), *r.problem == '\0') << problem.what;
        EXPECT_LE(got.cut, r.cut);
        for (std::size_t i = 0; i + got.cut < got.lines.size(); ++i) {
            ASSERT_EQ(got.lines[i], "line " + std::to_string(i + 1));
        }
    }
}

// A line longer than the buffer stands as its head; the next line is whole.
TEST_F(LineReader, CutsOverlongLinesToTheirHead) {
    std::ofstream(path("long")) << std::string(3 << 20, 'y') << "\nafter\n"
                                << std::string(100, 'z');
    read_problem problem;
    const collected got = read("long", problem, 1 << 20);
    ASSERT_EQ(got.lines.size(), 3U);
    EXPECT_EQ(got.lines[0], std::string(1 << 20, 'y'));
    EXPECT_EQ(got.lines[1], "after");
    EXPECT_EQ(got.lines[2], std::string(100, 'z'));
    EXPECT_EQ(got.cut, 1U);
}

}  // namespace
