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

}  // namespace vlk
