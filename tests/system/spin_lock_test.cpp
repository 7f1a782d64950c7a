#include <vlk/system/spin_lock.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

namespace {

using vlk::lock::spin_lock_impl;

// The waiter announces itself through a word the main thread waits on with
// spinWhileEqual, then blocks on the held lock long enough to reach the
// sched_yield rounds, which must not leave their errno behind.
TEST(SpinLock, ExcludesAndKeepsErrnoAcrossALongWait) {
    spin_lock_impl<unsigned long> lock;
    lock.lock();
    std::atomic<unsigned long> waiting{0};
    int payload = 0, errnoAfter = 0;
    std::thread waiter([&] {
        payload = 42;
        waiting.store(1, std::memory_order_release);
        errno = EIO;
        lock.lock();
        errnoAfter = errno;
        lock.unlock();
    });
    vlk::lock::spinWhileEqual(&waiting, 0ul);
    EXPECT_EQ(payload, 42);  // published by the release store
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(lock.isLocked());
    lock.unlock();
    waiter.join();
    EXPECT_EQ(errnoAfter, EIO);
    EXPECT_FALSE(lock.isLocked());
}

}  // namespace
