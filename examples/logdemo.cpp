// vlk-logdemo: a small program shaped like a server, to watch the toolkit's
// logger at work. It reads log targets from a configuration file, starts
// producer threads that log catalogue rows of every level at a steady rate,
// rotates the targets on SIGHUP, stops cleanly on SIGINT or SIGTERM (or when
// its time is up) and ends with a report of each target's state.
//
// Usage: vlk-logdemo <config file> [--threads N] [--rate R] [--seconds S]
//                    [--queue-limit BYTES] [--strict]
//        vlk-logdemo --help | --version
//
// The configuration holds one target per section:
//
//   # comments and blank lines are ignored
//   [console]                 a section; the name labels the target
//   Protocol = stdout         one key of that target's configuration
//   Level = warning
//
// What velk_logger::checkTargetConfig finds wrong in a section is printed as
// a warning; with --strict the program refuses to start instead.
//
// Signals are taken synchronously: they are blocked in every thread before
// the first one starts, and the main thread collects them with
// sigtimedwait, so all logger calls run on ordinary threads. The program
// ends within 5 seconds of SIGINT or SIGTERM even when a target is stalled
// (a console on a pipe nobody reads): the flushes and the logger's shutdown
// are timed, and when time runs out it says how many records were still
// queued and ends without waiting for them.
#include <pthread.h>
#include <signal.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <vlk/vlk.hpp>

namespace {

using vlk::velk_logger;

constexpr const char* usageText =
    "usage: vlk-logdemo <config file> [--threads N] [--rate R] [--seconds S]\n"
    "                   [--queue-limit BYTES] [--strict]\n"
    "       vlk-logdemo --help | --version\n"
    "  --threads N   producer threads (1 to 256, default 4)\n"
    "  --rate R      records per second per thread (1 to 10000000, default 1000)\n"
    "  --seconds S   how long to run (default 10); 0 runs until SIGINT or SIGTERM\n"
    "  --queue-limit BYTES  drop records while the queue holds this much (default\n"
    "                0: no limit); a line in the log says how many were dropped\n"
    "  --strict      refuse to start if a target's configuration has a problem\n"
    "SIGHUP rotates the targets; SIGINT and SIGTERM stop the program.\n";

// ---------------------------------------------------------------------------
// Command line

struct options {
    std::string configPath;
    std::uint64_t threads = 4;
    std::uint64_t rate = 1000;
    std::uint64_t seconds = 10;
    std::uint64_t queueLimit = 0;
    bool strict = false;
};

struct numeric_option {
    const char* name;
    std::uint64_t options::*field;
    std::uint64_t lowest;
    std::uint64_t highest;
};

constexpr std::array<numeric_option, 4> numericOptions{{
    {"--threads", &options::threads, 1, 256},
    {"--rate", &options::rate, 1, 10000000},
    {"--seconds", &options::seconds, 0, 31536000},
    {"--queue-limit", &options::queueLimit, 0, std::uint64_t{1} << 40},
}};

// A whole decimal number in [lowest, highest], nothing before or after it.
bool parseNumber(std::string_view text, std::uint64_t lowest, std::uint64_t highest,
                 std::uint64_t& value) {
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end && !text.empty() && value >= lowest &&
           value <= highest;
}

// Fills `result` from the arguments; on failure says why in `error`.
bool parseArguments(int argc, char** argv, options& result, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        const auto option = std::find_if(numericOptions.begin(), numericOptions.end(),
                                         [&](const auto& o) { return argument == o.name; });
        if (option != numericOptions.end()) {
            if (i + 1 == argc) {
                error = std::string(argument) + " needs a value";
                return false;
            }
            const std::string_view value = argv[++i];
            if (!parseNumber(value, option->lowest, option->highest, result.*option->field)) {
                error = std::string(argument) + " takes a whole number from " +
                        std::to_string(option->lowest) + " to " + std::to_string(option->highest) +
                        ", not \"" + std::string(value) + "\"";
                return false;
            }
        } else if (argument == "--strict") {
            result.strict = true;
        } else if (argument.size() > 1 && argument[0] == '-') {
            error = "unknown option \"" + std::string(argument) + "\"";
            return false;
        } else if (!result.configPath.empty()) {
            error = "one configuration file only; \"" + std::string(argument) + "\" is extra";
            return false;
        } else {
            result.configPath = argument;
        }
    }
    if (result.configPath.empty()) {
        error = "no configuration file given";
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Configuration file

struct target_section {
    std::string name;
    int line = 0;  // where "[name]" stands
    vlk::target_config config;
};

struct config_error {
    int line = 0;  // 0: the file as a whole
    std::string message;
};

std::string_view trim(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\f\v";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

class config_parser {
  public:
    explicit config_parser(std::vector<target_section>& sections) : _sections(sections) {}

    // One line, without its line feed. False with `error` filled when the
    // line is neither blank, a comment, a section header nor a key line.
    bool line(std::string_view raw, int number, config_error& error) {
        const std::string_view text = trim(raw);
        if (text.empty() || text[0] == '#') {
            return true;
        }
        error.line = number;
        if (text[0] == '[') {
            return _section(text, number, error.message);
        }
        return _key(text, number, error.message);
    }

  private:
    bool _section(std::string_view text, int number, std::string& error) {
        if (text.back() != ']') {
            error = "a section header ends with \"]\"";
            return false;
        }
        const std::string name(trim(text.substr(1, text.size() - 2)));
        if (name.empty()) {
            error = "a section needs a name between \"[\" and \"]\"";
            return false;
        }
        for (const auto& section : _sections) {
            if (section.name == name) {
                error = "section [" + name + "] was already given on line " +
                        std::to_string(section.line);
                return false;
            }
        }
        _sections.push_back({name, number, {}});
        _keyLines.clear();
        return true;
    }

    bool _key(std::string_view text, int number, std::string& error) {
        const auto equals = text.find('=');
        if (equals == std::string_view::npos) {
            error = "expected \"[name]\" or \"key = value\"";
            return false;
        }
        if (_sections.empty()) {
            error = "\"key = value\" before the first \"[name]\" section";
            return false;
        }
        const std::string key(trim(text.substr(0, equals)));
        if (key.empty() || key.find_first_of(" \t") != std::string::npos) {
            error = "a key is one word before \"=\"";
            return false;
        }
        const auto [previous, fresh] = _keyLines.emplace(key, number);
        if (!fresh) {
            error =
                "key \"" + key + "\" was already set on line " + std::to_string(previous->second);
            return false;
        }
        _sections.back().config[key] =
            vlk::friendly_value(std::string(trim(text.substr(equals + 1))));
        return true;
    }

    std::vector<target_section>& _sections;
    std::map<std::string, int> _keyLines;  // keys of the current section
};

// Parses the whole text into one section per target.
bool parseTargets(std::string_view text, std::vector<target_section>& sections,
                  config_error& error) {
    config_parser parser(sections);
    int number = 0;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        if (!parser.line(text.substr(0, end), ++number, error)) {
            return false;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (sections.empty()) {
        error = {0, "no \"[name]\" section: no target to configure"};
        return false;
    }
    return true;
}

// The whole file; false with errno set when it cannot be read.
bool readFile(const std::string& path, std::string& text) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return false;
    }
    char block[4096];
    std::size_t count = 0;
    while ((count = std::fread(block, 1, sizeof block, file)) > 0) {
        text.append(block, count);
    }
    const bool failed = std::ferror(file) != 0;
    const int error = errno;
    std::fclose(file);
    errno = error;
    return !failed;
}

// ---------------------------------------------------------------------------
// What the producers log

// Index of a row's level bit: 0 developer ... 7 emergency.
int levelIndex(const vlk::error_id& id) {
    return id.level == 0 ? 0 : std::countr_zero(id.level);
}

constexpr std::array<const char*, 4> topics{"US.ORDERS", "EU.QUOTES", "APAC.FILLS", "FX.RATES"};
constexpr std::array<const char*, 3> commands{"load /var/lib/velk/topics.xml", "replay journal 7",
                                              "warm cache"};
constexpr std::array<const char*, 3> messageTypes{"fix", "nvfix", "protobuf"};
constexpr std::array<const char*, 3> expressions{"/price > 100", "/symbol = 'IBM'",
                                                 "/qty BETWEEN 10 AND 20"};

template <typename Table>
auto pick(const Table& table, std::uint64_t sequence) {
    return table[(sequence / 10) % table.size()];
}

// Logs record `sequence` of producer `thread`: ten rows in turn, from
// developer to critical, of several shapes and piece types. Returns the row.
const vlk::error_id& logRecord(int thread, std::uint64_t sequence) {
    namespace E = vlk::errors;
    using vlk::velk_error_stream2;
    using vlk::velk_error_stream3;
    using vlk::velk_error_stream4;
    using vlk::velk_error_stream5;
    switch (sequence % 10) {
        case 0: {
            const unsigned long size = 4096UL << (sequence % 8);
            velk_logger::log(velk_error_stream2<std::string, unsigned long>(
                E::E010016, E::E010016.fragments[0], size));
            return E::E010016;
        }
        case 1: {
            const unsigned long micros = 20 + sequence % 300;
            const std::string expression = pick(expressions, sequence);
            velk_logger::log(velk_error_stream5<std::string, unsigned long, std::string,
                                                std::string, std::string>(
                E::E1A0003, E::E1A0003.fragments[0], micros, E::E1A0003.fragments[1], expression,
                E::E1A0003.fragments[2]));
            return E::E1A0003;
        }
        case 2:
            // Text built ahead of the call costs even when nobody wants the
            // row, so ask first.
            if (velk_logger::willLog(E::E000044)) {
                const std::string statistics = "producer " + std::to_string(thread) + " at " +
                                               std::to_string(sequence) + " records";
                velk_logger::log(velk_error_stream2<std::string, std::string>(
                    E::E000044, E::E000044.fragments[0], statistics));
            }
            return E::E000044;
        case 3: {
            const char* command = pick(commands, sequence);
            velk_logger::log(velk_error_stream2<std::string, const char*>(
                E::E000012, E::E000012.fragments[0], command));
            return E::E000012;
        }
        case 4: {
            const std::string instance = "logdemo-" + std::to_string(thread);
            velk_logger::log(velk_error_stream2<std::string, std::string>(
                E::E000002, E::E000002.fragments[0], instance));
            return E::E000002;
        }
        case 5: {
            const char* topic = pick(topics, sequence);
            velk_logger::log(velk_error_stream3<std::string, const char*, std::string>(
                E::E000007, E::E000007.fragments[0], topic, E::E000007.fragments[1]));
            return E::E000007;
        }
        case 6: {
            const std::string warning = "sequence " + std::to_string(sequence) + " is late";
            velk_logger::log(velk_error_stream2<std::string, std::string>(
                E::E000034, E::E000034.fragments[0], warning));
            return E::E000034;
        }
        case 7: {
            char type[16];
            std::snprintf(type, sizeof type, "%s", pick(messageTypes, sequence));
            velk_logger::log(velk_error_stream2<std::string, char[16]>(
                E::E000025, E::E000025.fragments[0], type));
            return E::E000025;
        }
        case 8: {
            const int bytes = static_cast<int>(1000 + sequence % 9000);
            velk_logger::log(velk_error_stream3<std::string, int, std::string>(
                E::E070025, E::E070025.fragments[0], bytes, E::E070025.fragments[1]));
            return E::E070025;
        }
        default: {
            const std::string address = "10.0.0." + std::to_string(thread + 1) + ":9007";
            const std::string reason = "connection refused";
            velk_logger::log(velk_error_stream4<std::string, std::string, std::string, std::string>(
                E::E130002, E::E130002.fragments[0], address, E::E130002.fragments[1], reason));
            return E::E130002;
        }
    }
}

double monotonicSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

timespec timespecOf(double seconds) {
    const auto whole = static_cast<time_t>(seconds);
    return {whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
}

void sleepSeconds(double seconds) {
    timespec span = timespecOf(seconds);
    while (::nanosleep(&span, &span) == -1 && errno == EINTR) {
    }
}

// What one producer did; each on its own line, as each thread writes its own.
struct alignas(128) producer_tally {
    std::array<std::uint64_t, 8> byLevel{};
    std::uint64_t total = 0;
};

// Logs at `rate` records a second until the logger's shutdown flag is
// raised. Falling behind is made up in a burst; waits are cut into slices
// of 20 ms so that a stop is seen soon.
void produce(int thread, std::uint64_t rate, producer_tally& tally) {
    const double start = monotonicSeconds();
    const auto perSecond = static_cast<double>(rate);
    std::uint64_t sequence = 0;
    while (!velk_logger::isShutdownInitiated()) {
        const auto due = static_cast<std::uint64_t>((monotonicSeconds() - start) * perSecond) + 1;
        while (sequence < due && !velk_logger::isShutdownInitiated()) {
            ++tally.byLevel[levelIndex(logRecord(thread, sequence++))];
        }
        const double wait =
            static_cast<double>(sequence) / perSecond - (monotonicSeconds() - start);
        if (wait > 0) {
            sleepSeconds(std::min(wait, 0.02));
        }
    }
    tally.total = sequence;
}

// ---------------------------------------------------------------------------
// Targets and the final report

std::map<const void*, std::string> targetNames;  // target -> "[section]"

std::vector<const void*> currentTargets() {
    vlk::base::worklist<vlk::file_logging_info> files;
    vlk::base::worklist<vlk::console_logging_info> consoles;
    vlk::base::worklist<vlk::syslog_logging_info> syslogs;
    velk_logger::getLoggersInfo(files, consoles, syslogs);
    std::vector<const void*> result;
    for (const auto& info : files) {
        result.push_back(info.target);
    }
    for (const auto& info : consoles) {
        result.push_back(info.target);
    }
    for (const auto& info : syslogs) {
        result.push_back(info.target);
    }
    return result;
}

// Prints what the logger's checker finds in each section; returns the count.
std::size_t warnAboutTargets(const std::vector<target_section>& sections) {
    std::size_t count = 0;
    for (const auto& section : sections) {
        for (const std::string& problem : velk_logger::checkTargetConfig(section.config)) {
            std::fprintf(stderr, "vlk-logdemo: warning: [%s] (line %d): %s\n", section.name.c_str(),
                         section.line, problem.c_str());
            ++count;
        }
    }
    return count;
}

// Adds each section's target and remembers which section made it. The
// logger says nothing about a section that made none, so this does.
std::size_t addTargets(std::vector<target_section>& sections) {
    const std::vector<const void*> existing = currentTargets();
    std::set<const void*> known(existing.begin(), existing.end());
    for (auto& section : sections) {
        const auto protocol = section.config.find("Protocol");
        const std::string name =
            protocol == section.config.end() ? std::string() : protocol->second.text();
        velk_logger::addTarget(section.config);
        bool made = false;
        for (const void* target : currentTargets()) {
            if (known.insert(target).second) {
                targetNames[target] = "[" + section.name + "]";
                made = true;
            }
        }
        if (made) {
            continue;
        }
        if (name.empty()) {
            std::fprintf(stderr, "vlk-logdemo: [%s] (line %d) has no \"Protocol\"; no target\n",
                         section.name.c_str(), section.line);
        } else {
            std::fprintf(stderr,
                         "vlk-logdemo: [%s] (line %d): protocol \"%s\" is not available or its "
                         "target could not open; no target\n",
                         section.name.c_str(), section.line, name.c_str());
        }
    }
    return known.size();
}

std::string orNone(const std::string& text) {
    return text.empty() ? "-" : text;
}

void printCommon(const char* kind, const vlk::logging_info& info) {
    const auto name = targetNames.find(info.target);
    std::printf("target %s %s\n", name == targetNames.end() ? "[?]" : name->second.c_str(), kind);
    std::printf("  levels              %s\n", info.levels.c_str());
    std::printf("  include errors      %s\n", orNone(info.includeErrors).c_str());
    std::printf("  exclude errors      %s\n", orNone(info.excludeErrors).c_str());
}

std::string flagNames(std::uint32_t options) {
    static constexpr std::array<std::pair<std::uint32_t, const char*>, 6> names{{
        {LOG_PID, "LOG_PID"},
        {LOG_CONS, "LOG_CONS"},
        {LOG_ODELAY, "LOG_ODELAY"},
        {LOG_NDELAY, "LOG_NDELAY"},
        {LOG_NOWAIT, "LOG_NOWAIT"},
        {LOG_PERROR, "LOG_PERROR"},
    }};
    std::string text;
    for (const auto& [bit, name] : names) {
        if ((options & bit) != 0) {
            text += (text.empty() ? "" : ",") + std::string(name);
        }
    }
    return orNone(text);
}

std::string facilityName(std::uint32_t facility) {
    if (facility == LOG_USER) {
        return "LOG_USER";
    }
    if (facility >= LOG_LOCAL0 && facility <= LOG_LOCAL7 && facility % 8 == 0) {
        return "LOG_LOCAL" + std::to_string((facility - LOG_LOCAL0) / 8);
    }
    return std::to_string(facility);
}

struct loggers_info {
    vlk::base::worklist<vlk::file_logging_info> files;
    vlk::base::worklist<vlk::console_logging_info> consoles;
    vlk::base::worklist<vlk::syslog_logging_info> syslogs;
};

void printTargets(const loggers_info& info) {
    for (const auto& file : info.files) {
        printCommon("file", file);
        std::printf("  bytes written       %" PRIu64 "\n", file.bytesWritten);
        std::printf("  file name pattern   %s\n", file.fileNamePattern.c_str());
        std::printf("  file name           %s\n", orNone(file.fileName).c_str());
        if (file.rotationThreshold == UINT64_MAX) {
            std::printf("  rotation threshold  none\n");
        } else {
            std::printf("  rotation threshold  %" PRIu64 "\n", file.rotationThreshold);
        }
        std::printf("  rotation count      %" PRIu64 "\n", file.rotationCount);
    }
    for (const auto& console : info.consoles) {
        printCommon(console.useStderr != 0 ? "stderr" : "stdout", console);
        std::printf("  bytes written       %" PRIu64 "\n", console.bytesWritten);
    }
    for (const auto& syslog : info.syslogs) {
        printCommon("syslog", syslog);
        std::printf("  bytes written       %" PRIu64 "\n", syslog.bytesWritten);
        std::printf("  ident               %s\n", orNone(syslog.ident).c_str());
        std::printf("  options             %s\n", flagNames(syslog.options).c_str());
        std::printf("  facility            %s\n", facilityName(syslog.facility).c_str());
    }
}

struct run_summary {
    std::uint64_t threads = 0;
    double seconds = 0;
    const char* stoppedBy = "";
    std::uint64_t rotations = 0;
    std::vector<producer_tally> tallies;
};

void printReport(const run_summary& run, const loggers_info& info) {
    producer_tally sum;
    for (const auto& tally : run.tallies) {
        sum.total += tally.total;
        for (std::size_t level = 0; level < sum.byLevel.size(); ++level) {
            sum.byLevel[level] += tally.byLevel[level];
        }
    }
    std::printf("vlk-logdemo report\n");
    std::printf("  stopped by          %s after %.1f s\n", run.stoppedBy, run.seconds);
    std::printf("  rotations asked     %" PRIu64 "\n", run.rotations);
    std::printf("  records logged      %" PRIu64 " by %" PRIu64 " thread%s\n", sum.total,
                run.threads, run.threads == 1 ? "" : "s");
    for (std::size_t level = 0; level < sum.byLevel.size(); ++level) {
        if (sum.byLevel[level] != 0) {
            const auto mask = static_cast<vlk::log_level>(1U << level);
            std::printf("    %-17s %" PRIu64 "\n", vlk::getLogLevelString(mask).c_str(),
                        sum.byLevel[level]);
        }
    }
    printTargets(info);
    std::fflush(stdout);
}

// ---------------------------------------------------------------------------
// Signals

sigset_t controlSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

// How long the program may take to end once it is told to stop.
constexpr double stopSeconds = 4.0;

// Serves SIGHUP until SIGINT, SIGTERM or the end of `seconds` (0: no end).
// Returns what stopped the run.
const char* waitForStop(std::uint64_t seconds, std::uint64_t& rotations) {
    const sigset_t set = controlSignals();
    const double deadline = monotonicSeconds() + static_cast<double>(seconds);
    for (;;) {
        int signal = 0;
        if (seconds == 0) {
            signal = ::sigwaitinfo(&set, nullptr);
        } else {
            const timespec timeout = timespecOf(std::max(deadline - monotonicSeconds(), 0.0));
            signal = ::sigtimedwait(&set, nullptr, &timeout);
        }
        if (signal == -1 && errno == EAGAIN) {
            return "the time limit";
        }
        if (signal == SIGHUP) {
            velk_logger::rotate();
            ++rotations;
            std::fprintf(stderr, "vlk-logdemo: SIGHUP: the targets have rotated\n");
        } else if (signal == SIGINT) {
            return "SIGINT";
        } else if (signal == SIGTERM) {
            return "SIGTERM";
        }
        // EINTR: a signal outside the set interrupted the wait; wait again.
    }
}

// ---------------------------------------------------------------------------

int run(const options& settings, std::vector<target_section>& sections) {
    // Before any thread exists, so that every thread inherits the mask and
    // the three signals only ever reach sigtimedwait below.
    const sigset_t set = controlSignals();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);

    vlk::system::init();
    vlk::error_manager::init();
    velk_logger::init();
    velk_logger::setQueueLimit(settings.queueLimit);
    vlk::system::thread::setThreadTerminateFunction([] { velk_logger::threadTerminate(); });

    const std::size_t problems = warnAboutTargets(sections);
    if (settings.strict && problems != 0) {
        std::fprintf(stderr, "vlk-logdemo: --strict: not starting with %zu problem%s\n", problems,
                     problems == 1 ? "" : "s");
        velk_logger::terminate();
        return 1;
    }
    if (addTargets(sections) == 0) {
        std::fprintf(stderr, "vlk-logdemo: no target could be made; records go nowhere\n");
    }
    velk_logger::start();

    run_summary summary;
    summary.threads = settings.threads;
    summary.tallies.resize(settings.threads);
    std::vector<vlk::thread> producers(settings.threads);
    const double start = monotonicSeconds();
    for (std::uint64_t i = 0; i < settings.threads; ++i) {
        producer_tally& tally = summary.tallies[i];
        const std::uint64_t rate = settings.rate;
        producers[i].start([i, rate, &tally] { produce(static_cast<int>(i), rate, tally); }, 0);
    }

    summary.stoppedBy = waitForStop(settings.seconds, summary.rotations);
    // Everything from here to the end fits in this, whatever the targets do.
    const double stopBy = monotonicSeconds() + stopSeconds;
    const auto millisecondsLeft = [stopBy] {
        return static_cast<unsigned long>(std::max(stopBy - monotonicSeconds(), 0.0) * 1000);
    };
    velk_logger::initiateShutdown();
    for (auto& producer : producers) {
        producer.join();
    }
    summary.seconds = monotonicSeconds() - start;

    // Shutdown releases the targets, so their state is read first, and only
    // from a logging thread that is idle after its passes. A pass under way
    // may have looked at the queue before the last records went in; the
    // second wait is for a pass that began after them.
    const bool idle =
        velk_logger::flush(millisecondsLeft()) && velk_logger::flush(millisecondsLeft());
    loggers_info info;
    if (idle) {
        velk_logger::getLoggersInfo(info.files, info.consoles, info.syslogs);
    }
    if (!velk_logger::shutdown(millisecondsLeft())) {
        // A target is stuck in a write; the logger cannot be torn down under
        // it, and the report could stick on the same pipe.
        std::fprintf(stderr,
                     "vlk-logdemo: %s: a target did not take its records within %.0f s; %" PRIu64
                     " records were still queued and are lost\n",
                     summary.stoppedBy, stopSeconds, velk_logger::queuedCount());
        std::fflush(stderr);
        ::_exit(3);
    }
    printReport(summary, info);
    velk_logger::terminate();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(usageText, stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("vlk-logdemo %s\n", VLK_VERSION_STRING);
            return 0;
        }
    }
    options settings;
    std::string error;
    if (!parseArguments(argc, argv, settings, error)) {
        std::fprintf(stderr, "vlk-logdemo: %s\n%s", error.c_str(), usageText);
        return 2;
    }

    std::string text;
    if (!readFile(settings.configPath, text)) {
        std::fprintf(stderr, "vlk-logdemo: cannot read %s: %s\n", settings.configPath.c_str(),
                     std::strerror(errno));
        return 1;
    }
    std::vector<target_section> sections;
    config_error problem;
    if (!parseTargets(text, sections, problem)) {
        if (problem.line == 0) {
            std::fprintf(stderr, "vlk-logdemo: %s: %s\n", settings.configPath.c_str(),
                         problem.message.c_str());
        } else {
            std::fprintf(stderr, "vlk-logdemo: %s:%d: %s\n", settings.configPath.c_str(),
                         problem.line, problem.message.c_str());
        }
        return 1;
    }
    return run(settings, sections);
}
