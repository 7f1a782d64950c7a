#include <vlk/regex/jit_regex.hpp>

#include "pattern_text.hpp"

namespace vlk {
namespace {

constexpr int jit_stack_start = 32768;
constexpr int jit_stack_limit = 1048576;

}  // namespace

jit_regex::jit_regex(const std::string& pattern) {
    _init(pattern.c_str(), pattern.size());
}

jit_regex::jit_regex(const base::cstring& pattern) {
    init(pattern);
}

jit_regex::~jit_regex() {
    if (_extra != nullptr) {
        pcre_free_study(_extra);
    }
    if (_code != nullptr) {
        pcre_free(_code);
    }
}

void jit_regex::init(const std::string& pattern) {
    if (_code == nullptr) {
        _init(pattern.c_str(), pattern.size());
    }
}

void jit_regex::init(const base::cstring& pattern) {
    if (_code == nullptr) {
        _regex_detail::withTerminatedCopy(
            pattern, [this](const char* text, unsigned long length) { _init(text, length); });
    }
}

void jit_regex::_init(const char* pattern, unsigned long) {
    _regex_detail::compileAndStudy(pattern, PCRE_STUDY_JIT_COMPILE, _code, _extra);
    // A failed compile leaves `_extra` from an earlier one, which the query
    // below would pair with a null `_code`, fail on, and so set the flag:
    // the flag stays as it was instead.
    if (_code == nullptr || _extra == nullptr) {
        return;
    }
    // Only the query's own success is looked at: when PCRE cannot answer it,
    // the matcher falls back to pcre_jit_exec. The answer in `value` is not
    // needed, since pcre_exec enters JIT code by itself when there is some.
    int value = 0;
    _useJitExec = pcre_fullinfo(_code, _extra, PCRE_INFO_JIT, &value) != 0;
}

void* jit_regex::allocateJitStack() {
    return pcre_jit_stack_alloc(jit_stack_start, jit_stack_limit);
}

void jit_regex::deallocateJitStack(void* stack) {
    pcre_jit_stack_free(static_cast<pcre_jit_stack*>(stack));
}

}  // namespace vlk
