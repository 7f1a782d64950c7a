// The host probe's readers of host files, split from the opening of the fixed
// paths so that any text can be fed to them.
//
// Each function takes the whole content of one file and applies exactly the
// rule by which the probe reads that file, including how much of a line it
// looks at. None of them fails: text that does not scan gives the stated
// fallback. They use only their arguments and may run on any thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <vlk/system/cpu.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/memory_info.hpp>

namespace vlk::system::host_text {

// The content of a file, or nothing when it cannot be opened.
std::optional<std::string> readFile(const char* path);

// "/proc/<pid>/cmdline": the part of the first argument behind its last "/";
// empty for a name without "/" or ending in one. Looks at one line of at
// most 999 bytes.
std::string programName(std::string_view cmdline);

// "/etc/os-release": the value of the first non-empty line beginning with
// "PRETTY_NAME", from two characters behind its "=" and without its last
// character (the quotes); "unknown" without such a line. Throws
// std::out_of_range when nothing stands behind the "=".
std::string osName(std::string_view osRelease);

// "/proc/sys/kernel/osrelease": up to three "."-separated pieces of at most
// 31 bytes, each through strtoul; the first empty piece zeroes that field and
// the later ones. `build` is 0.
system_version kernelVersion(std::string_view osrelease);

// gnu_get_libc_version(): strtol before and behind the first ".".
system_version libcVersion(std::string_view text);

// A one-value file such as "/proc/sys/fs/file-max": strtoul of one line of at
// most 31 bytes; nothing when the file is empty.
std::optional<std::uint64_t> firstLineUnsigned(std::string_view text);

// "/proc/sys/net/ipv4/ip_local_port_range": "%d\t%d" over one line of at most
// 255 bytes, each value preset to its default (32768, 61000); nothing when
// the file is empty.
std::optional<std::pair<std::uint64_t, std::uint64_t>> portRange(std::string_view text);

// What "/proc/cpuinfo" says.
struct cpuinfo_text {
    std::map<std::uint64_t, std::uint64_t> processorSockets;
    std::map<std::uint64_t, cpuid::_cpuid_detail::physical_cpu_info> sockets;
    bool rdtscp = false;       // the last "flags" line holds "rdtscp"
    bool constantTsc = false;  // the last "flags" line holds "constant_tsc"
};
cpuinfo_text cpuinfo(std::string_view text);

// Socket and core counts from the sockets found; when there are none, or no
// cores, one socket with `onlineProcessors` cores of both kinds (0 when that
// is below 1).
void countCores(const cpuinfo_text& found, long onlineProcessors, cpuid::cpu_info& info);

// The frequency a brand text names: "2.60GHz" gives 2600000000, while
// "3400MHz" gives 3400 (the unit letter scales only the form with a point).
// 0 when the text names none.
std::uint64_t frequencyFromBrand(std::string_view brand);

// "/proc/meminfo" in bytes: the six known lines up to and including
// "SwapFree"; later lines are not read.
memory::memory_info memoryInfo(std::string_view meminfo);

}  // namespace vlk::system::host_text
