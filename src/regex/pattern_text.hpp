// Internal to the regex unit: NUL-terminated copies of pattern views, and the
// compile-and-study steps both expression classes share.
#pragma once

#include <cstring>
#include <memory>

#include <pcre.h>

#include <vlk/system/cstring.hpp>

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

// Compiles `pattern` with no option bits into `code` and studies it with
// `studyOptions` into `extra`, lifting the match limit. Stops with `code`
// null when the pattern does not compile, and with `extra` null when the
// study gives nothing; error texts are dropped.
inline void compileAndStudy(const char* pattern, int studyOptions, pcre*& code,
                            pcre_extra*& extra) {
    const char* errorText = nullptr;
    int errorOffset = 0;
    code = pcre_compile(pattern, 0, &errorText, &errorOffset, nullptr);
    if (code == nullptr) {
        return;
    }
    extra = pcre_study(code, studyOptions, &errorText);
    if (extra == nullptr) {
        return;
    }
    // Subjects are short identifiers or whatever a caller chose to match:
    // PCRE's default backtracking limit would only cut real hits.
    extra->flags |= PCRE_EXTRA_MATCH_LIMIT;
    extra->match_limit = 4294967295UL;
}

}  // namespace vlk::_regex_detail
