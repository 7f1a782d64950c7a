// vlk-logscan's run: the command line, the inputs in order, the report.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <vlk/logging/velk_logger.hpp>
#include <vlk/regex/regex_manager.hpp>

#include "logscan.hpp"

namespace vlk::logscan {

namespace {

constexpr const char* usage_text =
    "usage: vlk-logscan [options] [FILE|DIRECTORY|-]...\n"
    "Counts the record lines of log files by catalogue row and explains each row.\n"
    "Files may be plain or gzip; a directory is read file by file in name order;\n"
    "no file, or -, reads standard input.\n"
    "  --level LEVEL    only rows at LEVEL or more severe: developer, trace, stats,\n"
    "                   info, warning, error, critical, emergency\n"
    "  --match PATTERN  only rows whose identifier PATTERN matches, as velkmsg does\n"
    "  --since TIME     only records at TIME or later (ISO 8601, e.g. 2026-11-22T12:00)\n"
    "  --until TIME     only records at TIME or earlier\n"
    "  --format FORM    text (the default) or json: one JSON object per line\n"
    "  --follow         then follow the last file as it grows and rotates, printing\n"
    "                   each new record; SIGINT ends with the summary\n"
    "  --help, --version\n"
    "Exit status: 0 when records were reported, 1 when none, 2 for a usage error.\n";

struct options {
    scan_filter filter;
    bool json = false;
    bool follow = false;
    std::vector<std::string> inputs;
};

struct usage_error {
    std::string message;
};

void foldAndTrim(std::string& pattern) {
    foldHexLetters(pattern);
    const auto first = pattern.find_first_not_of(" \t\n\v\f\r");
    if (first == std::string::npos) {
        pattern.clear();
        return;
    }
    pattern = pattern.substr(first, pattern.find_last_not_of(" \t\n\v\f\r") - first + 1);
}

// Applies one option that takes a value.
void applyValue(options& result, std::string_view name, const std::string& value) {
    if (name == "--level") {
        const std::uint8_t level = levelByName(value);
        if (level == 0) {
            throw usage_error{"unknown level \"" + value + "\""};
        }
        // This level and every more severe one: all bits from it upward.
        result.filter.levels = 0xFFU & ~(level - 1U);
    } else if (name == "--match") {
        std::string pattern = value;
        foldAndTrim(pattern);
        result.filter.match = velk::velk_regex_manager::registerRegex(pattern);
        if (result.filter.match == nullptr) {
            throw usage_error{"the pattern \"" + value + "\" does not compile"};
        }
    } else if (name == "--since" || name == "--until") {
        timestamp& bound = name == "--since" ? result.filter.since : result.filter.until;
        if (parseTimestamp(value, bound, true) != value.size()) {
            throw usage_error{"\"" + value + "\" is no time such as 2026-11-22T12:00:01"};
        }
        (name == "--since" ? result.filter.hasSince : result.filter.hasUntil) = true;
    } else if (value == "json" || value == "text") {
        result.json = value == "json";
    } else {
        throw usage_error{"--format takes text or json, not \"" + value + "\""};
    }
}

// Returns false when the run ends here (--help, --version).
bool parseArguments(int argc, char** argv, options& result) {
    constexpr std::string_view valued[] = {"--level", "--match", "--since", "--until", "--format"};
    bool optionsDone = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (optionsDone || argument == "-" || !argument.starts_with("-")) {
            result.inputs.emplace_back(argument);
            continue;
        }
        if (argument == "--") {
            optionsDone = true;
        } else if (argument == "--help") {
            std::fputs(usage_text, stdout);
            return false;
        } else if (argument == "--version") {
            std::printf("vlk-logscan %s\n", VLK_LOGSCAN_VERSION);
            return false;
        } else if (argument == "--follow") {
            result.follow = true;
        } else {
            const auto equals = argument.find('=');
            const std::string_view name = argument.substr(0, equals);
            if (std::find(std::begin(valued), std::end(valued), name) == std::end(valued)) {
                throw usage_error{"unknown option \"" + std::string(argument) + "\""};
            }
            if (equals == std::string_view::npos && i + 1 == argc) {
                throw usage_error{std::string(name) + " needs a value"};
            }
            applyValue(result, name,
                       equals == std::string_view::npos ? std::string(argv[++i])
                                                        : std::string(argument.substr(equals + 1)));
        }
    }
    if (result.inputs.empty()) {
        result.inputs.emplace_back("-");
    }
    if (result.follow && result.inputs.back() == "-") {
        throw usage_error{"--follow needs a file or a directory to follow"};
    }
    return true;
}

// Reads an open input and names it if it could not be read to its end.
void readNamed(int fd, const std::string& name, line_splitter& splitter, row_table& table) {
    read_problem problem;
    readStream(fd, splitter, table, problem);
    if (!problem.what.empty()) {
        warn(name, problem.what + "; the lines before it are counted");
        ++table.totals().damaged;
    }
}

class scanner {
  public:
    explicit scanner(row_table& table) : _table(table) {}

    // Reads one named input: a file, a directory or "-".
    void input(const std::string& path) {
        if (path == "-") {
            ++_table.totals().files;
            readNamed(STDIN_FILENO, "standard input", _splitter, _table);
            return;
        }
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            const std::vector<std::string> files = directoryFiles(path, error);
            if (error) {
                warn(path, error.message());
                ++_table.totals().damaged;
            }
            for (const auto& file : files) {
                scanFile(file, _splitter, _table);
            }
            return;
        }
        scanFile(path, _splitter, _table);
    }

  private:
    row_table& _table;
    line_splitter _splitter;
};

void writeOut(std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    text.clear();
}

void report(const options& settings, const row_table& table, bool rows, bool summary) {
    const std::vector<const row_entry*> selected = table.selectedRows();
    std::uint64_t unknown = 0;
    std::string out;
    for (const row_entry* row : selected) {
        unknown += row->known ? 0 : 1;
        if (rows) {
            (settings.json ? appendRowJson : appendRowText)(out, *row);
        }
    }
    if (summary) {
        (settings.json ? appendSummaryJson : appendSummaryText)(out, table.totals(),
                                                                selected.size(), unknown);
    }
    writeOut(out);
}

}  // namespace

volatile int g_stopFollowing = 0;

void stopFollowing(int) {
    g_stopFollowing = 1;
}

void printRecord(const row_entry& row, const record& line, const void* settings) {
    std::string out;
    (static_cast<const options*>(settings)->json ? appendRecordJson : appendRecordText)(out, row,
                                                                                        line);
    writeOut(out);
}

// Reads the followed file or set, reports its rows, then prints records as
// they arrive until SIGINT.
void follow(const options& settings, row_table& table) {
    follower followed(settings.inputs.back(), table);
    const bool following = followed.start();
    report(settings, table, true, false);
    if (!following) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = stopFollowing;  // no SA_RESTART: the poll's sleep ends at once
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    table.onRecord = printRecord;
    table.onRecordContext = &settings;
    followed.run(g_stopFollowing);
    table.onRecord = nullptr;
}

void warn(const std::string& name, const std::string& what) {
    std::fprintf(stderr, "vlk-logscan: %s: %s\n", name.c_str(), what.c_str());
}

std::vector<std::string> directoryFiles(const std::string& path, std::error_code& error) {
    std::vector<std::string> names;
    for (std::filesystem::directory_iterator it(path, error), end; !error && it != end;
         it.increment(error)) {
        if (it->is_regular_file(error)) {
            names.push_back(it->path().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

void scanFile(const std::string& path, line_splitter& splitter, row_table& table) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        warn(path, std::strerror(errno));
        ++table.totals().damaged;
        return;
    }
    ++table.totals().files;
    readNamed(fd, path, splitter, table);
    ::close(fd);
}

int run(int argc, char** argv) {
    velk_logger::init();
    velk::velk_regex_manager::init();
    error_manager::init();
    options settings;
    try {
        if (!parseArguments(argc, argv, settings)) {
            return 0;
        }
    } catch (const usage_error& error) {
        std::fprintf(stderr, "vlk-logscan: %s\nTry 'vlk-logscan --help'.\n", error.message.c_str());
        return 2;
    }
    row_table table(settings.filter);
    scanner scan(table);
    const std::size_t initial = settings.inputs.size() - (settings.follow ? 1 : 0);
    for (std::size_t i = 0; i < initial; ++i) {
        scan.input(settings.inputs[i]);
    }
    if (settings.follow) {
        follow(settings, table);
    }
    report(settings, table, !settings.follow, true);
    return table.totals().records != 0 ? 0 : 1;
}

}  // namespace vlk::logscan
