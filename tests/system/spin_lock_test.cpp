#include <vlk/system/spin_lock.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "../concurrency.hpp"

namespace {

using vlk::lock::spin_lock_impl;

TEST(SpinLock, ExcludesAndKeepsErrnoAcrossALongWait) {
    spin_lock_impl<unsigned long> lock;
    lock.lock();
    std::atomic<bool> waiting{false};
    int errnoAfter = 0;
    std::thread waiter([&] {
        errno = EIO;
        waiting.store(true);
        lock.lock();  // spins through pauses into many sched_yield rounds
        errnoAfter = errno;
        lock.unlock();
    });
    while (!waiting.load()) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(lock.isLocked());
    lock.unlock();
    waiter.join();
    EXPECT_EQ(errnoAfter, EIO);
    EXPECT_FALSE(lock.isLocked());
}

TEST(SpinLock, StressCountsEveryIncrementOnce) {
    spin_lock_impl<unsigned long> lock;
    std::uint64_t counter = 0;  // guarded by `lock` only
    constexpr int kThreads = 4, kIterations = 200000;
    vlk_test::onThreads(kThreads, [&](unsigned) {
        for (int i = 0; i < kIterations; ++i) {
            lock.lock();
            ++counter;
            lock.unlock();
        }
    });
    EXPECT_EQ(counter, std::uint64_t{kThreads} * kIterations);
}

TEST(SpinLock, SpinWhileEqualReturnsOnceTheWordChanges) {
    std::atomic<unsigned long> word{7};
    std::uint64_t payload = 0;
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        payload = 42;
        word.store(8, std::memory_order_release);
    });
    vlk::lock::spinWhileEqual(&word, 7ul);
    EXPECT_EQ(payload, 42u);  // published by the release store
    writer.join();
}

}  // namespace
