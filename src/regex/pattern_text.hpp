// Internal to the regex unit: NUL-terminated copies of pattern views.
#pragma once

#include <cstring>
#include <memory>

#include <vlk/containers/cstring.hpp>

namespace vlk::_regex_detail {

// Patterns up to this length (with their NUL) are copied on the stack.
inline constexpr std::size_t stack_pattern_size = 128;

// Calls `compile(text, length)` with a NUL-terminated copy of `pattern`, since
// PCRE wants one and a view need not have it. The copy lives on the stack
// when it fits, otherwise on the heap until `compile` returns.
template <typename Compile>
void withTerminatedCopy(const base::cstring& pattern, Compile compile) {
    char local[stack_pattern_size];
    std::unique_ptr<char[]> heap;
    char* text = local;
    if (pattern.length + 1 > stack_pattern_size) {
        heap.reset(new char[pattern.length + 1]);
        text = heap.get();
    }
    if (pattern.length != 0) {
        std::memcpy(text, pattern.data, pattern.length);
    }
    text[pattern.length] = '\0';
    compile(text, pattern.length);
}

}  // namespace vlk::_regex_detail
