#include <vlk/system/clock.hpp>

#include <gtest/gtest.h>

namespace {

using namespace vlk::system::time;

// The conversions behind a stopwatch, and the retry second they measure, are
// checked by mmap's death test; here is what it does not reach.
TEST(Clock, SecondsOfATimeAndTheTimespecForm) {
    EXPECT_DOUBLE_EQ(monotonicTimeInSeconds(2000000000), 2.0);
    EXPECT_NEAR(elapsedTime(5, 3), 18446744073.7, 0.1);  // wraps instead of going below zero
    const std::uint64_t start = monotonicTime();
    timespec ts{};
    ASSERT_EQ(monotonicTime(&ts), 0);
    EXPECT_GE(std::uint64_t(ts.tv_sec) * 1000000000u + std::uint64_t(ts.tv_nsec), start);
}

}  // namespace
