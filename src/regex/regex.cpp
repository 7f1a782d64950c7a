#include <vlk/regex/regex.hpp>

#include "pattern_text.hpp"

namespace vlk {

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
    if (_code == nullptr) {
        _regex_detail::withTerminatedCopy(
            pattern, [this](const char* text, unsigned long length) { _init(text, length); });
    }
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
