#include <vlk/logging/velk_logger.hpp>

#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/errors.hpp>
#include <vlk/logging/console_logger.hpp>
#include <vlk/logging/target.hpp>
#include <vlk/system/host.hpp>

#include "capture_target.hpp"

namespace {

using vlk::velk_logger;
using vlk_test::addCaptureTarget;
using vlk_test::capture_target;
using vlk_test::deliver;
using vlk_test::record;

using stream2 = vlk::velk_error_stream2<std::string, std::string>;

// Rows of known levels with one value behind one fragment.
const auto& infoRow = vlk::errors::E000002;      // 00-0002 info
const auto& warningRow = vlk::errors::E000034;   // 00-0034 warning
const auto& criticalRow = vlk::errors::E000035;  // 00-0035 critical
const auto& errorRow = vlk::errors::E300004;     // 30-0004 error

template <typename Row>
void logRow(const Row& row, const std::string& value) {
    velk_logger::log(stream2(row, row.fragments[0], value));
}

vlk::target_config config(std::initializer_list<std::pair<const std::string, std::string>> keys) {
    vlk::target_config result;
    for (const auto& [key, value] : keys) {
        result[key] = vlk::friendly_value(value);
    }
    return result;
}

std::vector<record> records(const capture_target& target) {
    std::vector<record> result;
    for (const auto& line : target.lines()) {
        record parsed;
        EXPECT_TRUE(vlk_test::parseRecord(line.text, parsed)) << line.text;
        result.push_back(parsed);
    }
    return result;
}

// What `body` writes to file descriptor 2.
std::string standardErrorOf(const std::function<void()>& body) {
    int file = ::memfd_create("stderr", 0);
    int saved = ::dup(STDERR_FILENO);
    ::dup2(file, STDERR_FILENO);
    body();
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    std::string text(1 << 16, '\0');
    ssize_t length = ::pread(file, text.data(), text.size(), 0);
    ::close(file);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

class Logger : public testing::Test {
  protected:
    // The one fact of the host probe that the logger reads: with the
    // process id known, this first thread enlists no record of its own. Set
    // alone, since the whole probe may spend seconds measuring the clock.
    static void SetUpTestSuite() {
        vlk::_vlk_system_detail::_pid = ::getpid();
        vlk::error_manager::init();
    }
    void SetUp() override { velk_logger::init(); }
    void TearDown() override {
        velk_logger::shutdown();
        velk_logger::terminate();
        vlk_test::madeTargets().clear();
    }
};

TEST_F(Logger, RecordLineHasTimeThreadLevelIdentifierAndBodyByteForByte) {
    capture_target& target = addCaptureTarget(config({{"Level", "developer"}}));
    ASSERT_TRUE(velk_logger::start());

    timeval before{};
    ::gettimeofday(&before, nullptr);
    const int lowest = INT_MIN;
    const char* absent = nullptr;
    const unsigned long largest = ULONG_MAX;
    velk_logger::log(vlk::velk_error_stream7<std::string, int, std::string, const char*,
                                             std::string, unsigned long, std::string>(
        vlk::errors::E000027, vlk::errors::E000027.fragments[0], lowest,
        vlk::errors::E000027.fragments[1], absent, vlk::errors::E000027.fragments[2], largest,
        vlk::errors::E000027.fragments[3]));
    velk_logger::log(vlk::error_id{0x10, 0x1F, 12345}, "five digits");
    velk_logger::log(vlk::error_id{0x30, 0x1F, 7}, "");  // two level bits, empty body
    deliver();

    const std::vector<record> lines = records(target);
    ASSERT_EQ(lines.size(), 3U);
    const std::string id = std::to_string(velk_logger::threadLogId());
    EXPECT_EQ(lines[0].logId, id);
    EXPECT_EQ(lines[0].level, "info");
    EXPECT_EQ(lines[0].identifier, "00-0027");
    EXPECT_EQ(lines[0].body,
              "Enlisted new thread ppid(-2147483648) pid() tid(18446744073709551615)\n");
    EXPECT_EQ(lines[1].level + " " + lines[1].identifier + " " + lines[1].body,
              "warning 1FB12345 five digits");
    EXPECT_EQ(lines[2].level + " " + lines[2].identifier + " " + lines[2].body, "warning 1F-0007 ");

    // The timestamp is the local time of the enqueue: the minute before or
    // after it.
    timeval after{};
    ::gettimeofday(&after, nullptr);
    std::string minutes;
    for (const timeval& time : {before, after}) {
        char text[32];
        tm local{};
        ::localtime_r(&time.tv_sec, &local);
        minutes.append(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M ", &local));
    }
    EXPECT_NE(minutes.find(lines[0].timestamp.substr(0, 16) + " "), std::string::npos) << minutes;
}

TEST_F(Logger, FilterDecidesBeforeFormattingAndEachTargetFiltersForItself) {
    EXPECT_TRUE(velk_logger::willLog(infoRow));  // everything queues before start
    capture_target& warnings = addCaptureTarget(
        config({{"Level", "warning"}, {"IncludeErrors", "00-0002"}, {"ExcludeErrors", "00-0035"}}));
    capture_target& everything = addCaptureTarget(config({{"Level", "developer"}}));
    capture_target& included = addCaptureTarget(config({{"IncludeErrors", "00-0030"}}));
    vlk::target_config unknownProtocol = config({{"Protocol", "ftp"}});
    velk_logger::addTarget(unknownProtocol);  // adds nothing, says nothing
    ASSERT_TRUE(velk_logger::start());

    EXPECT_TRUE(velk_logger::willLog(infoRow));
    EXPECT_TRUE(velk_logger::willLog(vlk::errors::E000005));  // developer, via `everything`
    logRow(infoRow, "a");
    logRow(warningRow, "b");
    logRow(criticalRow, "c");
    deliver();

    auto bodies = [](const capture_target& target) {
        std::string text;
        for (const auto& line : target.lines()) {
            text += line.text.substr(line.text.find(": ", 30) + 10);
        }
        return text;
    };
    const std::string a = infoRow.fragments[0] + "a\n";
    const std::string b = warningRow.fragments[0] + "b\n";
    const std::string c = criticalRow.fragments[0] + "c\n";
    EXPECT_EQ(bodies(warnings), a + b);  // included info, warning; critical excluded
    EXPECT_EQ(bodies(everything), a + b + c);
    EXPECT_EQ(bodies(included), "");

    vlk::base::worklist<vlk::file_logging_info> files;
    vlk::base::worklist<vlk::console_logging_info> consoles;
    vlk::base::worklist<vlk::syslog_logging_info> syslogs;
    velk_logger::getLoggersInfo(files, consoles, syslogs);
    EXPECT_EQ(files.count + consoles.count + syslogs.count,
              0U);  // capture targets describe nothing
}

TEST_F(Logger, WakesOnEvery128thMessageAndDeliversTheRestOnItsTick) {
    auto& impl = *velk_logger::_implementation();
    auto semaphoreValue = [&] {
        int value = -1;
        ::sem_getvalue(&impl._wakeup, &value);
        return value;
    };
    // No thread consumes the posts before start.
    for (int i = 0; i < 127; ++i) {
        velk_logger::log(infoRow, "early");
    }
    EXPECT_EQ(semaphoreValue(), 0);
    velk_logger::log(infoRow, "128th");
    EXPECT_EQ(semaphoreValue(), 1);

    capture_target& target = addCaptureTarget(config({{"Level", "info"}}));
    ASSERT_TRUE(velk_logger::start());
    ASSERT_TRUE(velk_logger::start());  // a second start starts no second thread
    deliver();
    EXPECT_EQ(target.lines().size(), 128U);  // queued before start, delivered by the first passes

    // One message, no post: the 100 ms tick brings it, well before the bound.
    velk_logger::log(infoRow, "on the tick");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (target.lines().size() < 129 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(target.lines().size(), 129U);
}

TEST_F(Logger, FlushRotateAndShutdownReachTheTargetsOnce) {
    capture_target& target = addCaptureTarget(config({{"Level", "info"}}));
    velk_logger::shutdown();  // before start: nothing, the target stays
    EXPECT_EQ(target.shutdowns.load(), 0);

    ASSERT_TRUE(velk_logger::start());
    velk_logger::flush(0);  // posts and returns without waiting
    velk_logger::rotate();
    deliver();
    EXPECT_EQ(target.rotations.load(), 1);

    target.delayMicroseconds = 2000;
    for (int i = 0; i < 50; ++i) {
        logRow(infoRow, std::to_string(i));
    }
    velk_logger::shutdown();  // the last pass delivers everything queued
    EXPECT_EQ(target.lines().size(), 50U);
    EXPECT_EQ(target.shutdowns.load(), 1);
    EXPECT_GE(target.flushes.load(), 1);
    velk_logger::shutdown();
    EXPECT_EQ(target.shutdowns.load(), 1);
}

TEST_F(Logger, TerminateWritesWhatIsLeftAtErrorAndAboveToStandardError) {
    addCaptureTarget(config({{"Level", "info"}}));
    ASSERT_TRUE(velk_logger::start());
    velk_logger::shutdown();
    logRow(infoRow, "dropped");
    logRow(errorRow, "kept");
    logRow(criticalRow, "kept too");
    const std::string written = standardErrorOf([] { velk_logger::terminate(); });
    EXPECT_EQ(written.find("dropped"), std::string::npos);
    EXPECT_NE(written.find("] error: 30-0004 " + errorRow.fragments[0] + "kept\n"),
              std::string::npos)
        << written;
    EXPECT_NE(written.find("] critical: 00-0035 " + criticalRow.fragments[0] + "kept too\n"),
              std::string::npos);
    EXPECT_FALSE(velk_logger::willLog(errorRow));  // nothing is left to log to
}

// 8 producers on 2 cores, through a target that holds the logging thread up
// now and then: every record arrives once, each thread's in order.
TEST_F(Logger, StressEveryRecordArrivesOnceAndInOrderPerThread) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr int perThread = 20'000;
#else
    constexpr int perThread = 200'000;
#endif
    constexpr int threads = 8;
    capture_target& target = addCaptureTarget(config({{"Level", "info"}}));
    ASSERT_TRUE(velk_logger::start());
    std::vector<std::thread> producers;
    for (int t = 0; t < threads; ++t) {
        producers.emplace_back([t] {
            const std::string prefix = std::to_string(t) + " ";
            for (int i = 0; i < perThread; ++i) {
                logRow(infoRow, prefix + std::to_string(i));
            }
            velk_logger::threadTerminate();
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    velk_logger::shutdown();

    const std::string fragment = infoRow.fragments[0];
    std::map<std::string, int> next;  // log id -> next sequence number
    std::vector<int> seen(threads, 0);
    std::size_t enlisted = 0;
    for (const auto& line : target.lines()) {
        record parsed;
        ASSERT_TRUE(vlk_test::parseRecord(line.text, parsed)) << line.text;
        if (parsed.identifier == "00-0027") {
            ++enlisted;
            continue;
        }
        ASSERT_EQ(parsed.body.rfind(fragment, 0), 0U);
        const std::string value = parsed.body.substr(fragment.size());
        const int producer = std::stoi(value);
        const int sequence = std::stoi(value.substr(value.find(' ') + 1));
        ASSERT_EQ(sequence, next[parsed.logId]++) << "thread " << parsed.logId;
        ++seen[producer];
    }
    EXPECT_EQ(enlisted, static_cast<std::size_t>(threads));
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(seen[t], perThread) << "producer " << t;
    }
    velk_logger::reap();
}

}  // namespace

// Frames of their own in the backtrace: external names, since the test is
// linked with its symbols exported and only those can be named.
namespace vlk_test {
__attribute__((noinline)) void backtraceMarker() {
    velk_logger::logWithBacktrace(stream2(errorRow, errorRow.fragments[0], "traced"));
}
__attribute__((noinline)) void outerBacktraceMarker() {
    backtraceMarker();
    asm volatile("");  // keeps the call from becoming a jump
}
}  // namespace vlk_test

namespace {

TEST_F(Logger, BacktraceSectionNamesTheCallersDemangled) {
    capture_target& target = addCaptureTarget(config({{"Level", "error"}}));
    ASSERT_TRUE(velk_logger::start());
    vlk_test::outerBacktraceMarker();
    deliver();
    const auto lines = target.lines();
    ASSERT_EQ(lines.size(), 1U);
    const std::string& text = lines[0].text;
    const std::size_t section = text.find(errorRow.fragments[0] + "traced\nBACKTRACE:\n");
    ASSERT_NE(section, std::string::npos) << text;
    EXPECT_NE(text.find("\nvlk_test::outerBacktraceMarker()\n"), std::string::npos) << text;
    const auto frameLines = std::count(text.begin() + static_cast<long>(section), text.end(), '\n');
    EXPECT_LE(frameLines, 2 + 28);
}

// The process ends after its record went out, with 255 or abort() by
// VELK_ABORT, the record with a backtrace for any leading part of
// "backtrace".
TEST_F(Logger, AbortEndsTheProcessAfterTheRecordAsVelkAbortSays) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto abortWith = [](const char* setting) {
        if (setting == nullptr) {
            ::unsetenv("VELK_ABORT");
        } else {
            ::setenv("VELK_ABORT", setting, 1);
        }
        vlk::target_config stderrTarget = config({{"Protocol", "stderr"}, {"Level", "error"}});
        velk_logger::addTarget(stderrTarget);
        velk_logger::start();
        vlk::system::abort("boom");
    };
    const std::string record =
        "emergency: 00-0041 VELK encountered a fatal condition and is "
        "exiting: boom\\.\n";
    EXPECT_EXIT(abortWith(nullptr), testing::ExitedWithCode(255), record + "$");
    EXPECT_EXIT(abortWith(""), testing::ExitedWithCode(255), "boom\\.\nBACKTRACE:\n");
    EXPECT_EXIT(abortWith("back"), testing::ExitedWithCode(255), "boom\\.\nBACKTRACE:\n");
    EXPECT_EXIT(abortWith("backtraces"), testing::KilledBySignal(SIGABRT), record + "$");
    ::unsetenv("VELK_ABORT");
}

TEST_F(Logger, RowDeclaredFatalIsLoggedThenEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto logFatal = [] {
        ::unsetenv("VELK_ABORT");
        vlk::target_config stderrTarget =
            config({{"Protocol", "stderr"}, {"Level", "info"}, {"FatalErrors", "00-0002"}});
        velk_logger::addTarget(stderrTarget);
        velk_logger::start();
        logRow(infoRow, "last words");
    };
    EXPECT_EXIT(logFatal(), testing::ExitedWithCode(255),
                "info: 00-0002 [^\n]*last words\n.*emergency: 00-0041 VELK encountered a fatal "
                "condition and is exiting: error logged is declared fatal\\.\n$");
}

TEST(LoggerWithoutInit, StreamsDoNothingAndAbortWritesToStandardError) {
    EXPECT_FALSE(velk_logger::willLog(errorRow));
    EXPECT_EQ(velk_logger::threadLogId(), 0U);
    logRow(errorRow, "nowhere");  // returns at once
    EXPECT_EXIT(vlk::system::abort("early"), testing::ExitedWithCode(255),
                "^VELK encountered a fatal condition and is exiting: early\\.\n$");
}

}  // namespace
