// Non-owning views of character data.
//
// A view is a pointer and a length; the text need not end in a NUL and the
// view never frees it. `cstring` carries a 64-bit length, `cstring32` a
// 32-bit one for text taken from 32-bit records. Both are trivially copyable
// and may be built at compile time, which is how the constant text tables of
// the toolkit are made.
#pragma once

#include <cstdint>
#include <string_view>

namespace vlk::base {

struct cstring {
    const char* data = nullptr;
    std::uint64_t length = 0;

    constexpr std::string_view view() const { return {data, static_cast<std::size_t>(length)}; }
};

struct cstring32 {
    const char* data = nullptr;
    std::uint32_t length = 0;

    constexpr std::string_view view() const { return {data, length}; }
};

}  // namespace vlk::base
