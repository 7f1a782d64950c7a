#include <vlk/system/thread.hpp>

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/errors.hpp>
#include <vlk/logging/velk_logger.hpp>
#include <vlk/system/exception.hpp>
#include <vlk/system/host.hpp>

#include "../concurrency.hpp"
#include "../logging/capture_target.hpp"

namespace {

// Yields until `done()`; bounded so that a fault fails instead of hanging.
template <typename Predicate>
bool eventually(Predicate done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    return done();
}

// Counts the terminate function's calls; cleared after every test so that
// no function capturing a finished fixture stays behind.
class Thread : public ::testing::Test {
  protected:
    void SetUp() override {
        vlk::system::thread::setThreadTerminateFunction([this] { terminated.fetch_add(1); });
    }
    void TearDown() override { vlk::system::thread::setThreadTerminateFunction({}); }

    std::atomic<int> terminated{0};
    std::atomic<bool> release{false};
    std::function<void()> blockUntilReleased = [this] {
        eventually([this] { return release.load(); });
    };
};

TEST_F(Thread, StartReturnsRunningRefusesASecondStartAndJoinersWait) {
    EXPECT_FALSE(vlk::thread().start());  // no body
    pid_t seenTid = 0;
    pthread_t seenSelf{};
    stack_t signalStack{};
    std::atomic<int> replacementRuns{0};
    const std::function<void()> replacement = [&] { replacementRuns.fetch_add(1); };
    vlk::thread thread([&] {
        seenTid = vlk::system::threadId();
        seenSelf = pthread_self();
        sigaltstack(nullptr, &signalStack);
        blockUntilReleased();
    });
    ASSERT_TRUE(thread.start());
    // The body is still blocked: start itself waited for the thread to report.
    EXPECT_TRUE(thread.isRunning());
    EXPECT_NE(thread.tid(), 0);
    EXPECT_FALSE(thread.start(replacement, 0));
    // Joiners on copies wait until the body ends.
    std::atomic<int> joined{0};
    vlk_test::onThreads(4, [&](unsigned i) {
        if (i == 3) {  // releases the body once the others have had time to join
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            EXPECT_EQ(joined.load(), 0);
            release = true;
            return;
        }
        vlk::thread(thread).join();
        joined.fetch_add(1);
    });
    EXPECT_EQ(joined.load(), 3);
    EXPECT_EQ(thread.tid(), seenTid);
    EXPECT_NE(pthread_equal(thread.self(), seenSelf), 0);
    // The body handles signals on an alternate stack of its own.
    EXPECT_EQ(signalStack.ss_flags & SS_DISABLE, 0);
    EXPECT_EQ(signalStack.ss_size, vlk::thread_impl::alternate_stack_size);

    // Joined, it starts again (only now) with the body the refused call
    // installed, and stays running once that returns until it is joined
    // again; a failed create throws and leaves it startable.
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(eventually([&] { return terminated.load() == 2; }));
    EXPECT_TRUE(thread.isRunning());
    thread.join();
    thread.join();
    EXPECT_EQ(replacementRuns.load(), 1);
    EXPECT_THROW(thread.start(replacement, std::uint64_t{1} << 47), vlk::exception);  // no room
    ASSERT_TRUE(thread.start());
    thread.join();
    EXPECT_EQ(replacementRuns.load(), 2);
    EXPECT_EQ(terminated.load(), 3);
}

// A detached thread stays running for ever, and join no longer waits.
TEST_F(Thread, DetachedThreadsStayRunning) {
    vlk::thread thread(blockUntilReleased);
    ASSERT_TRUE(thread.start());
    thread.detach();
    thread.join();
    EXPECT_EQ(terminated.load(), 0);  // the body is still blocked
    release = true;
    ASSERT_TRUE(eventually([&] { return terminated.load() == 1; }));
    EXPECT_TRUE(thread.isRunning());
    EXPECT_FALSE(thread.start());
    // Nothing tells when a detached thread has left its object for good.
    static vlk::thread keepAlive;
    keepAlive = thread;
}

// Records of escaped exceptions queue until the logging thread starts; the
// forced unwinding of pthread_exit goes on without one.
TEST_F(Thread, EscapedExceptionIsLoggedOnceAndTheThreadStillTerminates) {
    const std::string withNul("half\0hidden", 11);  // why() keeps it whole, what() not
    const std::function<void()> bodies[] = {
        [] { throw std::runtime_error("disk on fire"); },
        [&] { throw vlk::exception(withNul); },
        [] { throw 42; },
        [] { pthread_exit(nullptr); },
    };
    vlk::error_manager::init();
    vlk::velk_logger::init();
    for (const auto& body : bodies) {
        vlk::thread thread(body);
        EXPECT_TRUE(thread.start());
        thread.join();
    }
    EXPECT_EQ(terminated.load(), 4);
    vlk_test::capture_target& target =
        vlk_test::addCaptureTarget({{"IncludeErrors", vlk::friendly_value("30-0004")}});
    vlk::velk_logger::start();
    vlk::velk_logger::shutdown();
    vlk::velk_logger::terminate();
    std::string reported;
    for (const auto& line : target.lines()) {
        reported += line.substr(line.find("30-0004 ") + 8);
    }
    const std::string row = vlk::errors::E300004.fragments[0];
    EXPECT_EQ(reported, row + "disk on fire\n" + row + withNul + "\n" + row + "unknown\n");
    vlk_test::madeTargets().clear();
}

}  // namespace
