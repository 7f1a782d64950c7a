// Memory and storage of the host, and the count of asynchronous I/O contexts.
//
// `memory::g_memoryInfo` is one snapshot of "/proc/meminfo" in bytes, all
// zero until the host probe or `memory::init()` fills it; it does not change
// by itself and is refreshed without a lock, so a reader racing a refresh can
// see fields of two snapshots. Nothing here reports a failure: a file that
// cannot be read gives zeros.
#pragma once

#include <cstdint>
#include <string>

namespace vlk::system::memory {

struct memory_info {
    std::uint64_t memoryTotal = 0;
    std::uint64_t memoryFree = 0;
    std::uint64_t buffers = 0;
    std::uint64_t cached = 0;
    std::uint64_t swapTotal = 0;
    std::uint64_t swapFree = 0;
};

inline constinit memory_info g_memoryInfo{};

// Reads "/proc/meminfo" into `info`.
void _getMemoryInfo(memory_info& info);
// Refreshes the snapshot.
void init();

inline const memory_info& getMemoryInfo() {
    return g_memoryInfo;
}
inline std::uint64_t memoryTotal() {
    return g_memoryInfo.memoryTotal;
}
// Plain "MemFree": neither buffers nor cache are added.
inline std::uint64_t memoryFree() {
    return g_memoryInfo.memoryFree;
}

}  // namespace vlk::system::memory

namespace vlk::system::storage {

// f_bfree times f_frsize of the file system holding `path`, by one statvfs;
// 0 when it fails.
std::uint64_t availableByteCount(const std::string& path);

}  // namespace vlk::system::storage

namespace vlk::system {

// "/proc/sys/fs/aio-nr", read afresh on every call; 0 when unreadable.
std::uint64_t currentAIOs();

}  // namespace vlk::system
