#include <vlk/logging/velk_logger.hpp>

#include <semaphore.h>
#include <unistd.h>

#include <gtest/gtest.h>

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
const auto& criticalRow = vlk::errors::E000035;  // 00-0035 critical
const auto& errorRow = vlk::errors::E300004;     // 30-0004 error

template <typename Row>
void logRow(const Row& row, const std::string& value) {
    velk_logger::log(stream2(row, row.fragments[0], value));
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
    capture_target& target = addCaptureTarget({{"Level", {"developer"}}});
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
    // Codes from 10000 up take the five-digit form; two level bits, empty body.
    velk_logger::log(vlk::error_id{0x10, 0x1F, 10000}, "five digits");
    velk_logger::log(vlk::error_id{0x30, 0x1F, 65535}, "");
    deliver();
    const std::string after = minute();

    // "<local time>:ss.fffffff[+hh:mm] [<log id>] <level>: <identifier> <body>"
    const std::string rests[] = {"info: 00-0002 " + infoRow.fragments[0] + "a\n",
                                 "warning: 1FB10000 five digits", "warning: 1FB65535 "};
    const std::string logId = " [" + std::to_string(velk_logger::threadLogId()) + "] ";
    const auto lines = target.lines();
    ASSERT_EQ(lines.size(), 3U);
    // The time's own form is the timestamp's test; its length shows here.
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& text = lines[i];
        EXPECT_TRUE(text.starts_with(before) || text.starts_with(after))
            << text << " vs " << before;
        const bool offset = text.size() > 27 && (text[27] == '+' || text[27] == '-');
        EXPECT_EQ(text.substr(offset ? 33 : 27), logId + rests[i]);
    }
}

// Once the thread sleeps with no post pending, only the 128th message's post
// or the tick can wake it: it must wake without a tick (a tick that falls
// due within one try fails that try only). A lone message waits for the tick.
TEST_F(Logger, The128thMessageWakesTheSleepingThreadAndTheTickBringsTheRest) {
    auto& impl = *velk_logger::_implementation();
    auto posts = [&] {
        int value = -1;
        ::sem_getvalue(&impl._wakeup, &value);
        return value;
    };
    capture_target& target = addCaptureTarget({{"Level", {"info"}}});
    ASSERT_TRUE(velk_logger::start());
    ASSERT_TRUE(velk_logger::start());  // a second start starts no second thread

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
    const struct {
        std::uint64_t limitRecords;  // 0: no limit
        std::size_t logged, kept;
    } rows[] = {{0, 300, 300}, {10, 25, 10}, {1, 3, 1}};
    for (const auto& r : rows) {
        velk_logger::setQueueLimit(r.limitRecords * perRecord);
        for (std::size_t i = 0; i < r.logged; ++i) {
            velk_logger::log(infoRow, "queued");
        }
        capture_target& target = addCaptureTarget({{"Level", {"info"}}});
        ASSERT_TRUE(velk_logger::start());
        deliver();
        velk_logger::log(infoRow, "after");
        deliver();
        const auto lines = target.lines();
        const std::size_t dropped = r.logged - r.kept;
        ASSERT_EQ(lines.size(), r.kept + (dropped > 0 ? 2 : 1)) << "limit " << r.limitRecords;
        const auto notice = " logger: " + std::to_string(dropped) + " records dropped at the queue";
        EXPECT_EQ(lines[0].find(notice) != std::string::npos, dropped > 0) << lines[0];
        TearDown();
        SetUp();
    }
}

// Which rows each target takes is the targets' own test, and the demo
// program's, whose targets filter each for itself.
TEST_F(Logger, WillLogAsksTheTargetsAndFlushRotateAndShutdownReachThemOnce) {
    capture_target& target = addCaptureTarget({{"Level", {"info"}}});
    velk_logger::shutdown();  // before start: nothing, the target stays
    EXPECT_EQ(target.shutdowns.load(), 0);
    EXPECT_TRUE(velk_logger::willLog(vlk::errors::E000005));  // everything queues before start

    ASSERT_TRUE(velk_logger::start());
    EXPECT_TRUE(velk_logger::willLog(infoRow));
    EXPECT_FALSE(velk_logger::willLog(vlk::errors::E000005));  // developer: no target takes it
    velk_logger::flush(0);                                     // posts and returns without waiting
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

// 8 producers on 2 cores, through a target that holds the logging thread up
// now and then: every record arrives once, each thread's in order.
TEST_F(Logger, StressEveryRecordArrivesOnceAndInOrderPerThread) {
    constexpr int perThread = 20'000 * vlk_test::stress_scale;
    constexpr int threads = 8;
    capture_target& target = addCaptureTarget({{"Level", {"info"}}});
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
    for (const auto& line : target.lines()) {
        if (line.find(" 00-0027 ") != std::string::npos) {  // a thread enlisted: counted end to end
            continue;
        }
        const std::size_t at = line.find(prefix);
        ASSERT_NE(at, std::string::npos) << line;
        int producer = -1, sequence = -1;
        std::istringstream(line.substr(at + prefix.size())) >> producer >> sequence;
        ASSERT_EQ(sequence, next.at(producer)++) << "producer " << producer;
    }
    EXPECT_EQ(next, std::vector<int>(threads, perThread));
    velk_logger::reap();
}

// Each row ends the process after its record went out: with 255, or with
// abort() as VELK_ABORT says, the record with a backtrace for any leading
// part of "backtrace", whose frames are named demangled; a row declared
// fatal, also when that covers the fatal record itself (".") and on two
// threads at once (no recursion, no fault, and the other thread's row may
// follow); a mapping that keeps failing, once the logger has taken over the
// bottom layer's reports. terminate() after shutdown() writes what is left
// at error and above to standard error.
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
    const std::function<void()> terminateWithQueued = [] {
        velk_logger::shutdown();
        logRow(infoRow, "dropped");
        logRow(errorRow, "kept");
        logRow(criticalRow, "kept too");
        velk_logger::terminate();
        std::_Exit(velk_logger::willLog(errorRow) ? 1 : 255);  // nothing is left to log to
    };
    const struct {
        const char *velkAbort, *fatalErrors;  // velkAbort nullptr: unset
        std::function<void()> action;
        int signal;  // 0: exit status 255
        std::string output;
    } rows[] = {
        {nullptr, "", boom, 0, exiting + "boom\\.\n$"},
        {"", "", boom, 0, "boom\\.\nBACKTRACE:\n.*\nvlk::system::abort\\("},
        {"back", "", boom, 0, "boom\\.\nBACKTRACE:\n"},
        {"backtraces", "", boom, SIGABRT, exiting + "boom\\.\n$"},
        {nullptr, ".", lastWordsOn(0), 0, lastWords + "$"},
        {nullptr, "00-0002", lastWordsOn(2), 0, lastWords},
        {nullptr, "", terminateWithQueued, 0,
         "^[^\n]*] error: 30-0004 [^\n]*kept\n[^\n]*] critical: 00-0035 [^\n]*kept too\n$"},
        {nullptr, "", [] { vlk::mmap(0); }, 0,  // refused each time: gives up after a second
         "emergency: 00-0046 mmap failure:\n system errno          = [^\n]+\n "
         "VELK mapped count     = [0-9]+\n VELK unmapped count   = [0-9]+\n"},
    };
    for (const auto& r : rows) {
        auto die = [&r] {
            r.velkAbort == nullptr ? ::unsetenv("VELK_ABORT")
                                   : ::setenv("VELK_ABORT", r.velkAbort, 1);
            vlk::target_config stderrTarget = {
                {"Protocol", {"stderr"}}, {"Level", {"info"}}, {"FatalErrors", {r.fatalErrors}}};
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

// Without init() streams do nothing; init() takes the bottom layer's fatal
// reports over (whose own text is the bottom layer's test), terminate()
// gives them back.
TEST(LoggerWithoutInit, StreamsDoNothingAndInitHoldsTheFatalReportsUntilTerminate) {
    EXPECT_FALSE(velk_logger::willLog(errorRow));
    EXPECT_EQ(velk_logger::threadLogId(), 0U);
    logRow(errorRow, "nowhere");  // returns at once
    auto taken = [defaults = vlk::system::defaultFatalReporters()] {
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

}  // namespace
