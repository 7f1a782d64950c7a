#include <vlk/system/host_text.hpp>

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <stdexcept>
#include <tuple>

namespace {

using namespace vlk::system;
using namespace std::string_literals;

TEST(HostText, ProgramAndSystemNames) {
    // The first argument behind its last slash; only 999 bytes are read.
    EXPECT_EQ(host_text::programName("/usr/local/bin/server\0--config\0x.conf\0"s), "server");
    EXPECT_EQ(host_text::programName("server\0/x/y\0"s), "");  // no "/" in argv[0]
    EXPECT_EQ(host_text::programName("/opt/bin/\0"s), "");
    EXPECT_EQ(host_text::programName("/" + std::string(990, 'd') + "/abcdefghij"), "abcdefg");
    // The first PRETTY_NAME, inside its quotes.
    EXPECT_EQ(host_text::osName("NAME=\"X\"\n\nPRETTY_NAME=\"Debian 12\"\nPRETTY_NAME=\"B\"\n"),
              "Debian 12");
    EXPECT_EQ(host_text::osName("PRETTY_NAME=Plain"), "lai");  // no quotes: both ends go
    EXPECT_EQ(host_text::osName("NAME=\"X\"\n"), "unknown");
    EXPECT_THROW(host_text::osName("PRETTY_NAME=\n"), std::out_of_range);
}

TEST(HostText, VersionsAndNumbersOfOneLineFiles) {
    const std::pair<std::string, std::array<std::uint16_t, 3>> kernels[] = {
        {"6.1.0-18-amd64\n", {6, 1, 0}},
        {"5.15.15-generic\n", {5, 15, 15}},
        {"4.9", {4, 9, 0}},
        {"4..7\n", {4, 0, 0}},  // an empty piece zeroes it and all later ones
        {"abc.def", {0, 0, 0}},
        {std::string(40, '1') + ".2.3", {0xFFFF, 0, 0}}};
    for (const auto& [text, v] : kernels) {
        EXPECT_EQ(host_text::kernelVersion(text).key(), (system_version{v[0], v[1], v[2], 0}.key()))
            << text;
    }
    EXPECT_LT((system_version{2, 65535, 0, 0}.key()), (system_version{3, 0, 0, 0}.key()));
    EXPECT_EQ(host_text::libcVersion("2.36").key(), (system_version{2, 36, 0, 0}.key()));

    EXPECT_EQ(host_text::firstLineUnsigned("9223372036854775807\n7\n"), 9223372036854775807u);
    EXPECT_EQ(host_text::firstLineUnsigned("junk"), 0u);  // something was read
    EXPECT_EQ(host_text::firstLineUnsigned(""), std::nullopt);
    // 31 bytes are read: the 32nd digit is not part of the number.
    EXPECT_EQ(host_text::firstLineUnsigned(std::string(31, '0') + "7"), 0u);

    using range = std::pair<std::uint64_t, std::uint64_t>;
    EXPECT_EQ(host_text::portRange("32768\t60999\n"), range(32768, 60999));
    EXPECT_EQ(host_text::portRange("1024\n"), range(1024, 61000));
    EXPECT_EQ(host_text::portRange("garbage\n"), range(32768, 61000));
    EXPECT_EQ(host_text::portRange(""), std::nullopt);
}

// The last "flags" line decides both marks; a socket repeated on several
// processors counts once.
TEST(HostText, CpuinfoCountsSocketsOnceHoweverOftenRepeated) {
    const std::string processor = "siblings\t: 16\ncpu cores\t: 8\nflags\t\t: fpu lm";
    host_text::cpuinfo_text found = host_text::cpuinfo(
        "processor\t: 0\nphysical id\t: 0\n" + processor + " rdtscp constant_tsc\n\n" +
        "processor\t: 1\nphysical id\t: 1\n" + processor + " rdtscp constant_tsc\n\n" +
        "processor\t: 2\nphysical id\t: 0\n" + processor + "\n");
    EXPECT_EQ(found.processorSockets,
              (std::map<std::uint64_t, std::uint64_t>{{0, 0}, {1, 1}, {2, 0}}));
    EXPECT_FALSE(found.rdtscp || found.constantTsc);
    vlk::cpuid::cpu_info info;
    host_text::countCores(found, 99, info);
    EXPECT_EQ(std::tie(info.socketCount, info.physicalCoreCount, info.virtualCoreCount),
              std::tuple(2u, 16u, 32u));

    found = host_text::cpuinfo("processor : 0\nflags : rdtscp constant_tsc\nprocessor : 1\n");
    EXPECT_TRUE(found.rdtscp && found.constantTsc);
    host_text::countCores(found, 6, info);  // no physical id: one socket
    EXPECT_EQ(std::tie(info.socketCount, info.physicalCoreCount, info.virtualCoreCount),
              std::tuple(1u, 6u, 6u));
}

TEST(HostText, FrequencyFromBrandAndMeminfoInBytes) {
    const std::pair<const char*, std::uint64_t> brands[] = {
        {"Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz", 2400000000},
        {"Some Processor 3400MHz", 3400},  // this form ignores its unit
        {"1.50THz", 1500000000000},
        {"1.5GHz", 0},  // fewer than 7 characters
        {"xxxHz yyyy", 0},
        {"Some 2.60KHz", 0}};  // "Hz" before position 5; unknown unit
    for (const auto& [brand, hertz] : brands) {
        EXPECT_EQ(host_text::frequencyFromBrand(brand), hertz) << brand;
    }
    // Up to SwapFree; kB become bytes.
    memory::memory_info m = host_text::memoryInfo(
        "MemTotal:       1024 kB\nMemFree:  512 kB\nMemAvailable: 999 kB\nBuffers: 3 kB\n"
        "Cached: 4 kB\nSwapCached: 77 kB\nSwapTotal: 5 kB\nSwapFree: 6 kB\nMemTotal: 1 kB\n");
    EXPECT_EQ(std::tie(m.memoryTotal, m.memoryFree, m.buffers, m.cached, m.swapTotal, m.swapFree),
              std::tuple(1048576u, 524288u, 3072u, 4096u, 5120u, 6144u));
}

}  // namespace
