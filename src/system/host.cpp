#include <vlk/system/host.hpp>

#include <gnu/libc-version.h>
#include <linux/futex.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>

#include <vlk/system/clock.hpp>
#include <vlk/system/host_text.hpp>
#include <vlk/system/memory_info.hpp>

namespace vlk::_vlk_system_detail {

using system::system_version;

void _storeTickConstants(std::uint64_t frequency) {
    namespace t = system::time;
    t::g_coreFrequency = frequency;
    t::g_ticksPerSecond = frequency;
    t::g_ticksPerMilliSecond = frequency / 1000;
    t::g_ticksPerMicroSecond = frequency / 1000000;
    t::g_secondsToTicksMultiplier = static_cast<double>(frequency);
    // No guard against 0: both quotients become infinity then.
    t::g_ticksToSecondsMultiplier = 1.0 / t::g_secondsToTicksMultiplier;
    t::g_ticksToMicroSecondsMultiplier = 1000000.0 / t::g_secondsToTicksMultiplier;
}

bool _isTscInvariant(const cpuid::cpu_info& info) {
    const char* valgrind = std::getenv("VELK_VALGRIND");
    bool underValgrind = valgrind != nullptr && *valgrind != '\0';
    return info.rdtscp && info.constantTsc && !underValgrind;
}

void _chooseClocks(std::uint64_t kernelKey) {
    constexpr std::uint64_t v2_6_28 = system_version{2, 6, 28, 0}.key();
    constexpr std::uint64_t v2_6_32 = system_version{2, 6, 32, 0}.key();
    if (kernelKey < v2_6_32) {
        if (kernelKey >= v2_6_28) {
            system::time::g_monotonicClockId = CLOCK_MONOTONIC_RAW;
        }
        return;
    }
    timespec probe;
    system::time::g_monotonicClockId = ::clock_gettime(CLOCK_MONOTONIC_COARSE, &probe) == 0
                                           ? CLOCK_MONOTONIC_COARSE
                                           : CLOCK_MONOTONIC_RAW;
    if (::clock_gettime(CLOCK_REALTIME_COARSE, &probe) == 0) {
        system::time::g_realtimeClockId = CLOCK_REALTIME_COARSE;
    }
}

void _chooseFutexFlags(std::uint64_t kernelKey) {
    int word = 0;
    long woken =
        ::syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
    bool privateSupported = !(woken == -1 && errno == ENOSYS);
    _privateFutexSupported = privateSupported;
    system::futex::g_private_bits = privateSupported ? FUTEX_PRIVATE_FLAG : 0;
    _bitsetFutexSupported = kernelKey >= system_version{2, 6, 25, 0}.key();
}

namespace {

std::string userName() {
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    if (size <= 0) {
        size = 8192;
    }
    char onStack[1024];
    std::unique_ptr<char[]> onHeap;
    char* buffer = onStack;
    if (size > 1024) {
        onHeap = std::make_unique<char[]>(static_cast<std::size_t>(size));
        buffer = onHeap.get();
    }
    passwd record;
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &record, buffer, static_cast<std::size_t>(size), &found) == 0 &&
        found != nullptr) {
        return found->pw_name;
    }
    return {};
}

std::string unameText() {
    utsname names{};
    ::uname(&names);
    std::string text = names.sysname;
    for (const char* field : {names.nodename, names.release, names.version, names.machine}) {
        text += ' ';
        text += field;
    }
    return text;
}

void readUnsigned(const char* path, std::uint64_t& value) {
    if (auto text = system::host_text::readFile(path)) {
        if (auto read = system::host_text::firstLineUnsigned(*text)) {
            value = *read;
        }
    }
}

}  // namespace
}  // namespace vlk::_vlk_system_detail

namespace vlk::system {

void init() {
    using namespace _vlk_system_detail;
    _uname = unameText();

    _cpuInfo = cpuid::_cpuid_detail::cpuInfo();
    _storeTickConstants(_cpuInfo.coreFrequency);
    time::g_isTscInvariant = _isTscInvariant(_cpuInfo);
    sse42::g_isSupported = _cpuInfo.sse42;

    long page = ::sysconf(_SC_PAGESIZE);
    _pageSize = page > 0 ? static_cast<std::uint64_t>(page) : 4096;
    _pageMask = _pageSize - 1;
    _pid = ::getpid();

    char host[1024];
    if (::gethostname(host, sizeof host) >= 0) {
        host[sizeof host - 1] = '\0';
        _hostname = host;
    }
    std::string cmdline = "/proc/" + std::to_string(_pid) + "/cmdline";
    if (auto text = host_text::readFile(cmdline.c_str())) {
        _programName = host_text::programName(*text);
    }
    auto osRelease = host_text::readFile("/etc/os-release");
    _os = osRelease ? host_text::osName(*osRelease) : "unknown";
    if (_cpuInfo.hypervisor) {
        _os += " (Virtual Machine)";
    }
    _userId = userName();

    if (_cpuInfo.physicalCoreCount > 2) {
        _grainSizeDivisor = _cpuInfo.physicalCoreCount - 1;
    }
    if (auto text = host_text::readFile("/proc/sys/kernel/osrelease")) {
        _kernelVersion = host_text::kernelVersion(*text);
    }
    if (std::string_view libc = ::gnu_get_libc_version(); !libc.empty()) {
        _glibcVersion = host_text::libcVersion(libc);
    }
    readUnsigned("/proc/sys/fs/file-max", _maxFiles);
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0) {
        _maxUserLimitFiles = files.rlim_max;
    }
    readUnsigned("/proc/sys/fs/aio-max-nr", _maxAIOs);
    readUnsigned("/proc/sys/vm/overcommit_memory", _overcommitMemory);
    if (auto text = host_text::readFile("/proc/sys/net/ipv4/ip_local_port_range")) {
        if (auto range = host_text::portRange(*text)) {
            _localPortRange = *range;
        }
    }
    auto limits = host_text::readFile("/proc/self/limits");
    _limits = limits ? std::move(*limits) : "/proc/self/limits could not be found";

    std::uint64_t kernel = _kernelVersion.key();
    _chooseClocks(kernel);
    _chooseFutexFlags(kernel);
    memory::_getMemoryInfo(memory::g_memoryInfo);
}

pid_t threadId() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

void hard_pause() {
    timespec nanosecond{0, 1};
    ::nanosleep(&nanosecond, nullptr);
}

}  // namespace vlk::system
