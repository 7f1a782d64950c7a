// End-to-end tests of the velkmsg command line.
//
// The binary is started with posix_spawn, argv built exactly and no shell, and
// its standard output, standard error and exit status are compared byte for
// byte. Most expectations come from the golden directory, which
// scripts/report_model.py writes from its own model of the catalogue and its
// hash map; the rest (usage, wrong argument counts, very long and invalid
// patterns) are spelled out here.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace {

const std::string g_goldenDir = VLK_TEST_DATA_DIR "/golden";

struct run_result {
    std::string out;
    std::string err;
    int status = -1;  // exit status, or minus the signal number
};

// Runs velkmsg with exactly `argv` (argv[0] included) and collects both
// streams. The streams are drained together so that a large report cannot
// fill one pipe while the other is being read.
run_result runVelkmsg(const std::vector<std::string>& argv) {
    run_result result;
    int outPipe[2];
    int errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << std::strerror(errno);
        return result;
    }

    std::vector<std::string> storage(argv);
    std::vector<char*> args;
    for (std::string& arg : storage) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    pid_t pid = 0;
    const int spawned =
        posix_spawn(&pid, VLK_VELKMSG_PATH, &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    if (spawned != 0) {
        ADD_FAILURE() << "posix_spawn " << VLK_VELKMSG_PATH << ": " << std::strerror(spawned);
        close(outPipe[0]);
        close(errPipe[0]);
        return result;
    }

    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    char buffer[65536];
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            ADD_FAILURE() << "poll: " << std::strerror(errno);
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (const pollfd& fd : fds) {
        if (fd.fd >= 0) {
            close(fd.fd);
        }
    }

    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -WTERMSIG(wstatus);
    return result;
}

// Equality of two byte strings, told by the first differing offset and the
// line around it, so that a wrong row order in a 200 KB report stays readable.
testing::AssertionResult sameBytes(const std::string& expected, const std::string& actual) {
    if (expected == actual) {
        return testing::AssertionSuccess();
    }
    std::size_t at = 0;
    while (at < expected.size() && at < actual.size() && expected[at] == actual[at]) {
        ++at;
    }
    auto lineAt = [at](const std::string& text) {
        const std::size_t begin = text.rfind('\n', at == 0 ? 0 : at - 1);
        const std::size_t from = begin == std::string::npos || at == 0 ? 0 : begin + 1;
        const std::size_t end = text.find('\n', at);
        return text.substr(from, (end == std::string::npos ? text.size() : end) - from);
    };
    auto lastMessage = [at](const std::string& text) {
        const std::size_t begin = text.rfind("VELK Message ", at);
        return begin == std::string::npos ? std::string("(none)") : text.substr(begin, 20);
    };
    return testing::AssertionFailure()
           << "sizes " << expected.size() << " (expected) and " << actual.size()
           << " (actual), first difference at byte " << at << "\n  expected line: ["
           << lineAt(expected) << "]\n  actual line:   [" << lineAt(actual)
           << "]\n  in row: expected " << lastMessage(expected) << ", actual "
           << lastMessage(actual);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        ADD_FAILURE() << "cannot read " << path;
        return {};
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// "-" is nothing; otherwise golden files joined by '+', concatenated.
std::string readStream(const std::string& files) {
    std::string text;
    if (files == "-") {
        return text;
    }
    std::size_t from = 0;
    while (from <= files.size()) {
        std::size_t plus = files.find('+', from);
        if (plus == std::string::npos) {
            plus = files.size();
        }
        text += readFile(g_goldenDir + "/" + files.substr(from, plus - from));
        from = plus + 1;
    }
    return text;
}

struct golden_case {
    std::string name;
    std::string argument;
    int status = -1;
    std::string out;  // manifest fields, resolved when the case runs
    std::string err;
};

void PrintTo(const golden_case& c, std::ostream* os) {
    *os << c.name;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

// The manifest writes arguments in lower-case hex, "-" for the empty one.
bool fromHex(const std::string& hex, std::string& bytes) {
    bytes.clear();
    if (hex == "-") {
        return true;
    }
    if (hex.size() % 2 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int high = hexDigit(hex[i]);
        const int low = hexDigit(hex[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes.push_back(static_cast<char>(high << 4 | low));
    }
    return true;
}

// Reads the manifest: "name argument-hex status stdout stderr" per line.
// A line that does not parse becomes a case without a name, which fails.
std::vector<golden_case> loadCases() {
    std::vector<golden_case> cases;
    std::ifstream in(g_goldenDir + "/cases.txt");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::istringstream fields(line);
        golden_case c;
        std::string hex;
        std::string extra;
        if (!(fields >> c.name >> hex >> c.status >> c.out >> c.err) || (fields >> extra) ||
            !fromHex(hex, c.argument)) {
            c = golden_case{};
            c.name = "malformed_line_" + std::to_string(cases.size());
            c.err = line;
        }
        cases.push_back(c);
    }
    return cases;
}

std::string usageText(const std::string& argv0) {
    return "Usage:\n\t" + argv0 + " <error>\n" + "\nWhere:\n" +
           "\t<error> - the error code to lookup.\n" +
           "\t          (This can also be a regular expression.)\n\n" + "\nExample:\n" + "\t" +
           argv0 + " 01-0001\n" +
           "\t\tReturns the extended information for error code '01-0001'.\n\n" + "\t" + argv0 +
           " 00-\n" + "\t\tReturns all errors with prefix 00-.\n\n" + "\t" + argv0 + " .\n" +
           "\t\tReturns all errors.\n\n";
}

std::string noMatch(const std::string& echo) {
    return "No errors found matching '" + echo + "'.\n";
}

class GoldenReport : public testing::TestWithParam<golden_case> {};

TEST_P(GoldenReport, MatchesModelByteForByte) {
    const golden_case& c = GetParam();
    ASSERT_GE(c.status, 0) << "malformed manifest line: " << c.err;
    const run_result run = runVelkmsg({"velkmsg", c.argument});
    EXPECT_EQ(run.status, c.status);
    EXPECT_TRUE(sameBytes(readStream(c.out), run.out)) << "standard output";
    EXPECT_TRUE(sameBytes(readStream(c.err), run.err)) << "standard error";
}

INSTANTIATE_TEST_SUITE_P(Manifest, GoldenReport, testing::ValuesIn(loadCases()),
                         [](const testing::TestParamInfo<golden_case>& info) {
                             return info.param.name;
                         });

TEST(CommandLine, WrongArgumentCountPrintsUsageOnly) {
    const std::vector<std::vector<std::string>> argvs = {
        {"velkmsg-as-invoked"},
        {"velkmsg-as-invoked", "01-0001", "00-"},
        {"./some dir/vm", "", "", ""},
    };
    for (const auto& argv : argvs) {
        SCOPED_TRACE(argv.size() - 1);
        const run_result run = runVelkmsg(argv);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(sameBytes(usageText(argv[0]), run.err));
    }
}

TEST(CommandLine, InvalidPatternsReportNoMatch) {
    // Argument and its echo: the echo is folded, the pattern's error is not shown.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"(", "("},         {"[", "["},
        {"*", "*"},         {"\\", "\\"},
        {")", ")"},         {"(?<", "(?<"},
        {"[z-a]", "[z-A]"}, {"a{2,1}", "A{2,1}"},
        {" ( ", " ( "},     {"01-0001(", "01-0001("},
    };
    for (const auto& [argument, echo] : cases) {
        SCOPED_TRACE(argument);
        const run_result run = runVelkmsg({"velkmsg", argument});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, noMatch(echo));
    }
}

TEST(CommandLine, HundredKilobyteArguments) {
    std::string literal;
    std::string folded;
    while (literal.size() < 100000) {
        literal += "xfedcba-";
        folded += "xFEDCBA-";
    }
    const run_result none = runVelkmsg({"velkmsg", literal});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_TRUE(sameBytes(noMatch(folded), none.err));

    // Blanks around one identifier: trimmed for the search, echoed whole.
    const std::string blanks(50000, ' ');
    std::string row = readFile(g_goldenDir + "/upper_hex_id.out");
    ASSERT_GT(row.size(), 1u);
    row.erase(row.rfind('\n', row.size() - 2) + 1);  // keep the row, drop the summary
    const run_result one = runVelkmsg({"velkmsg", blanks + "1d-0001" + blanks});
    EXPECT_EQ(one.status, 0);
    EXPECT_EQ(one.err, "");
    EXPECT_TRUE(sameBytes(row + "Found 1 error matching '" + blanks + "1D-0001" + blanks + "'.\n",
                          one.out));
}

}  // namespace
