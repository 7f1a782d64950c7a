#include <vlk/system/clock.hpp>
#include <vlk/system/cpu.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/memory_info.hpp>

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>

// Tests here run in declaration order when the binary runs whole: the
// decisions are checked before the real probe, which may sleep three
// seconds, runs once at the end.

namespace {

using namespace vlk::system;
namespace detail = vlk::_vlk_system_detail;

TEST(Host, ProbeDecisions) {
    vlk::cpuid::cpu_info both;
    both.rdtscp = both.constantTsc = true;
    EXPECT_TRUE(detail::_isTscInvariant(both));
    setenv("VELK_VALGRIND", "1", 1);
    EXPECT_FALSE(detail::_isTscInvariant(both));
    unsetenv("VELK_VALGRIND");

    // A kernel version, the monotonic and realtime clock ids chosen for it,
    // and whether its futexes take bitsets.
    const std::tuple<system_version, clockid_t, clockid_t, bool> kernels[] = {
        {{2, 6, 27, 0}, 1, 1, true},
        {{2, 6, 31, 9}, CLOCK_MONOTONIC_RAW, 1, true},
        {{6, 1, 0, 0}, CLOCK_MONOTONIC_COARSE, CLOCK_REALTIME_COARSE, true},
        {{2, 6, 24, 0}, 1, 1, false}};
    for (const auto& [kernel, monotonic, realtime, bitset] : kernels) {
        time::g_monotonicClockId = time::g_realtimeClockId = 1;
        detail::_chooseClocks(kernel.key());
        detail::_chooseFutexFlags(kernel.key());
        EXPECT_EQ(std::tuple(time::g_monotonicClockId, time::g_realtimeClockId,
                             futex::isBitsetSupported()),
                  std::tuple(monotonic, realtime, bitset))
            << kernel.major << "." << kernel.minor << "." << kernel.patch;
    }
    time::g_monotonicClockId = time::g_realtimeClockId = 1;

    detail::_storeTickConstants(2500000000);
    EXPECT_EQ(time::g_ticksPerMicroSecond, 2500u);
    EXPECT_DOUBLE_EQ(time::g_ticksToSecondsMultiplier, 4e-10);
}

// The value of a "<key> : <value>" line of /proc/cpuinfo, read with streams.
std::string cpuinfoValue(const std::string& key) {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line) && line.rfind(key, 0) != 0) {
    }
    return line.substr(line.find(':') + 1);
}

TEST(Host, ProbeAgreesWithIndependentSources) {
    init();
    EXPECT_EQ(pageSize(), static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(processId(), getpid());
    EXPECT_EQ(programName(), "host_test");
    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    unsigned short major = 0, minor = 0, patch = 0;
    ASSERT_EQ(std::sscanf(names.release, "%hu.%hu.%hu", &major, &minor, &patch), 3);
    EXPECT_EQ(kernelVersion().key(), (system_version{major, minor, patch, 0}.key()));
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    std::uint64_t kilobytes = 0;
    meminfo >> key >> kilobytes;
    EXPECT_EQ(memory::memoryTotal(), kilobytes * 1024);
    EXPECT_EQ(storage::availableByteCount("/no/such/path"), 0u);
    EXPECT_EQ(cpu::virtualCoreCount(), static_cast<std::uint64_t>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_TRUE(cpu::physicalCoreCount() >= 1 &&
                cpu::physicalCoreCount() <= cpu::virtualCoreCount());
    EXPECT_EQ(cpu::isSSE42(), __builtin_cpu_supports("sse4.2") != 0);
    EXPECT_EQ(cpu::socketOfProcessor(0), std::stoi(cpuinfoValue("physical id")));
    // This kernel is new enough for the coarse clocks; wall time is now real.
    EXPECT_EQ(time::g_realtimeClockId, CLOCK_REALTIME_COARSE);
    timespec wall{};
    ASSERT_EQ(time::now(&wall), 0);
    EXPECT_LE(std::abs(wall.tv_sec - ::time(nullptr)), 1);
}

}  // namespace
