// vlk-hostinfo: runs the toolkit's host probe and prints what it believes
// about the machine, for an operator checking a host before a server runs.
//
// Usage: vlk-hostinfo [--help | --version]   (takes up to three seconds when
// the processor's tick rate has to be measured)
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include <vlk/vlk.hpp>

namespace {

namespace sys = vlk::system;

constexpr const char* usageText =
    "usage: vlk-hostinfo [--help | --version]\n"
    "Prints what the toolkit's host probe finds: processor and sockets, memory,\n"
    "limits, kernel and libc versions, clocks. Takes up to three seconds when\n"
    "the processor's tick rate has to be measured.\n";

std::string version(const sys::system_version& v) {
    return std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.patch) +
           "." + std::to_string(v.build);
}

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

void row(const char* name, const std::string& value) {
    std::printf("  %-26s %s\n", name, value.c_str());
}

void row(const char* name, std::uint64_t value) {
    row(name, std::to_string(value));
}

std::string bytes(std::uint64_t count) {
    return std::to_string(count) + " (" + vlk::string_utils::sizeAsString(count) + ")";
}

std::string clockName(clockid_t id) {
    switch (id) {
        case CLOCK_REALTIME:
            return "CLOCK_REALTIME";
        case CLOCK_MONOTONIC:
            return "CLOCK_MONOTONIC";
        case CLOCK_MONOTONIC_RAW:
            return "CLOCK_MONOTONIC_RAW";
        case CLOCK_REALTIME_COARSE:
            return "CLOCK_REALTIME_COARSE";
        case CLOCK_MONOTONIC_COARSE:
            return "CLOCK_MONOTONIC_COARSE";
    }
    return std::to_string(id);
}

void printSockets() {
    std::string text;
    for (std::uint64_t p = 0; p < sys::cpu::virtualCoreCount(); ++p) {
        text += (p == 0 ? "" : ", ") + std::to_string(p) + "->" +
                std::to_string(sys::cpu::socketOfProcessor(p));
    }
    row("processor -> socket", text.empty() ? "unknown" : text);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("vlk-hostinfo %s\n", VLK_VERSION_STRING);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(usageText, stdout);
        return 0;
    }
    if (argc != 1) {
        std::fprintf(stderr, "vlk-hostinfo: unknown argument \"%s\"\n%s", argv[1], usageText);
        return 2;
    }
    sys::init();

    std::printf("Host\n");
    row("host name", sys::hostname());
    row("operating system", sys::os());
    row("uname", sys::uname());
    row("kernel version", version(sys::kernelVersion()));
    row("libc version", version(sys::glibcVersion()));
    row("program", sys::programName());
    row("user", sys::userId());
    row("process id", static_cast<std::uint64_t>(sys::processId()));

    std::printf("Processor\n");
    row("brand", sys::cpu::brandString());
    row("sockets", sys::cpu::socketCount());
    row("physical cores", sys::cpu::physicalCoreCount());
    row("logical processors", sys::cpu::virtualCoreCount());
    printSockets();
    row("tick rate (Hz)", sys::cpu::coreFrequency());
    row("invariant tick counter", yesNo(sys::time::g_isTscInvariant));
    row("SSE4.2", yesNo(sys::cpu::isSSE42()));
    row("CMPXCHG16B", yesNo(sys::cpu::isCompareExchange16b()));
    row("RDTSCP", yesNo(sys::cpu::isRDTSCP()));
    row("constant TSC", yesNo(sys::cpu::isConstantTSC()));
    row("hypervisor", yesNo(sys::cpu::isHypervisor()));
    row("grain size of 1 MiB", sys::optimalGrainSize(1 << 20));

    std::printf("Memory\n");
    row("page size", sys::pageSize());
    row("total", bytes(sys::memory::memoryTotal()));
    row("free", bytes(sys::memory::memoryFree()));
    row("buffers", bytes(sys::memory::getMemoryInfo().buffers));
    row("cached", bytes(sys::memory::getMemoryInfo().cached));
    row("swap total", bytes(sys::memory::getMemoryInfo().swapTotal));
    row("swap free", bytes(sys::memory::getMemoryInfo().swapFree));
    row("overcommit policy", sys::overcommitMemory());
    row("free on / (statvfs)", bytes(sys::storage::availableByteCount("/")));

    std::printf("Limits\n");
    row("open files (system)", sys::maxFiles());
    row("open files (hard limit)", sys::maxUserLimitFiles());
    row("AIO contexts",
        std::to_string(sys::currentAIOs()) + " of " + std::to_string(sys::maxAIOs()));
    auto [low, high] = sys::localPortRange();
    row("local port range", std::to_string(low) + "-" + std::to_string(high));

    std::printf("Clocks and futexes\n");
    row("realtime clock", clockName(sys::time::g_realtimeClockId));
    row("monotonic clock", clockName(sys::time::g_monotonicClockId));
    row("private futexes", yesNo(sys::futex::isPrivateSupported()));
    row("bitset futexes", yesNo(sys::futex::isBitsetSupported()));

    std::printf("Process limits\n%s", sys::limits::ulimit().c_str());
    return 0;
}
