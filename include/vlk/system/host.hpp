// Facts about the host.
//
// Every fact is a plain static with a compiled-in default, read without a
// lock. The defaults hold until the embedding program probes the host once,
// before it starts its threads; the lookup utility never probes.
#pragma once

#include <cstdint>

namespace vlk::system {

namespace _host_detail {
inline constinit std::uint64_t g_pageSize = 4096;
}  // namespace _host_detail

inline std::uint64_t pageSize() {
    return _host_detail::g_pageSize;
}
inline std::uint64_t pageMask() {
    return _host_detail::g_pageSize - 1;
}

}  // namespace vlk::system
