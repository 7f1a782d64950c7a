#include <vlk/system/clock.hpp>

#include <gtest/gtest.h>

namespace {

using namespace vlk::system::time;

TEST(Clock, NanosecondsAdvanceAndTheirDifferencesAreUnsigned) {
    EXPECT_DOUBLE_EQ(elapsedTimeFromDeltaTime(1500000000), 1.5);
    EXPECT_DOUBLE_EQ(monotonicTimeInSeconds(2000000000), 2.0);
    EXPECT_DOUBLE_EQ(elapsedTime(1000, 3000), 2e-06);
    // A negative difference wraps instead of going below zero.
    EXPECT_NEAR(elapsedTime(5, 3), 18446744073.7, 0.1);

    const std::uint64_t start = monotonicTime();
    timespec ts{};
    ASSERT_EQ(monotonicTime(&ts), 0);
    EXPECT_GE(std::uint64_t(ts.tv_sec) * 1000000000u + std::uint64_t(ts.tv_nsec), start);
    EXPECT_LT(elapsedTime(start), 60.0);
}

}  // namespace
