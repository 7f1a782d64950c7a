// One compiled PCRE expression, studied for JIT and shared by count.
//
// A `jit_regex` does no matching itself: the regex manager runs `_code` and
// `_extra`, which are public for that reason, and chooses the entry point by
// `_useJitExec`. Patterns are compiled with no option bits and the default
// tables and studied with PCRE_STUDY_JIT_COMPILE, with the match limit lifted.
// A pattern that does not compile leaves `_code` null and raises nothing;
// such an object matches nothing. Objects are made with `new` and held
// through `jit_regex_pointer`, whose last holder deletes them. After
// construction the object is read-only, so any number of threads may match
// with it at once; only `_refCount` changes, atomically. `init` must not race
// with another `init` on the same object.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include <vlk/containers/intrusive_pointer.hpp>
#include <vlk/system/cstring.hpp>

// PCRE's own types, declared as <pcre.h> declares them, so that this header
// does not bring in the library's interface.
struct real_pcre;
struct pcre_extra;

namespace vlk {

class jit_regex {
  public:
    jit_regex() = default;
    // Compiles the string's characters up to its first NUL.
    explicit jit_regex(const std::string& pattern);
    // Compiles a NUL-terminated copy of the view.
    explicit jit_regex(const base::cstring& pattern);
    jit_regex(const jit_regex&) = delete;
    jit_regex& operator=(const jit_regex&) = delete;
    // Frees the study data, then the compiled code.
    ~jit_regex();

    // Compile unless this object already holds compiled code.
    void init(const std::string& pattern);
    void init(const base::cstring& pattern);

    // Compiles the NUL-terminated `pattern`, whatever was compiled before;
    // `length` is not used. A previous `_code` is overwritten, not freed.
    void _init(const char* pattern, unsigned long length);

    // A JIT stack of 32 KiB growing to 1 MiB, or null when PCRE has none.
    static void* allocateJitStack();
    static void deallocateJitStack(void* stack);

    // Holders of the object; only intrusive_pointer changes it.
    std::atomic<std::int32_t> _refCount{0};
    // True when PCRE could not say whether the study made JIT code; the
    // matcher then calls pcre_jit_exec with its own stack.
    bool _useJitExec = false;
    real_pcre* _code = nullptr;    // null until a compile has succeeded
    pcre_extra* _extra = nullptr;  // null when there is no study data
};

// The count must open the object: the pointer traits find it there.
static_assert(offsetof(jit_regex, _refCount) == 0);

using jit_regex_pointer = base::intrusive_pointer<
    jit_regex, base::intrusive_pointer_traits<jit_regex, base::default_ip_release_policy>>;

}  // namespace vlk
