// The processor: sockets, cores, instruction features and clock rate.
//
// `cpuid::_cpuid_detail::cpuInfo()` gathers everything once from
// "/proc/cpuinfo" and the CPUID instruction; it has no other effect, may run
// on any thread, and may sleep three seconds to measure the tick rate when the
// brand text names none. The host probe stores its result, and the
// accessors in `vlk::system::cpu` read that stored record without a lock.
// Before the probe the record is empty: brand "unknown", counts 0, no flags.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <map>
#include <string>

namespace vlk::cpuid {

struct cpu_info {
    // Logical processor number to the physical id of its socket.
    std::map<std::uint64_t, std::uint64_t> processorSockets;
    std::string brandString = "unknown";
    bool sse42 = false;
    bool compareExchange16b = false;
    bool rdtscp = false;
    bool constantTsc = false;
    std::uint64_t socketCount = 0;
    std::uint64_t physicalCoreCount = 0;
    std::uint64_t virtualCoreCount = 0;
    // Hertz, except that a brand of the form "2400MHz" gives 2400.
    std::uint64_t coreFrequency = 0;
    bool hypervisor = false;
};

namespace _cpuid_detail {

// One socket, as "/proc/cpuinfo" describes it.
struct physical_cpu_info {
    std::uint64_t physicalId = 0;
    std::uint64_t siblings = 0;
    std::uint64_t cpuCores = 0;
};

cpu_info cpuInfo();

}  // namespace _cpuid_detail
}  // namespace vlk::cpuid

namespace vlk::system::cpu {

enum feature : int {
    feature_sse42 = 0,
    feature_compare_exchange_16b = 1,
    feature_rdtscp = 2,
    feature_constant_tsc = 3,
};

const std::string& brandString();
bool isSSE42();
bool isRDTSCP();
bool isConstantTSC();
bool isCompareExchange16b();
bool isHypervisor();
std::uint64_t socketCount();
std::uint64_t physicalCoreCount();
std::uint64_t virtualCoreCount();
std::uint64_t coreFrequency();
bool hasSupport(feature f);
// The physical id of the processor's socket, or -1 when it is not known.
std::int32_t socketOfProcessor(std::uint64_t processor);

// Binds a thread to one processor. Processors numbered at or above the
// physical core count are refused silently, so before the probe nothing is
// ever bound.
void setThreadAffinity(pthread_t thread, std::uint64_t processor);
void setThreadAffinity(std::uint64_t processor);

}  // namespace vlk::system::cpu
