#include <vlk/containers/thread_tracker.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "../concurrency.hpp"

namespace {

using vlk::lockfree::_lf_thread_tracker_detail::lf_thread_tracker_impl;
using namespace std::chrono_literals;

// Each test uses its own map type, so that each gets a tracker of its own.
struct waiting_map {};
struct churning_map {};

// A wait that never returns hangs the test until its time limit: a failure.
TEST(ThreadTracker, WaitHoldsForASectionOnTheSameMapOnly) {
    using tracker = lf_thread_tracker_impl<waiting_map>;
    constexpr unsigned long mapA = 0xa000, mapB = 0xb000;
    std::atomic<int> step{0};
    std::thread reader([&] {
        std::uint64_t leave = tracker::enter(mapA);
        step.store(1);
        while (step.load() != 2) {
            std::this_thread::yield();
        }
        tracker::leave(leave);
        // Keep entering and leaving: each change of the counter must end
        // a wait on the map, even though the thread is inside again.
        while (step.load() != 3) {
            tracker::leave(tracker::enter(mapA));
        }
    });
    while (step.load() != 1) {
        std::this_thread::yield();
    }
    tracker::leave(tracker::enter(mapB));  // a waiter that used the map is outside it
    tracker::_waitInfo.wait(mapB);         // and a section on another map holds nobody
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        tracker::_waitInfo.wait(mapA);
        done.store(true);
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(done.load()) << "the wait ignored a thread inside the map";
    step.store(2);
    waiter.join();
    for (int i = 0; i < 100; ++i) {
        tracker::_waitInfo.wait(mapA);
    }
    step.store(3);
    reader.join();
}

// Threads start, use the tracker and end while two maps of the type wait
// over and over. Under the sanitizers this shows that no wait reads the
// counter of a thread that is gone or a record that another wait freed.
TEST(ThreadTracker, ThreadsEndingDuringConcurrentWaitsAreNeverReadAfterwards) {
    using tracker = lf_thread_tracker_impl<churning_map>;
    std::atomic<bool> stop{false};
    std::atomic<unsigned long> waits{0};
    vlk_test::onThreads(3, [&](unsigned t) {
        if (t == 2) {
            for (int round = 0; round < 20; ++round) {
                vlk_test::onThreads(3, [](unsigned map) {
                    for (int i = 0; i < 100; ++i) {
                        tracker::leave(tracker::enter(0xa + map));
                    }
                });
            }
            stop.store(true);
            return;
        }
        while (!stop.load()) {
            tracker::_waitInfo.wait(0xa + t);
            waits.fetch_add(1);
            std::this_thread::yield();
        }
    });
    EXPECT_GT(waits.load(), 0u);
    tracker::_waitInfo.wait(0xa);
    EXPECT_EQ(tracker::_waitInfo.threadCount(), 0u);  // every user merged and freed
    EXPECT_EQ(tracker::_waitInfo.pendingCount(), 0u);
}

}  // namespace
