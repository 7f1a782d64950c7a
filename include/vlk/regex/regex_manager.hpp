// The process-wide registry of compiled expressions.
//
// `registerRegex(pattern)` compiles a pattern once and returns an opaque
// handle, the `vlk::jit_regex*` that the registry keeps alive; the pattern
// text itself is the key, with no normalisation. A pattern that does not
// compile gives null and is not remembered. From then on any thread matches
// through the handle with no lock, no atomic and no allocation after its
// first match, which creates the thread's JIT stack. Handles stay valid until
// `terminate()`, which must not run while other threads register or match.
//
// Registering may race freely: threads that compile the same new pattern at
// once all get the one handle that was stored. The registry logs nothing.
// A thread that matched should call `threadTerminate()` before it ends, or
// its JIT stack stays allocated.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <vlk/regex/jit_regex.hpp>
#include <vlk/system/cstring.hpp>

namespace velk {

namespace _velk_regex_manager_detail {
class _velk_regex_manager_impl;

// The calling thread's JIT stack; null until its first match on a handle.
inline thread_local void* _jitStack = nullptr;
}  // namespace _velk_regex_manager_detail

class velk_regex_manager {
  public:
    // Builds the registry unless it exists.
    static void init();
    // Destroys the registry and every expression; handles dangle afterwards.
    static void terminate();
    // Changes nothing: handles keep working.
    static void shutdown() {}
    // Frees the calling thread's JIT stack.
    static void threadTerminate();

    // The calling thread's JIT stack, created on first use.
    static void* getJitStack() {
        void*& stack = _velk_regex_manager_detail::_jitStack;
        if (stack == nullptr) [[unlikely]] {
            stack = vlk::jit_regex::allocateJitStack();
        }
        return stack;
    }

    // The handle for `pattern`, or null when it does not compile.
    static void* registerRegex(const std::string& pattern);
    // Expressions held by the registry; 0 when it is not built.
    static std::uint64_t registeredCount();
    static void* registerRegex(const vlk::base::cstring& pattern);

    // True when the expression matches somewhere in the text. A capture
    // vector too small for all groups still counts as a match; any PCRE
    // error counts as none. A null handle is no match.
    static bool isMatch(void* regex, const char* text, unsigned long length) {
        int ovector[16];
        return match(regex, text, length, 0, ovector, 16) >= 0;
    }

    // Registers `pattern` on first use and caches the handle in `regex`; a
    // non-null `regex` is used as it is, without looking at `pattern`.
    static bool isMatch(const vlk::base::cstring& text, const vlk::base::cstring& pattern,
                        void*& regex) {
        return lazyMatch(text.data, text.length, pattern.view(), regex);
    }
    static bool isMatch(const vlk::base::cstring32& text, const vlk::base::cstring32& pattern,
                        void*& regex) {
        return lazyMatch(text.data, text.length, pattern.view(), regex);
    }

    // PCRE's result with captures in `ovector`; -1 for a null handle or an
    // expression that did not compile.
    static int match(void* regex, const char* text, unsigned long length, int* ovector,
                     unsigned long ovectorSize) {
        return match(regex, text, length, 0, ovector, ovectorSize);
    }

    static int match(void* regex, const char* text, unsigned long length, unsigned long startOffset,
                     int* ovector, unsigned long ovectorSize);

  private:
    static bool lazyMatch(const char* text, unsigned long length, std::string_view pattern,
                          void*& regex) {
        if (regex == nullptr) {
            regex = registerRegex(std::string(pattern));
            if (regex == nullptr) {
                return false;
            }
        }
        return isMatch(regex, text, length);
    }
};

}  // namespace velk
