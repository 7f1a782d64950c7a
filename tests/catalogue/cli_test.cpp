// End-to-end tests of the velkmsg command line.
//
// The binary is started with posix_spawn, argv built exactly and no shell, and
// its standard output, standard error and exit status are compared byte for
// byte. Most expectations come from the golden directory, which
// scripts/report_model.py writes from its own model of the catalogue and its
// hash map; the rest (usage, wrong argument counts, very long and invalid
// patterns) are spelled out here.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
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

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << "cannot read " << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct run_result {
    std::string out;
    std::string err;
    int status = -1;  // exit status, or minus the signal number
};

// Runs velkmsg with exactly `argv` (argv[0] included); its streams go to
// files of this process's own, as a report can be far larger than a pipe.
run_result runVelkmsg(std::vector<std::string> argv) {
    const std::string base = testing::TempDir() + "velkmsg-" + std::to_string(getpid());
    const std::string outPath = base + ".out", errPath = base + ".err";
    std::vector<char*> args;
    for (std::string& arg : argv) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = 0;
    const int spawned =
        posix_spawn(&pid, VLK_VELKMSG_PATH, &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    run_result result;
    int status = 0;
    if (spawned != 0 || waitpid(pid, &status, 0) != pid) {
        ADD_FAILURE() << "cannot run " << VLK_VELKMSG_PATH << ": " << std::strerror(spawned);
        return result;
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    std::remove(outPath.c_str());
    std::remove(errPath.c_str());
    return result;
}

// Equality of two byte strings, told by the first differing offset and the
// line around it, so that a wrong row order in a 200 KB report stays readable.
testing::AssertionResult sameBytes(const std::string& expected, const std::string& actual) {
    if (expected == actual) {
        return testing::AssertionSuccess();
    }
    const std::size_t at =
        std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end()).first -
        expected.begin();
    auto lineAt = [at](const std::string& text) {
        const std::size_t begin = at == 0 ? 0 : text.rfind('\n', at - 1) + 1;  // npos + 1 is 0
        return text.substr(begin, text.find('\n', at) - begin);
    };
    return testing::AssertionFailure()
           << "sizes " << expected.size() << " (expected) and " << actual.size()
           << " (actual), first difference at byte " << at << "\n  expected line: ["
           << lineAt(expected) << "]\n  actual line:   [" << lineAt(actual) << "]";
}

// "-" is nothing; otherwise golden files joined by '+', concatenated.
std::string readStream(const std::string& files) {
    std::string text;
    std::istringstream names(files == "-" ? "" : files);
    for (std::string name; std::getline(names, name, '+');) {
        text += readFile(g_goldenDir + "/" + name);
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

// Reads the manifest: "name argument-hex status stdout stderr" per line,
// the argument in hex ("-" for the empty one). A line that does not parse
// becomes a case with status -1, which fails.
std::vector<golden_case> loadCases() {
    std::vector<golden_case> cases;
    std::ifstream in(g_goldenDir + "/cases.txt");
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::istringstream fields(line);
        golden_case c;
        std::string hex;
        const bool read = static_cast<bool>(fields >> c.name >> hex >> c.status >> c.out >> c.err);
        hex = hex == "-" ? "" : hex;
        if (!read || hex.size() % 2 != 0 ||
            hex.find_first_not_of("0123456789abcdef") != std::string::npos) {
            hex.clear();
            c = {"malformed_line_" + std::to_string(cases.size()), line, -1, "", ""};
        }
        for (std::size_t i = 0; i < hex.size(); i += 2) {
            c.argument.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
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
    ASSERT_GE(c.status, 0) << "malformed manifest line: " << c.argument;
    const run_result run = runVelkmsg({"velkmsg", c.argument});
    EXPECT_EQ(run.status, c.status);
    EXPECT_TRUE(sameBytes(readStream(c.out), run.out)) << "standard output";
    EXPECT_TRUE(sameBytes(readStream(c.err), run.err)) << "standard error";
}

INSTANTIATE_TEST_SUITE_P(Manifest, GoldenReport, testing::ValuesIn(loadCases()),
                         [](const testing::TestParamInfo<golden_case>& info) {
                             return info.param.name;
                         });

// Wrong argument counts print the usage only; an invalid pattern reports no
// match, the pattern's error not shown, echoed folded. The 100 KB pattern
// passes every copy of the argument; blanks around an identifier are
// golden cases.
TEST(CommandLine, WrongArgumentCountsAndInvalidOrLongPatternsFailWithTheirMessage) {
    std::string literal, folded;
    while (literal.size() < 100000) {
        literal += "xfedcba-";
        folded += "xFEDCBA-";
    }
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"velkmsg-as-invoked"}, usageText("velkmsg-as-invoked")},
        {{"velkmsg-as-invoked", "01-0001", "00-"}, usageText("velkmsg-as-invoked")},
        {{"./some dir/vm", "", "", ""}, usageText("./some dir/vm")},
        {{"velkmsg", "[z-a]"}, noMatch("[z-A]")},
        {{"velkmsg", "a{2,1}"}, noMatch("A{2,1}")},
        {{"velkmsg", " ( "}, noMatch(" ( ")},
        {{"velkmsg", literal}, noMatch(folded)},
    };
    for (const auto& [argv, err] : rows) {
        SCOPED_TRACE(argv.back().substr(0, 20) + " of " + std::to_string(argv.size() - 1));
        const run_result run = runVelkmsg(argv);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(sameBytes(err, run.err));
    }
}

}  // namespace
