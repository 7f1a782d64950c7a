#include <vlk/system/clock.hpp>
#include <vlk/system/cpu.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/memory_info.hpp>

#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

// Tests here run in declaration order when the binary runs whole: the
// defaults are looked at before anything changes them, and the real probe,
// which may sleep three seconds, runs once at the end.

namespace {

using namespace vlk::system;
namespace detail = vlk::_vlk_system_detail;

std::string fileText(const char* path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The value of a "<key> : <value>" line of /proc/cpuinfo, read with streams.
std::string cpuinfoValue(const std::string& key) {
    std::ifstream in("/proc/cpuinfo");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key, 0) == 0) {
            return line.substr(line.find(':') + 1);
        }
    }
    return {};
}

bool hasCpuFlag(const std::string& flag) {
    std::istringstream flags(cpuinfoValue("flags"));
    for (std::string word; flags >> word;) {
        if (word == flag) {
            return true;
        }
    }
    return false;
}

TEST(Host, BeforeTheProbeTimeIsMonotonicAndNothingIsBound) {
    EXPECT_EQ(processId(), 0);
    EXPECT_EQ(pageSize(), 4096u);
    EXPECT_EQ(os(), "");  // not "unknown": that is the probe's word
    EXPECT_EQ(time::g_ticksToSecondsMultiplier, 0.0);
    // Both clock ids are CLOCK_MONOTONIC: "now" is not wall time yet.
    timespec wall{};
    ASSERT_EQ(time::now(&wall), 0);
    std::uint64_t nanos = std::uint64_t(wall.tv_sec) * 1000000000u + std::uint64_t(wall.tv_nsec);
    EXPECT_LT(time::monotonicTime() - nanos, 1000000000u);
    // No processor is below the physical count of 0: nothing is bound.
    cpu_set_t before, after;
    ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
    cpu::setThreadAffinity(0);
    ASSERT_EQ(sched_getaffinity(0, sizeof after, &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
}

TEST(Host, GrainSizes) {
    EXPECT_EQ(minGrainSize(), 1024u);
    EXPECT_EQ(maxGrainSize(1023), 1024u);
    EXPECT_EQ(maxGrainSize(1024), 1024u);
    EXPECT_EQ(maxGrainSize(5000), 5000u);
    EXPECT_EQ(optimalGrainSize(0), 1024u);
    EXPECT_EQ(optimalGrainSize(0, 7), 7u);
    EXPECT_EQ(optimalGrainSize(8192), 8192u);
    detail::_grainSizeDivisor = 4;  // what the probe sets for five cores
    EXPECT_EQ(optimalGrainSize(8192), 2048u);
    EXPECT_EQ(optimalGrainSize(4000), 1024u);
    detail::_grainSizeDivisor = 1;
}

TEST(Host, ProbeDecisions) {
    vlk::cpuid::cpu_info both;
    both.rdtscp = both.constantTsc = true;
    unsetenv("VELK_VALGRIND");
    EXPECT_TRUE(detail::_isTscInvariant(both));
    setenv("VELK_VALGRIND", "", 1);
    EXPECT_TRUE(detail::_isTscInvariant(both));
    setenv("VELK_VALGRIND", "1", 1);
    EXPECT_FALSE(detail::_isTscInvariant(both));
    unsetenv("VELK_VALGRIND");
    both.constantTsc = false;
    EXPECT_FALSE(detail::_isTscInvariant(both));

    detail::_chooseClocks(system_version{2, 6, 27, 0}.key());
    EXPECT_EQ(time::g_monotonicClockId, 1);
    detail::_chooseClocks(system_version{2, 6, 31, 9}.key());
    EXPECT_EQ(time::g_monotonicClockId, CLOCK_MONOTONIC_RAW);
    EXPECT_EQ(time::g_realtimeClockId, 1);
    detail::_chooseClocks(system_version{6, 1, 0, 0}.key());
    EXPECT_EQ(time::g_monotonicClockId, CLOCK_MONOTONIC_COARSE);
    EXPECT_EQ(time::g_realtimeClockId, CLOCK_REALTIME_COARSE);
    time::g_monotonicClockId = time::g_realtimeClockId = 1;

    detail::_chooseFutexFlags(system_version{2, 6, 24, 0}.key());
    EXPECT_FALSE(futex::isBitsetSupported());
    EXPECT_TRUE(futex::isPrivateSupported());  // any kernel of this decade
    EXPECT_EQ(futex::g_private_bits, 128u);
    detail::_chooseFutexFlags(system_version{2, 6, 25, 0}.key());
    EXPECT_TRUE(futex::isBitsetSupported());

    detail::_storeTickConstants(2500000000);
    EXPECT_EQ(time::g_ticksPerMilliSecond, 2500000u);
    EXPECT_EQ(time::g_ticksPerMicroSecond, 2500u);
    EXPECT_DOUBLE_EQ(time::g_ticksToSecondsMultiplier, 4e-10);
    EXPECT_DOUBLE_EQ(time::g_ticksToMicroSecondsMultiplier, 4e-4);
    detail::_storeTickConstants(0);
    EXPECT_TRUE(std::isinf(time::g_ticksToSecondsMultiplier));

    EXPECT_FALSE(cpu::hasSupport(static_cast<cpu::feature>(4)));
}

TEST(Host, ProbeAgreesWithIndependentSources) {
    init();

    EXPECT_EQ(pageSize(), static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(processId(), getpid());
    EXPECT_EQ(programName(), "host_test");
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(hostname(), host);
    passwd* user = getpwuid(getuid());
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(userId(), user->pw_name);

    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    EXPECT_NE(vlk::system::uname().find(names.release), std::string::npos);
    unsigned short major = 0, minor = 0, patch = 0;
    ASSERT_EQ(std::sscanf(names.release, "%hu.%hu.%hu", &major, &minor, &patch), 3);
    EXPECT_EQ(kernelVersion().key(), (system_version{major, minor, patch, 0}.key()));
    std::string libc = gnu_get_libc_version();
    EXPECT_EQ(std::to_string(glibcVersion().major) + "." + std::to_string(glibcVersion().minor),
              libc);

    std::istringstream meminfo(fileText("/proc/meminfo"));
    std::string key;
    std::uint64_t kilobytes = 0;
    meminfo >> key >> kilobytes;
    ASSERT_EQ(key, "MemTotal:");
    EXPECT_EQ(memory::memoryTotal(), kilobytes * 1024);
    EXPECT_GT(storage::availableByteCount("/"), 0u);
    EXPECT_EQ(storage::availableByteCount("/no/such/path"), 0u);
    EXPECT_EQ(currentAIOs(), std::stoull(fileText("/proc/sys/fs/aio-nr")));

    rlimit files{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    EXPECT_EQ(maxUserLimitFiles(), files.rlim_max);
    EXPECT_EQ(maxFiles(), std::stoull(fileText("/proc/sys/fs/file-max")));
    EXPECT_EQ(limits::ulimit(), fileText("/proc/self/limits"));

    long online = sysconf(_SC_NPROCESSORS_ONLN);
    EXPECT_EQ(cpu::virtualCoreCount(), static_cast<std::uint64_t>(online));
    EXPECT_TRUE(cpu::physicalCoreCount() >= 1 &&
                cpu::physicalCoreCount() <= cpu::virtualCoreCount());
    EXPECT_EQ(cpu::isSSE42(), hasCpuFlag("sse4_2"));
    EXPECT_EQ(cpu::isCompareExchange16b(), hasCpuFlag("cx16"));
    EXPECT_EQ(cpu::isHypervisor(), hasCpuFlag("hypervisor"));
    EXPECT_EQ(os().ends_with(" (Virtual Machine)"), cpu::isHypervisor());
    EXPECT_NE(os().find("Linux"), std::string::npos) << os();
    EXPECT_TRUE(cpu::isRDTSCP() || !hasCpuFlag("rdtscp"));  // the kernel may hide flags
    EXPECT_EQ(cpu::socketOfProcessor(0), std::stoi(cpuinfoValue("physical id")));

    // The tick rate the probe found or measured agrees with what the kernel
    // reports as the clock rate, within a tenth.
    if (cpu::coreFrequency() > 1000000) {
        double reportedMHz = std::stod(cpuinfoValue("cpu MHz"));
        EXPECT_NEAR(double(cpu::coreFrequency()) / 1e6, reportedMHz, reportedMHz / 10);
        EXPECT_DOUBLE_EQ(time::g_ticksToSecondsMultiplier * double(cpu::coreFrequency()), 1.0);
    }

    // This kernel is new enough for the coarse clocks; wall time is now real.
    EXPECT_EQ(time::g_monotonicClockId, CLOCK_MONOTONIC_COARSE);
    EXPECT_EQ(time::g_realtimeClockId, CLOCK_REALTIME_COARSE);
    timespec wall{};
    ASSERT_EQ(time::now(&wall), 0);
    EXPECT_LE(std::abs(wall.tv_sec - ::time(nullptr)), 1);
}

}  // namespace
