#include "logscan.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
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

// Made with the real gzip: the lines before a fault come out whole and in
// order, and the fault is named. Plain files, joined members, a cut stream
// and lines longer than the buffer are read end to end by logscan_test.sh.
TEST(LineReader, ReadsEveryMemberAndKeepsWhatPrecedesAFault) {
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("logscan_reader_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const char* commands[] = {
        "seq -f 'line %.0f' 20000 | gzip -c >one.gz",
        "cat one.gz /dev/zero | head -c $(( $(stat -c %s one.gz) + 512 )) >padded.gz",
        // A second member whose header names no known compression method.
        "{ cat one.gz; printf '\\037\\213\\011\\000garbage'; } >bad.gz",
    };
    for (const char* command : commands) {
        ASSERT_EQ(std::system(("cd " + dir.string() + " && " + command).c_str()), 0) << command;
    }
    const std::pair<const char*, const char*> rows[] = {{"padded.gz", ""}, {"bad.gz", "corrupt"}};
    for (const auto& [file, expected] : rows) {
        SCOPED_TRACE(file);
        collected got;
        line_splitter splitter;
        read_problem problem;
        const int fd = ::open((dir / file).c_str(), O_RDONLY);
        readStream(fd, splitter, got, problem);
        ::close(fd);
        EXPECT_NE(problem.what.find(expected), std::string::npos) << problem.what;
        EXPECT_EQ(problem.what.empty(), *expected == '\0') << problem.what;
        ASSERT_EQ(got.lines.size(), 20000U);
        EXPECT_EQ(got.cut, 0U);
        for (std::size_t i = 0; i < got.lines.size(); ++i) {
            ASSERT_EQ(got.lines[i], "line " + std::to_string(i + 1));
        }
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
