// The toolkit's picture of the host it runs on.
//
// `vlk::system::init()` probes the machine once (kernel, libc, limits, page
// size, processor, memory, clocks, futex abilities) and stores what it finds
// in plain statics; every accessor is then one load. The embedding program
// calls it once at start-up, before it starts threads and before it relies
// on the clocks or the futex bits; no static initialiser calls it and the
// lookup utility never does. Until then, and for whatever the probe cannot
// read, the statics keep the compiled-in defaults below (page size 4096,
// process id 0, empty names), and nothing in the toolkit may depend on the
// probe having run.
//
// The probe takes no lock, reports nothing and does not fail: a missing file
// or failing call leaves a default. It may sleep three seconds to measure
// the processor's tick rate. A "PRETTY_NAME=" line with nothing behind the
// "=" makes it throw std::out_of_range.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>

#include <vlk/system/cpu.hpp>

namespace vlk::system {

// A kernel or libc version. Compared through key(): major in the top 16
// bits, build in the lowest.
struct system_version {
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    std::uint16_t patch = 0;
    std::uint16_t build = 0;

    constexpr std::uint64_t key() const {
        return std::uint64_t{major} << 48 | std::uint64_t{minor} << 32 |
               std::uint64_t{patch} << 16 | build;
    }
};

}  // namespace vlk::system

namespace vlk::_vlk_system_detail {

inline constinit std::uint64_t _pageSize = 4096;
inline constinit std::uint64_t _pageMask = 4095;
inline constinit std::uint64_t _grainSizeDivisor = 1;
inline constinit std::uint64_t _maxFiles = 1644465;
inline constinit std::uint64_t _maxUserLimitFiles = 1644465;
inline constinit std::uint64_t _maxAIOs = 65536;
inline constinit std::uint64_t _overcommitMemory = 0;
inline constinit std::pair<std::uint64_t, std::uint64_t> _localPortRange{32768, 61000};
inline constinit pid_t _pid = 0;
// Empty strings need no code to build; not constinit only because not every
// supported compiler has a constexpr std::string.
inline std::string _uname;
inline std::string _programName;
inline std::string _userId;
inline std::string _hostname;
inline std::string _os;
inline std::string _limits;
inline constinit system::system_version _kernelVersion{2, 6, 0, 0};
inline constinit system::system_version _glibcVersion{2, 6, 0, 0};
inline constinit bool _privateFutexSupported = false;
inline constinit bool _bitsetFutexSupported = false;
// Not constinit (the map's constructor is not constexpr), but an empty map
// and the brand "unknown" need no code to build.
inline cpuid::cpu_info _cpuInfo;

// Steps of the probe that decide from what it read, kept apart for tests.
void _storeTickConstants(std::uint64_t frequency);
bool _isTscInvariant(const cpuid::cpu_info& info);  // reads VELK_VALGRIND
void _chooseClocks(std::uint64_t kernelKey);
void _chooseFutexFlags(std::uint64_t kernelKey);

}  // namespace vlk::_vlk_system_detail

namespace vlk::system {

namespace futex {
// ORed into the operation of every futex call: FUTEX_PRIVATE_FLAG (128) once
// the probe found private futexes, else 0.
inline constinit std::uint32_t g_private_bits = 0;

inline bool isPrivateSupported() {
    return _vlk_system_detail::_privateFutexSupported;
}
inline bool isBitsetSupported() {
    return _vlk_system_detail::_bitsetFutexSupported;
}
}  // namespace futex

namespace sse42 {
inline constinit bool g_isSupported = false;
}

void init();

inline std::uint64_t pageSize() {
    return _vlk_system_detail::_pageSize;
}
inline std::uint64_t pageMask() {
    return _vlk_system_detail::_pageMask;
}
inline const std::string& programName() {
    return _vlk_system_detail::_programName;
}
inline const std::string& userId() {
    return _vlk_system_detail::_userId;
}
inline const std::string& hostname() {
    return _vlk_system_detail::_hostname;
}
inline const std::string& os() {
    return _vlk_system_detail::_os;
}
inline const std::string& uname() {
    return _vlk_system_detail::_uname;
}
namespace limits {
// The text of "/proc/self/limits" as the probe found it.
inline const std::string& ulimit() {
    return _vlk_system_detail::_limits;
}
}  // namespace limits

// The process id stored by the probe (0 before it), not a fresh getpid.
inline pid_t processId() {
    return _vlk_system_detail::_pid;
}
// The calling thread's kernel id: a gettid system call on every call.
pid_t threadId();

inline const system_version& kernelVersion() {
    return _vlk_system_detail::_kernelVersion;
}
inline const system_version& glibcVersion() {
    return _vlk_system_detail::_glibcVersion;
}
inline std::uint64_t maxFiles() {
    return _vlk_system_detail::_maxFiles;
}
inline std::uint64_t maxUserLimitFiles() {
    return _vlk_system_detail::_maxUserLimitFiles;
}
inline std::uint64_t maxAIOs() {
    return _vlk_system_detail::_maxAIOs;
}
inline std::uint64_t overcommitMemory() {
    return _vlk_system_detail::_overcommitMemory;
}
inline std::pair<std::uint64_t, std::uint64_t> localPortRange() {
    return _vlk_system_detail::_localPortRange;
}

// Grain sizes split work between cores: with more than two physical cores
// the divisor is their count minus one, leaving one core to the caller.
inline std::uint64_t minGrainSize() {
    return 1024;
}
inline std::uint64_t maxGrainSize(std::uint64_t n) {
    return n > 1023 ? n : 1024;
}
inline std::uint64_t optimalGrainSize(std::uint64_t n, std::uint64_t floor) {
    std::uint64_t grain = n / _vlk_system_detail::_grainSizeDivisor;
    return grain < floor ? floor : grain;
}
inline std::uint64_t optimalGrainSize(std::uint64_t n) {
    return optimalGrainSize(n, 1024);
}

// nanosleep of one nanosecond: gives the processor away.
void hard_pause();
// The pause instruction: stays on the processor.
inline void soft_pause() {
    __builtin_ia32_pause();
}
inline void sched_yield() {
    ::sched_yield();
}
inline void read_sched_yield() {
    ::sched_yield();
}
inline void write_sched_yield() {
    ::sched_yield();
}

}  // namespace vlk::system
