#include <vlk/system/memory_info.hpp>

#include <sys/statvfs.h>

#include <vlk/system/host_text.hpp>

namespace vlk::system::memory {

void _getMemoryInfo(memory_info& info) {
    auto text = host_text::readFile("/proc/meminfo");
    info = text ? host_text::memoryInfo(*text) : memory_info{};
}

void init() {
    _getMemoryInfo(g_memoryInfo);
}

}  // namespace vlk::system::memory

namespace vlk::system::storage {

std::uint64_t availableByteCount(const std::string& path) {
    struct statvfs fs {};
    if (::statvfs(path.c_str(), &fs) != 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(fs.f_bfree) * fs.f_frsize;
}

}  // namespace vlk::system::storage

namespace vlk::system {

std::uint64_t currentAIOs() {
    auto text = host_text::readFile("/proc/sys/fs/aio-nr");
    if (!text) {
        return 0;
    }
    return host_text::firstLineUnsigned(*text).value_or(0);
}

}  // namespace vlk::system
