#include <vlk/logging/velk_logger.hpp>

#include <semaphore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/errors.hpp>
#include <vlk/logging/internal/velk_logger_impl.hpp>
#include <vlk/logging/target.hpp>
#include <vlk/system/fatal.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/mmap.hpp>

#include "../concurrency.hpp"
#include "capture_target.hpp"

namespace {

using vlk::velk_logger;
using vlk_test::addCaptureTarget;
using vlk_test::capture_target;
using vlk_test::deliver;

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

// Whether `text` from `at` on starts with `shape`, in which 'd' stands for
// any digit.
bool hasShape(const std::string& text, std::size_t at, const std::string& shape) {
    return text.size() >= at + shape.size() &&
           std::equal(shape.begin(), shape.end(), text.begin() + static_cast<long>(at),
                      [](char s, char c) { return s == 'd' ? c >= '0' && c <= '9' : s == c; });
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
    // Set per test, so that it is restored after each one: a death test in
    // another suite runs in a child started with the default style.
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        velk_logger::init();
    }
    void TearDown() override {
        velk_logger::shutdown();
        velk_logger::terminate();
        vlk_test::madeTargets().clear();
    }
};

// The values' own text is the error streams' matter, tested with them.
TEST_F(Logger, RecordLineHasTimeThreadLevelIdentifierAndBodyByteForByte) {
    capture_target& target = addCaptureTarget(config({{"Level", "developer"}}));
    ASSERT_TRUE(velk_logger::start());
    auto minute = [] {  // the local time now, to the minute
        char text[32];
        const std::time_t now = std::time(nullptr);
        tm local{};
        return std::string(
            text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M", ::localtime_r(&now, &local)));
    };
    const std::string before = minute();
    logRow(infoRow, "a");
    velk_logger::log(vlk::error_id{0x10, 0x1F, 12345}, "five digits");
    velk_logger::log(vlk::error_id{0x30, 0x1F, 7}, "");  // two level bits, empty body
    deliver();
    const std::string after = minute();

    // "<local time>:ss.fffffff[+hh:mm] [<log id>] <level>: <identifier> <body>"
    const std::string rests[] = {"info: 00-0002 " + infoRow.fragments[0] + "a\n",
                                 "warning: 1FB12345 five digits", "warning: 1F-0007 "};
    const std::string logId = " [" + std::to_string(velk_logger::threadLogId()) + "] ";
    const auto lines = target.lines();
    ASSERT_EQ(lines.size(), 3U);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& text = lines[i].text;
        ASSERT_TRUE(hasShape(text, 0, "dddd-dd-ddTdd:dd:dd.ddddddd")) << text;
        const bool offset = text[27] == '+' || text[27] == '-';
        EXPECT_TRUE(!offset || hasShape(text, 28, "dd:dd")) << text;
        EXPECT_TRUE(text.starts_with(before) || text.starts_with(after))
            << text << " vs " << before;
        EXPECT_EQ(text.substr(offset ? 33 : 27), logId + rests[i]);
    }
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

    auto values = [](const capture_target& target) {
        std::string text;
        for (const auto& line : target.lines()) {
            text += line.text.end()[-2];  // the value, before the line feed
        }
        return text;
    };
    EXPECT_EQ(values(warnings), "ab");  // included info, warning; critical excluded
    EXPECT_EQ(values(everything), "abc");
    EXPECT_EQ(values(included), "");
}

// Before start no thread takes the posts, so they can be counted. Once the
// thread sleeps with no post pending, only the 128th message's post or the
// tick can wake it: it must wake without a tick (a tick that falls due
// within one try fails that try only). A lone message waits for the tick.
TEST_F(Logger, The128thMessageWakesTheSleepingThreadAndTheTickBringsTheRest) {
    auto& impl = *velk_logger::_implementation();
    auto posts = [&] {
        int value = -1;
        ::sem_getvalue(&impl._wakeup, &value);
        return value;
    };
    for (int i = 0; i < 127; ++i) {
        velk_logger::log(infoRow, "early");
    }
    EXPECT_EQ(posts(), 0);
    velk_logger::log(infoRow, "128th");
    EXPECT_EQ(posts(), 1);

    capture_target& target = addCaptureTarget(config({{"Level", "info"}}));
    ASSERT_TRUE(velk_logger::start());
    ASSERT_TRUE(velk_logger::start());  // a second start starts no second thread
    deliver();
    EXPECT_EQ(target.lines().size(), 128U);  // queued before start, delivered by the first passes

    // Logs one message; true once it has arrived, within 10 s.
    auto logAndWait = [&target](const char* text) {
        const std::size_t before = target.lines().size();
        velk_logger::log(infoRow, text);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (target.lines().size() == before && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        return target.lines().size() > before;
    };
    bool wokenByPost = false;
    for (int attempt = 0; attempt < 5 && !wokenByPost; ++attempt) {
        while (impl._messageCount.load() % 128 != 127) {
            velk_logger::log(infoRow, "filler");
        }
        deliver();
        while (impl._asleep.load() == 0 || posts() != 0) {
            std::this_thread::yield();
        }
        const std::uint64_t ticks = impl._tickWakes.load();
        wokenByPost = logAndWait("128th") && impl._tickWakes.load() == ticks;
    }
    EXPECT_TRUE(wokenByPost);
    EXPECT_TRUE(logAndWait("on the tick"));
}

// Records queued before start find no consumer: the limit keeps what fits,
// counts the rest, and one line says how many before the next record
// delivered, here the first.
TEST_F(Logger, QueueLimitDropsPastTheLimitAndSaysHowManyBeforeTheNextRecord) {
    const std::uint64_t perRecord = vlk::log_stream_allocator::blockSize(128) +
                                    sizeof(vlk::_velk_logger_detail::fast_log_message);
    struct row {
        std::uint64_t limitRecords;  // 0: no limit
        std::size_t logged, kept;
    };
    for (const row& r : {row{0, 300, 300}, row{10, 25, 10}, row{1, 3, 1}}) {
        velk_logger::setQueueLimit(r.limitRecords * perRecord);
        for (std::size_t i = 0; i < r.logged; ++i) {
            velk_logger::log(infoRow, "queued");
        }
        capture_target& target = addCaptureTarget(config({{"Level", "info"}}));
        ASSERT_TRUE(velk_logger::start());
        deliver();
        velk_logger::log(infoRow, "after");
        deliver();
        const auto lines = target.lines();
        const std::size_t notices = r.logged > r.kept ? 1 : 0;
        ASSERT_EQ(lines.size(), r.kept + notices + 1) << "limit " << r.limitRecords;
        const std::string notice =
            " logger: " + std::to_string(r.logged - r.kept) + " records dropped at the queue";
        EXPECT_EQ(lines[0].text.find(notice) != std::string::npos, notices == 1)
            << "limit " << r.limitRecords << ": " << lines[0].text;
        EXPECT_NE(lines.back().text.find("after"), std::string::npos) << lines.back().text;
        TearDown();
        SetUp();
    }
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

    target.delayMicroseconds = 20000;  // a second for all of them
    for (int i = 0; i < 50; ++i) {
        logRow(infoRow, std::to_string(i));
    }
    EXPECT_GT(velk_logger::queuedCount(), 0U);
    // The timed form gives up on the slow target and leaves it alone.
    EXPECT_FALSE(velk_logger::shutdown(10));
    EXPECT_EQ(target.shutdowns.load(), 0);
    velk_logger::shutdown();  // the last pass delivers everything queued
    EXPECT_EQ(target.lines().size(), 50U);
    EXPECT_EQ(velk_logger::queuedCount(), 0U);
    EXPECT_EQ(target.shutdowns.load(), 1);
    EXPECT_GE(target.flushes.load(), 1);
    EXPECT_TRUE(velk_logger::shutdown(10));
    velk_logger::shutdown();
    EXPECT_EQ(target.shutdowns.load(), 1);
}

// In a child of its own, whose standard error the death test reads.
TEST_F(Logger, TerminateWritesWhatIsLeftAtErrorAndAboveToStandardError) {
    auto terminateWithQueued = [] {
        addCaptureTarget(config({{"Level", "info"}}));
        velk_logger::start();
        velk_logger::shutdown();
        logRow(infoRow, "dropped");
        logRow(errorRow, "kept");
        logRow(criticalRow, "kept too");
        velk_logger::terminate();
        std::_Exit(velk_logger::willLog(errorRow) ? 1 : 0);  // nothing is left to log to
    };
    EXPECT_EXIT(terminateWithQueued(), testing::ExitedWithCode(0),
                "^[^\n]*] error: 30-0004 [^\n]*kept\n[^\n]*] critical: 00-0035 [^\n]*kept too\n$");
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
    vlk_test::onThreads(threads, [](unsigned t) {
        for (int i = 0; i < perThread; ++i) {
            logRow(infoRow, std::to_string(t) + " " + std::to_string(i));
        }
        velk_logger::threadTerminate();
    });
    velk_logger::shutdown();

    // Each producer is one thread: its own sequence numbers, in order.
    const std::string prefix = "] info: 00-0002 " + infoRow.fragments[0];
    std::vector<int> next(threads, 0);
    std::size_t enlisted = 0;
    for (const auto& line : target.lines()) {
        if (line.id == vlk::errors::E000027) {
            ++enlisted;
            continue;
        }
        const std::size_t at = line.text.find(prefix);
        ASSERT_NE(at, std::string::npos) << line.text;
        int producer = -1, sequence = -1;
        std::istringstream(line.text.substr(at + prefix.size())) >> producer >> sequence;
        ASSERT_EQ(sequence, next.at(producer)++) << "producer " << producer;
    }
    EXPECT_EQ(enlisted, static_cast<std::size_t>(threads));
    EXPECT_EQ(next, std::vector<int>(threads, perThread));
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

// Each row ends the process after its record went out: with 255, or with
// abort() as VELK_ABORT says, the record with a backtrace for any leading
// part of "backtrace"; a row declared fatal, also when that covers the fatal
// record itself (".") and on two threads at once (no recursion, no fault,
// and the other thread's row may follow); a mapping that keeps failing, once
// the logger has taken over the bottom layer's reports.
TEST_F(Logger, FatalPathsEndTheProcessAfterTheirRecord) {
    const std::string exiting =
        "emergency: 00-0041 VELK encountered a fatal condition and is exiting: ";
    const std::string lastWords =
        "info: 00-0002 [^\n]*last words\n.*" + exiting + "error logged is declared fatal\\.\n";
    const std::function<void()> boom = [] { vlk::system::abort("boom"); };
    const auto lastWordsOn = [](unsigned threads) {
        return [threads] {
            vlk_test::onThreads(threads, [](unsigned) { logRow(infoRow, "last words"); });
            logRow(infoRow, "last words");
        };
    };
    const struct {
        const char *velkAbort, *fatalErrors;  // velkAbort nullptr: unset
        std::function<void()> action;
        int signal;  // 0: exit status 255
        std::string output;
    } rows[] = {
        {nullptr, "", boom, 0, exiting + "boom\\.\n$"},
        {"", "", boom, 0, "boom\\.\nBACKTRACE:\n"},
        {"back", "", boom, 0, "boom\\.\nBACKTRACE:\n"},
        {"backtraces", "", boom, SIGABRT, exiting + "boom\\.\n$"},
        {nullptr, "00-0002", lastWordsOn(0), 0, lastWords + "$"},
        {nullptr, ".", lastWordsOn(0), 0, lastWords + "$"},
        {nullptr, "00-0002", lastWordsOn(2), 0, lastWords},
        {nullptr, "", [] { vlk::mmap(0); }, 0,  // refused each time: gives up after a second
         "emergency: 00-0046 mmap failure:\n system errno          = [^\n]+\n "
         "VELK mapped count     = [0-9]+\n VELK unmapped count   = [0-9]+\n"},
    };
    for (const auto& r : rows) {
        auto die = [&r] {
            r.velkAbort == nullptr ? ::unsetenv("VELK_ABORT")
                                   : ::setenv("VELK_ABORT", r.velkAbort, 1);
            vlk::target_config stderrTarget =
                config({{"Protocol", "stderr"}, {"Level", "info"}, {"FatalErrors", r.fatalErrors}});
            velk_logger::addTarget(stderrTarget);
            velk_logger::start();
            r.action();
        };
        auto ended = [&r](int status) {
            return r.signal != 0 ? WIFSIGNALED(status) && WTERMSIG(status) == r.signal
                                 : WIFEXITED(status) && WEXITSTATUS(status) == 255;
        };
        EXPECT_EXIT(die(), ended, r.output)
            << (r.velkAbort ? r.velkAbort : "-") << " / " << r.fatalErrors << " / " << r.output;
    }
    ::unsetenv("VELK_ABORT");
}

// init() takes the bottom layer's fatal reports over; terminate() gives
// them back.
TEST(LoggerWithoutInit, InitTakesOverTheFatalReportsAndTerminateGivesThemBack) {
    const auto defaults = vlk::system::defaultFatalReporters();
    auto taken = [&defaults] {
        const auto now = vlk::system::fatalReporters();
        return std::array{now.abort != defaults.abort,
                          now.mappingFailure != defaults.mappingFailure,
                          now.escapedException != defaults.escapedException};
    };
    const std::array none{false, false, false}, all{true, true, true};
    EXPECT_EQ(taken(), none);
    vlk::error_manager::init();
    velk_logger::init();
    EXPECT_EQ(taken(), all);
    velk_logger::terminate();
    EXPECT_EQ(taken(), none);
}

TEST(LoggerWithoutInit, StreamsDoNothingAndAbortWritesToStandardError) {
    EXPECT_FALSE(velk_logger::willLog(errorRow));
    EXPECT_EQ(velk_logger::threadLogId(), 0U);
    logRow(errorRow, "nowhere");  // returns at once
    EXPECT_EXIT(vlk::system::abort("early"), testing::ExitedWithCode(255),
                "^VELK encountered a fatal condition and is exiting: early\\.\n$");
}

}  // namespace
