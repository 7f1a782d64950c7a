#include <vlk/system/mmap.hpp>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <vlk/system/clock.hpp>

#include "../concurrency.hpp"

namespace {

using vlk::mmap_stats;
const unsigned long page = static_cast<unsigned long>(::sysconf(_SC_PAGESIZE));

// Mapped count, unmapped count, mapped bytes, unmapped bytes.
using counts = std::array<std::uint64_t, 4>;
counts countsNow() {
    return {mmap_stats::mappedCount(), mmap_stats::unmappedCount(), mmap_stats::mappedBytes(),
            mmap_stats::unmappedBytes()};
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Failures come back at once: only an anonymous mmap(size) retries. A call
// gives true, or a non-null address, when it succeeded.
TEST(MmapStats, OnlySuccessfulCallsCountAndMremapMovesOnlyBytes) {
    const unsigned long p = page;
    void* m = nullptr;
    auto odd = [&] { return static_cast<char*>(m) + 1; };  // not page-aligned
    const int file = ::memfd_create("mmap_test", 0);
    ASSERT_EQ(::ftruncate(file, static_cast<off_t>(p)), 0);
    const struct {
        const char* what;
        bool succeeds;
        counts delta;
        std::function<bool()> call;
    } steps[] = {
        // clang-format off
        {"mmap(size)", true, {1, 0, 2 * p, 0}, [&] { return (m = vlk::mmap(2 * p)); }},
        {"mremap", true, {0, 0, 5 * p, 2 * p},
         [&] { return (m = vlk::mremap(m, 2 * p, 5 * p, MREMAP_MAYMOVE)); }},
        {"mremap fails", false, {}, [&] { return vlk::mremap(m, 5 * p, 1ul << 46, 0); }},
        {"munmap fails", false, {}, [&] { return vlk::munmap(odd(), p) == 0; }},
        {"mprotect fails", false, {}, [&] { return vlk::mprotect("m", odd(), p, PROT_READ) == 0; }},
        {"munmap", true, {0, 1, 0, 5 * p}, [&] { return vlk::munmap("m", m, 5 * p) == 0; }},
        {"mmap of 0 bytes", false, {},
         [&] { return vlk::mmap(0, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, 0); }},
        {"mmap of a file", true, {1, 0, p, 0},
         [&] { return (m = vlk::mmap("m", p, PROT_READ, MAP_SHARED, file, 0)); }},
        {"placed mmap fails", false, {},
         [&] { return vlk::mmap("m", nullptr, p, PROT_READ, MAP_SHARED, 12345, 0); }},
        {"unnamed munmap", true, {0, 1, 0, p}, [&] { return vlk::munmap(m, p) == 0; }},
        // clang-format on
    };
    const auto start = std::chrono::steady_clock::now();
    for (const auto& step : steps) {
        const counts before = countsNow();
        EXPECT_EQ(step.call(), step.succeeds) << step.what;
        const counts after = countsNow();
        for (std::size_t i = 0; i < after.size(); ++i) {
            EXPECT_EQ(after[i] - before[i], step.delta[i]) << step.what << ", counter " << i;
        }
    }
    EXPECT_LT(secondsSince(start), 0.5);
    ::close(file);
}

// The report with which a failing anonymous mmap ends the process, as a regex.
std::string reportPattern(const std::string& error, std::uint64_t mapped, std::uint64_t unmapped) {
    return "^mmap failure:\n system errno          = " + error +
           "\n VELK mapped count     = " + std::to_string(mapped) +
           "\n VELK unmapped count   = " + std::to_string(unmapped) +
           "\n VELK active map count = " + std::to_string(mapped - unmapped) + "\\.\n$";
}

// Before the host probe the retry measures its second on the monotonic clock.
// mmap of 0 bytes fails with EINVAL, whose text takes the fallback form.
TEST(MmapDeathTest, FailingAnonymousMmapEndsTheProcessAfterASecond) {
    ASSERT_EQ(vlk::system::time::g_ticksToSecondsMultiplier, 0);
    const counts now = countsNow();
    const std::uint64_t extraUnmaps = now[0] - now[1] + 3;  // the active count wraps below 0
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EXIT(
        {
            for (std::uint64_t i = 0; i < extraUnmaps; ++i) {
                mmap_stats::munmap(0);
            }
            vlk::mmap(0);
        },
        testing::ExitedWithCode(255),
        reportPattern("Unknown errno value: 22", now[0], now[1] + extraUnmaps));
    EXPECT_GE(secondsSince(start), 1.0);
    EXPECT_LT(secondsSince(start), 1.8);
}

// After the probe the second is one of ticks: at half the true rate the retry
// lasts two seconds. A range the size of the address space fails with ENOMEM.
TEST(MmapDeathTest, AfterTheProbeTheRetryLastsASecondOfTicks) {
    const std::uint64_t firstTick = vlk::system::time::ticks();
    auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const double ticksToSeconds =
        secondsSince(start) / static_cast<double>(vlk::system::time::ticks() - firstTick);
    const counts now = countsNow();
    start = std::chrono::steady_clock::now();
    EXPECT_EXIT(
        {
            vlk::system::time::g_ticksToSecondsMultiplier = ticksToSeconds / 2;
            vlk::mmap(1ul << 47);
        },
        testing::ExitedWithCode(255), reportPattern("Cannot allocate memory", now[0], now[1]));
    EXPECT_GE(secondsSince(start), 1.8);
    EXPECT_LT(secondsSince(start), 3.0);
}

// Racing inits build the state object once. (It lives as long as the
// process; its switch gates reports that are empty operations.)
TEST(AllocatorStats, RacingInitsBuildOneStateObject) {
    ASSERT_EQ(vlk::allocator_stats::impl(), nullptr);
    std::array<const void*, 8> seen{};
    vlk_test::onThreads(8, [&](unsigned i) {
        vlk::allocator_stats::init();
        seen[i] = vlk::allocator_stats::impl();
    });
    const auto* state = vlk::allocator_stats::impl();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), state), 8);
    EXPECT_EQ(state->_active.load(), 1u);
}

}  // namespace
