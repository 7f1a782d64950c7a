#include <vlk/system/cpu.hpp>

#include <cpuid.h>
#include <sched.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <ctime>

#include <vlk/system/clock.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/host_text.hpp>

namespace vlk::cpuid::_cpuid_detail {
namespace {

struct registers {
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
};

// The extended leaves are read without asking whether the processor has
// them; __cpuid does not ask either.
registers leaf(unsigned int number) {
    registers r;
    __cpuid(number, r.eax, r.ebx, r.ecx, r.edx);
    return r;
}

bool bit(unsigned int word, int n) {
    return (word >> n & 1u) != 0;
}

std::string brandText() {
    if (leaf(0x80000000).eax < 0x80000004) {
        return {};
    }
    char text[49] = {};
    for (unsigned int i = 0; i < 3; ++i) {
        registers r = leaf(0x80000002 + i);
        unsigned int words[4] = {r.eax, r.ebx, r.ecx, r.edx};
        std::memcpy(text + 16 * i, words, sizeof words);
    }
    const char* start = text;
    while (*start != '\0' && std::isspace(static_cast<unsigned char>(*start))) {
        ++start;
    }
    return start;
}

// Three one-second samples of the tick counter. A sleep cut short by a
// signal gives a low figure; it is not retried.
std::uint64_t measuredFrequency() {
    std::uint64_t sum = 0;
    for (int i = 0; i < 3; ++i) {
        std::uint64_t start = system::time::ticks();
        timespec second{1, 0};
        ::nanosleep(&second, nullptr);
        sum += system::time::ticks() - start;
    }
    return sum / 3;
}

}  // namespace

cpu_info cpuInfo() {
    cpu_info info;
    auto cpuinfo = system::host_text::readFile("/proc/cpuinfo");
    system::host_text::cpuinfo_text found =
        system::host_text::cpuinfo(cpuinfo ? std::string_view(*cpuinfo) : std::string_view());
    system::host_text::countCores(found, ::sysconf(_SC_NPROCESSORS_ONLN), info);
    info.processorSockets = std::move(found.processorSockets);

    info.brandString = brandText();
    info.coreFrequency = system::host_text::frequencyFromBrand(info.brandString);

    registers basic = leaf(1);
    bool rdtscpLeaf = bit(leaf(0x80000001).edx, 27);
    bool invariantLeaf = bit(leaf(0x80000007).edx, 8);
    if (rdtscpLeaf && invariantLeaf && info.coreFrequency == 0) {
        info.coreFrequency = measuredFrequency();
    }
    info.hypervisor = bit(basic.ecx, 31);
    info.constantTsc = found.constantTsc || invariantLeaf;
    info.rdtscp = found.rdtscp || rdtscpLeaf;
    info.compareExchange16b = bit(basic.ecx, 13);
    info.sse42 = bit(basic.ecx, 20);
    return info;
}

}  // namespace vlk::cpuid::_cpuid_detail

namespace vlk::system::cpu {
namespace {
const cpuid::cpu_info& stored() {
    return _vlk_system_detail::_cpuInfo;
}
}  // namespace

const std::string& brandString() {
    return stored().brandString;
}
bool isSSE42() {
    return stored().sse42;
}
bool isRDTSCP() {
    return stored().rdtscp;
}
bool isConstantTSC() {
    return stored().constantTsc;
}
bool isCompareExchange16b() {
    return stored().compareExchange16b;
}
bool isHypervisor() {
    return stored().hypervisor;
}
std::uint64_t socketCount() {
    return stored().socketCount;
}
std::uint64_t physicalCoreCount() {
    return stored().physicalCoreCount;
}
std::uint64_t virtualCoreCount() {
    return stored().virtualCoreCount;
}
std::uint64_t coreFrequency() {
    return stored().coreFrequency;
}

bool hasSupport(feature f) {
    switch (f) {
        case feature_sse42:
            return isSSE42();
        case feature_compare_exchange_16b:
            return isCompareExchange16b();
        case feature_rdtscp:
            return isRDTSCP();
        case feature_constant_tsc:
            return isConstantTSC();
    }
    return false;
}

std::int32_t socketOfProcessor(std::uint64_t processor) {
    auto found = stored().processorSockets.find(processor);
    return found == stored().processorSockets.end() ? -1 : static_cast<std::int32_t>(found->second);
}

void setThreadAffinity(pthread_t thread, std::uint64_t processor) {
    // The limit is the physical count on purpose: logical processors above
    // it are never chosen.
    if (processor >= physicalCoreCount()) {
        return;
    }
    cpu_set_t mask;
    CPU_ZERO(&mask);
    auto index = static_cast<std::int32_t>(processor);
    if (index >= 0 && index < 1024) {
        CPU_SET(static_cast<std::size_t>(index), &mask);
    }
    ::pthread_setaffinity_np(thread, sizeof mask, &mask);
}

void setThreadAffinity(std::uint64_t processor) {
    setThreadAffinity(::pthread_self(), processor);
}

}  // namespace vlk::system::cpu
