#include <vlk/regex/regex.hpp>

#include <cstring>
#include <memory>

namespace vlk {
namespace {

// Patterns up to this length (with their NUL) are copied on the stack.
constexpr std::size_t stack_pattern_size = 128;

}  // namespace

regex::regex(const std::string& pattern) {
    _init(pattern.c_str(), pattern.size());
}

regex::regex(const base::cstring& pattern) {
    init(pattern);
}

regex::~regex() {
    if (_code != nullptr) {
        pcre_free(_code);
    }
    if (_extra != nullptr) {
        pcre_free_study(_extra);
    }
}

void regex::init(const std::string& pattern) {
    if (_code == nullptr) {
        _init(pattern.c_str(), pattern.size());
    }
}

void regex::init(const base::cstring& pattern) {
    if (_code != nullptr) {
        return;
    }
    // PCRE wants a NUL-terminated pattern; a view need not have one.
    char local[stack_pattern_size];
    std::unique_ptr<char[]> heap;
    char* text = local;
    if (pattern.length + 1 > stack_pattern_size) {
        heap.reset(new char[pattern.length + 1]);
        text = heap.get();
    }
    std::memcpy(text, pattern.data, pattern.length);
    text[pattern.length] = '\0';
    _init(text, pattern.length);
}

void regex::_init(const char* pattern, unsigned long) {
    const char* errorText = nullptr;
    int errorOffset = 0;
    _code = pcre_compile(pattern, 0, &errorText, &errorOffset, nullptr);
    if (_code == nullptr) {
        return;
    }
    _extra = pcre_study(_code, 0, &errorText);
    if (_extra == nullptr) {
        return;
    }
    // Catalogue subjects are seven characters long: no pattern can run away
    // on them, so PCRE's default backtracking limit would only cut real hits.
    _extra->flags |= PCRE_EXTRA_MATCH_LIMIT;
    _extra->match_limit = 4294967295UL;
}

}  // namespace vlk
