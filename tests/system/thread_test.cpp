#include <vlk/system/thread.hpp>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <vlk/catalogue/errors.hpp>
#include <vlk/system/exception.hpp>
#include <vlk/system/host.hpp>

namespace {

using namespace std::chrono_literals;

// Spins (with yields) until `flag` is set; bounded so a fault fails the test
// instead of hanging it.
bool waitFor(const std::atomic<bool>& flag) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!flag.load()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

// Counts the terminate function's calls; reset around every test so no
// test leaves a function behind that captures its locals.
class Thread : public ::testing::Test {
  protected:
    void SetUp() override {
        vlk::system::thread::setThreadTerminateFunction([this] { terminated.fetch_add(1); });
    }
    void TearDown() override { vlk::system::thread::setThreadTerminateFunction({}); }

    std::atomic<int> terminated{0};
};

TEST_F(Thread, StartReturnsWithTidAndSelfOfTheRunningThread) {
    pid_t seenTid = 0;
    pthread_t seenSelf{};
    std::atomic<bool> release{false};
    vlk::thread thread([&] {
        seenTid = vlk::system::threadId();
        seenSelf = pthread_self();
        waitFor(release);
    });
    ASSERT_TRUE(thread.start());
    // Read before the body could possibly be released: start itself must
    // have waited for the thread to report.
    EXPECT_TRUE(thread.isRunning());
    EXPECT_NE(thread.tid(), 0);
    EXPECT_NE(thread.tid(), vlk::system::threadId());
    EXPECT_EQ(pthread_equal(thread.self(), pthread_self()), 0);
    release = true;
    thread.join();
    EXPECT_EQ(thread.tid(), seenTid);
    EXPECT_NE(pthread_equal(thread.self(), seenSelf), 0);
    EXPECT_EQ(terminated.load(), 1);

    vlk::thread empty(std::move(thread));
    EXPECT_EQ(thread.tid(), 0);
    EXPECT_FALSE(thread.start());
    EXPECT_EQ(empty.tid(), seenTid);
}

TEST_F(Thread, StartRefusesWithoutBodyWhileRunningAndStillReplacesTheBody) {
    vlk::thread none;
    EXPECT_FALSE(none.start());
    EXPECT_FALSE(none.isRunning());
    none.join();  // idle: returns at once

    std::atomic<bool> release{false};
    std::atomic<int> firstRuns{0}, secondRuns{0};
    vlk::thread thread([&] {
        firstRuns.fetch_add(1);
        waitFor(release);
    });
    ASSERT_TRUE(thread.start());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.start([&] { secondRuns.fetch_add(1); }, 0));
    release = true;
    thread.join();
    EXPECT_EQ(firstRuns.load(), 1);
    EXPECT_EQ(secondRuns.load(), 0);

    // After a join the object starts again, with the body the refused call
    // installed.
    ASSERT_TRUE(thread.start());
    thread.join();
    thread.join();  // a second join returns at once
    EXPECT_EQ(firstRuns.load(), 1);
    EXPECT_EQ(secondRuns.load(), 1);
    EXPECT_EQ(terminated.load(), 2);
}

TEST_F(Thread, RunningLastsUntilJoinAndConcurrentJoinersAllReturn) {
    std::atomic<bool> release{false}, bodyDone{false};
    vlk::thread thread([&] {
        waitFor(release);
        bodyDone = true;
    });
    ASSERT_TRUE(thread.start());
    std::atomic<int> joined{0};
    std::vector<std::thread> joiners;
    for (int i = 0; i < 3; ++i) {
        joiners.emplace_back([copy = thread, &joined]() mutable {
            copy.join();
            joined.fetch_add(1);
        });
    }
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(joined.load(), 0);
    release = true;
    ASSERT_TRUE(waitFor(bodyDone));
    for (auto& joiner : joiners) {
        joiner.join();
    }
    EXPECT_EQ(joined.load(), 3);
    EXPECT_FALSE(thread.isRunning());

    // A body that has returned leaves the thread running until the join.
    ASSERT_TRUE(thread.start());
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (terminated.load() < 2 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    ASSERT_EQ(terminated.load(), 2);
    EXPECT_TRUE(thread.isRunning());
    thread.join();
    EXPECT_FALSE(thread.isRunning());
}

TEST_F(Thread, DetachedThreadIsNotJoinedAndCannotRestart) {
    std::atomic<bool> release{false};
    vlk::thread thread([&] { waitFor(release); });
    ASSERT_TRUE(thread.start());
    thread.detach();
    thread.join();  // would block until `release` if it joined
    EXPECT_TRUE(thread.isRunning());
    release = true;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (terminated.load() == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(terminated.load(), 1);
    EXPECT_TRUE(thread.isRunning());  // a detached thread stays running
    EXPECT_FALSE(thread.start());
    // Nothing tells when a detached thread has left its object for good, so
    // the object lives until the process ends.
    static vlk::thread keepAlive;
    keepAlive = thread;
}

// Where a signal handler ran: the address of its frame.
std::atomic<std::uintptr_t> g_handlerFrame{0};
void recordFrame(int) {
    g_handlerFrame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
}

TEST_F(Thread, EachThreadHandlesSignalsOnItsOwnAlternateStack) {
    struct sigaction action {};
    action.sa_handler = recordFrame;
    action.sa_flags = SA_ONSTACK;
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

    struct observed {
        stack_t stack{};
        std::uintptr_t frame = 0;
    };
    auto probe = [](observed& out) {
        sigaltstack(nullptr, &out.stack);
        raise(SIGUSR1);
        out.frame = g_handlerFrame.load();
    };
    observed first, second;
    vlk::thread a([&] { probe(first); });
    vlk::thread b([&] { probe(second); });
    ASSERT_TRUE(a.start());
    a.join();
    ASSERT_TRUE(b.start());
    b.join();
    sigaction(SIGUSR1, &previous, nullptr);

    for (const observed* seen : {&first, &second}) {
        EXPECT_EQ(seen->stack.ss_flags & SS_DISABLE, 0);
        EXPECT_EQ(seen->stack.ss_size, vlk::thread_impl::alternate_stack_size);
        auto base = reinterpret_cast<std::uintptr_t>(seen->stack.ss_sp);
        EXPECT_GT(seen->frame, base);
        EXPECT_LE(seen->frame, base + seen->stack.ss_size);
    }
    EXPECT_NE(first.stack.ss_sp, second.stack.ss_sp);

    // run() on the calling thread of an idle object skips the body but still
    // ends through the terminate function, and gives back the caller's own
    // signal stack.
    stack_t before{}, after{};
    sigaltstack(nullptr, &before);
    vlk::thread_impl impl([] { FAIL() << "an idle object's body ran"; });
    impl.run();
    sigaltstack(nullptr, &after);
    EXPECT_EQ(after.ss_sp, before.ss_sp);
    EXPECT_EQ(after.ss_flags, before.ss_flags);
    EXPECT_EQ(terminated.load(), 3);
}

std::uint64_t stackSizeOfAThreadStartedWith(std::uint64_t requested) {
    std::uint64_t size = 0;
    vlk::thread thread;
    thread.start(
        [&size] {
            pthread_attr_t attributes;
            pthread_getattr_np(pthread_self(), &attributes);
            std::size_t bytes = 0;
            pthread_attr_getstacksize(&attributes, &bytes);
            pthread_attr_destroy(&attributes);
            size = bytes;
        },
        requested);
    thread.join();
    return size;
}

TEST_F(Thread, StackSizeIsRaisedToTheMinimumAndZeroMeansTheDefault) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer enlarges small thread stacks";
#else
    // The libc hands a freed stack to a later thread that asks for up to
    // four times less; falling sizes five times apart get fresh stacks each.
    ASSERT_EQ(vlk::system::thread::defaultStackSize(), 0U);
    const std::uint64_t systemDefault = vlk::thread::getstacksize();
    EXPECT_EQ(stackSizeOfAThreadStartedWith(0), systemDefault);
    EXPECT_EQ(stackSizeOfAThreadStartedWith(400 * 1024), 400U * 1024);

    // A default size replaces 0 and reaches threads made elsewhere too.
    vlk::system::thread::defaultStackSize(80 * 1024);
    EXPECT_EQ(vlk::system::thread::defaultStackSize(), 80U * 1024);
    EXPECT_EQ(vlk::thread::getstacksize(), 80U * 1024);
    EXPECT_EQ(stackSizeOfAThreadStartedWith(0), 80U * 1024);
    EXPECT_EQ(stackSizeOfAThreadStartedWith(100), vlk::thread_impl::minimum_stack_size);

    vlk::system::thread::defaultStackSize(systemDefault);
    EXPECT_EQ(vlk::thread::getstacksize(), systemDefault);
    vlk::system::thread::defaultStackSize(0);  // the libc keeps its default
    EXPECT_EQ(vlk::thread::getstacksize(), systemDefault);
#endif
}

TEST_F(Thread, FailedCreateThrowsAndLeavesTheObjectStartable) {
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    // Larger than the whole user address space.
    pthread_attr_setstacksize(&huge, std::size_t{1} << 47);
    std::atomic<int> runs{0};
    vlk::thread thread([&] { runs.fetch_add(1); });
    try {
        thread.start(huge);
        ADD_FAILURE() << "start with an impossible stack succeeded";
    } catch (const vlk::exception& error) {
        EXPECT_EQ(error.why().rfind("thread_impl::start - pthread_create failed: ", 0), 0U)
            << error.why();
    }
    pthread_attr_destroy(&huge);
    EXPECT_FALSE(thread.isRunning());
    ASSERT_TRUE(thread.start());
    thread.join();
    EXPECT_EQ(runs.load(), 1);
}

// Sends fd 2 into an anonymous file while alive; text() gives what arrived.
class stderr_capture {
  public:
    stderr_capture() : _file(memfd_create("stderr", 0)), _saved(dup(STDERR_FILENO)) {
        dup2(_file, STDERR_FILENO);
    }
    ~stderr_capture() {
        restore();
        close(_file);
    }
    std::string text() {
        restore();
        std::string text(static_cast<std::size_t>(lseek(_file, 0, SEEK_END)), '\0');
        ssize_t read = pread(_file, text.data(), text.size(), 0);
        text.resize(read > 0 ? static_cast<std::size_t>(read) : 0);
        return text;
    }

  private:
    void restore() {
        if (_saved >= 0) {
            dup2(_saved, STDERR_FILENO);
            close(_saved);
            _saved = -1;
        }
    }
    int _file;
    int _saved;
};

TEST_F(Thread, EscapedExceptionIsReportedOnceAndTheThreadStillTerminates) {
    const std::string& rowText = vlk::errors::E300004.fragments[0];
    ASSERT_EQ(rowText, "An VELK created thread encountered an unexpected exception: ");
    struct escape {
        const char* name;
        std::function<void()> body;
        std::string expected;
    };
    const std::string withNul("half\0hidden", 11);
    const escape cases[] = {
        {"std::exception", [] { throw std::runtime_error("disk on fire"); }, "disk on fire"},
        // why(), not what(): the text is kept whole past an embedded NUL.
        {"vlk::exception", [&] { throw vlk::exception(withNul); }, withNul},
        {"derived vlk::exception",
         [] { throw vlk::string_convert_detail::parse_exception("bad digit"); }, "bad digit"},
        {"int", [] { throw 42; }, "unknown"},
    };
    int expectedTerminations = 0;
    for (const escape& c : cases) {
        SCOPED_TRACE(c.name);
        stderr_capture capture;
        vlk::thread thread(c.body);
        ASSERT_TRUE(thread.start());
        thread.join();
        EXPECT_EQ(capture.text(), rowText + c.expected + "\n");
        EXPECT_EQ(terminated.load(), ++expectedTerminations);
    }
}

TEST_F(Thread, PthreadExitInTheBodyStillTerminatesWithoutAReport) {
    stderr_capture capture;
    vlk::thread thread([] { pthread_exit(nullptr); });
    ASSERT_TRUE(thread.start());
    thread.join();
    EXPECT_EQ(capture.text(), "");
    EXPECT_EQ(terminated.load(), 1);
}

TEST_F(Thread, ManyStartsAndJoinsRunEveryBodyOnItsOwnThread) {
    constexpr int kRounds = 200;
    std::atomic<int> runs{0};
    std::atomic<bool> sawCaller{false};
    const pid_t caller = vlk::system::threadId();
    auto body = [&] {
        runs.fetch_add(1);
        if (vlk::system::threadId() == caller) {
            sawCaller = true;
        }
    };
    vlk::thread reused(body);
    for (int i = 0; i < kRounds; ++i) {
        vlk::thread fresh(body);
        ASSERT_TRUE(fresh.start());
        ASSERT_TRUE(reused.start());
        vlk::thread copy = fresh;  // the copy keeps the object alive
        fresh = vlk::thread();
        copy.join();
        reused.join();
    }
    EXPECT_EQ(runs.load(), 2 * kRounds);
    EXPECT_EQ(terminated.load(), 2 * kRounds);
    EXPECT_FALSE(sawCaller.load());
}

}  // namespace
