#include <vlk/system/host_text.hpp>

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace vlk::system;
using namespace std::string_literals;

TEST(HostText, ProgramNameIsTheFirstArgumentBehindItsLastSlash) {
    EXPECT_EQ(host_text::programName("/usr/local/bin/server\0--config\0x.conf\0"s), "server");
    EXPECT_EQ(host_text::programName("./a/b\0"s), "b");
    EXPECT_EQ(host_text::programName("server\0/x/y\0"s), "");  // no "/" in argv[0]
    EXPECT_EQ(host_text::programName("/opt/bin/\0"s), "");     // nothing behind the "/"
    EXPECT_EQ(host_text::programName(""), "");
    // Only 999 bytes are read: a longer first argument loses its tail.
    EXPECT_EQ(host_text::programName("/" + std::string(997, 'd') + "/tail"), "");
    EXPECT_EQ(host_text::programName("/" + std::string(990, 'd') + "/abcdefghij"), "abcdefg");
}

TEST(HostText, OsNameTakesThePrettyNameInsideItsQuotes) {
    EXPECT_EQ(host_text::osName("NAME=\"X\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"),
              "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(host_text::osName("\n\nPRETTY_NAME=\"A\"\nPRETTY_NAME=\"B\"\n"), "A");
    EXPECT_EQ(host_text::osName("PRETTY_NAME=Plain"), "lai");  // no quotes: both ends go
    EXPECT_EQ(host_text::osName("PRETTY_NAME=\"Truncated"), "Truncate");
    EXPECT_EQ(host_text::osName("NAME=\"X\"\n"), "unknown");
    EXPECT_EQ(host_text::osName(""), "unknown");
    EXPECT_THROW(host_text::osName("PRETTY_NAME=\n"), std::out_of_range);
}

TEST(HostText, KernelVersionReadsThreeDottedPieces) {
    struct Case {
        std::string text;
        std::uint16_t major, minor, patch;
    } cases[] = {
        // clang-format off
        {"6.1.0-18-amd64\n", 6, 1, 0}, {"5.15.15-generic\n", 5, 15, 15}, {"4.9", 4, 9, 0},
        {"4..7\n", 4, 0, 0},  // an empty piece zeroes it and all later ones
        {"", 0, 0, 0}, {"abc.def", 0, 0, 0},
        {std::string(40, '1') + ".2.3", 0xFFFF, 0, 0},  // a piece too long for the reader
        // clang-format on
    };
    for (const Case& c : cases) {
        system_version v = host_text::kernelVersion(c.text);
        EXPECT_EQ(v.key(), (system_version{c.major, c.minor, c.patch, 0}.key())) << c.text;
    }
    EXPECT_LT((system_version{2, 65535, 0, 0}.key()), (system_version{3, 0, 0, 0}.key()));
}

TEST(HostText, LibcVersionAndOneLineFiles) {
    system_version libc = host_text::libcVersion("2.36");
    EXPECT_EQ(libc.major, 2);
    EXPECT_EQ(libc.minor, 36);
    EXPECT_EQ(host_text::libcVersion("3").minor, 0);

    EXPECT_EQ(host_text::firstLineUnsigned("9223372036854775807\n"), 9223372036854775807u);
    EXPECT_EQ(host_text::firstLineUnsigned("65536\n123\n"), 65536u);
    EXPECT_EQ(host_text::firstLineUnsigned("\n"), 0u);  // something was read
    EXPECT_EQ(host_text::firstLineUnsigned("junk"), 0u);
    EXPECT_EQ(host_text::firstLineUnsigned(""), std::nullopt);
    // 31 bytes are read: the 32nd digit is not part of the number.
    EXPECT_EQ(host_text::firstLineUnsigned(std::string(31, '0') + "7"), 0u);
}

TEST(HostText, PortRangeScansTwoIntegersWithDefaults) {
    using range = std::pair<std::uint64_t, std::uint64_t>;
    EXPECT_EQ(host_text::portRange("32768\t60999\n"), range(32768, 60999));
    EXPECT_EQ(host_text::portRange("1024 2048\n"), range(1024, 2048));
    EXPECT_EQ(host_text::portRange("1024\n"), range(1024, 61000));
    EXPECT_EQ(host_text::portRange("garbage\n"), range(32768, 61000));
    EXPECT_EQ(host_text::portRange(""), std::nullopt);
}

constexpr const char* kTwoSockets = R"(processor	: 0
physical id	: 0
siblings	: 16
cpu cores	: 8
flags		: fpu rdtscp lm constant_tsc

processor	: 1
physical id	: 1
siblings	: 16
cpu cores	: 8
flags		: fpu rdtscp lm constant_tsc

processor	: 2
physical id	: 0
siblings	: 16
cpu cores	: 8
flags		: fpu lm
)";

TEST(HostText, CpuinfoCountsSocketsOnceHoweverOftenRepeated) {
    host_text::cpuinfo_text found = host_text::cpuinfo(kTwoSockets);
    EXPECT_EQ(found.processorSockets,
              (std::map<std::uint64_t, std::uint64_t>{{0, 0}, {1, 1}, {2, 0}}));
    // The last "flags" line decides both marks.
    EXPECT_FALSE(found.rdtscp);
    EXPECT_FALSE(found.constantTsc);

    vlk::cpuid::cpu_info info;
    host_text::countCores(found, 99, info);
    EXPECT_EQ(info.socketCount, 2u);
    EXPECT_EQ(info.physicalCoreCount, 16u);
    EXPECT_EQ(info.virtualCoreCount, 32u);

    found = host_text::cpuinfo("processor : 0\nflags : rdtscp constant_tsc\nprocessor : 1\n");
    EXPECT_TRUE(found.rdtscp);
    EXPECT_TRUE(found.constantTsc);
    EXPECT_TRUE(found.processorSockets.empty());
    host_text::countCores(found, 6, info);
    EXPECT_EQ(info.socketCount, 1u);
    EXPECT_EQ(info.physicalCoreCount, 6u);
    EXPECT_EQ(info.virtualCoreCount, 6u);
}

TEST(HostText, FrequencyFromBrand) {
    const std::pair<const char*, std::uint64_t> cases[] = {
        // clang-format off
        {"Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz", 2400000000},
        {"Some Processor 3400MHz", 3400},  // this form ignores its unit
        {"1.50THz", 1500000000000}, {"1.5GHz", 0},  // fewer than 7 characters
        {"xxxHz yyyy", 0},  // "Hz" before position 5
        {"Intel(R) Xeon(R) Processor", 0}, {"Some 2.60KHz", 0},  // unknown unit
        // clang-format on
    };
    for (const auto& [brand, hertz] : cases) {
        EXPECT_EQ(host_text::frequencyFromBrand(brand), hertz) << brand;
    }
}

TEST(HostText, MeminfoInBytesUpToSwapFree) {
    memory::memory_info info = host_text::memoryInfo(
        "MemTotal:       1024 kB\nMemFree:  512 kB\nMemAvailable: 999 kB\nBuffers: 3 kB\n"
        "Cached: 4 kB\nSwapCached: 77 kB\nSwapTotal: 5 kB\nSwapFree: 6 kB\nMemTotal: 1 kB\n");
    EXPECT_EQ(info.memoryTotal, 1048576u);
    EXPECT_EQ(info.memoryFree, 524288u);
    EXPECT_EQ(info.buffers, 3072u);
    EXPECT_EQ(info.cached, 4096u);
    EXPECT_EQ(info.swapTotal, 5120u);
    EXPECT_EQ(info.swapFree, 6144u);

}

}  // namespace
