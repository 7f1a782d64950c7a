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
        std::ofstream lines(path("lines"));
        for (int i = 1; i <= 20000; ++i) {
            lines << "line " << i << '\n';
        }
    }
    void TearDown() override { std::filesystem::remove_all(_dir); }

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

// Made with the real gzip: the lines before a fault come out whole and in
// order, and the fault is named. Plain files, joined members and a cut
// stream are read end to end by logscan_test.sh.
TEST_F(LineReader, ReadsEveryMemberAndKeepsWhatPrecedesAFault) {
    shell("gzip -c lines >one.gz");
    shell("cat one.gz /dev/zero | head -c $(( $(stat -c %s one.gz) + 512 )) >padded.gz");
    // A second member whose header names no known compression method.
    shell("{ cat one.gz; printf '\\037\\213\\011\\000garbage'; } >bad.gz");
    const std::pair<const char*, const char*> rows[] = {{"padded.gz", ""}, {"bad.gz", "corrupt"}};
    for (const auto& [file, expected] : rows) {
        SCOPED_TRACE(file);
        read_problem problem;
        const collected got = read(file, problem);
        EXPECT_NE(problem.what.find(expected), std::string::npos) << problem.what;
        EXPECT_EQ(problem.what.empty(), *expected == '\0') << problem.what;
        ASSERT_EQ(got.lines.size(), 20000U);
        EXPECT_EQ(got.cut, 0U);
        for (std::size_t i = 0; i < got.lines.size(); ++i) {
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
