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
    _regex_detail::compileAndStudy(pattern, 0, _code, _extra);
}

bool isLiteralPattern(std::string_view pattern) {
    // Outside a class, with no option bits, these are all the bytes PCRE
    // reads as syntax: `]` and `}` alone are literal, `#` and blanks count
    // only in extended mode, bytes above 127 only in UTF-8 mode. The view
    // keeps the array's terminating NUL, the one other byte to refuse.
    static constexpr char syntax[] = "\\^$.[|()?*+{";
    return pattern.find_first_of(std::string_view(syntax, sizeof syntax)) == std::string_view::npos;
}

}  // namespace vlk
