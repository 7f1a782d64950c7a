// One compiled PCRE expression and its study data, owned.
//
// A `regex` does no matching itself: callers run pcre_exec on `_code` and
// `_extra`, which are public for that reason. The pattern goes to PCRE as it
// is, compiled with no option bits and the default tables, and studied so
// that its match limit is lifted. A pattern that does not compile leaves
// `_code` null and raises nothing. Not copyable; destroy it on any thread.
#pragma once

#include <string>
#include <string_view>

#include <vlk/system/cstring.hpp>

// PCRE's own types, declared as <pcre.h> declares them, so that this header
// does not bring in the library's interface.
struct real_pcre;
struct pcre_extra;

namespace vlk {

class regex {
  public:
    regex() = default;
    explicit regex(const std::string& pattern);
    explicit regex(const base::cstring& pattern);
    regex(const regex&) = delete;
    regex& operator=(const regex&) = delete;
    ~regex();

    // Compile unless this object already holds compiled code.
    void init(const std::string& pattern);
    void init(const base::cstring& pattern);

    // Compiles the NUL-terminated `pattern`, whatever was compiled before;
    // `length` is not used. A previous `_code` is overwritten, not freed.
    void _init(const char* pattern, unsigned long length);

    real_pcre* _code = nullptr;    // null until a compile has succeeded
    pcre_extra* _extra = nullptr;  // null when there is no study data
};

// Whether `pattern`, compiled as `regex` compiles it, matches exactly its own
// bytes: it holds no metacharacter and no NUL (PCRE would stop reading at
// one). Such a pattern matches exactly the subjects that contain it, so a
// caller may search for it instead of compiling it.
bool isLiteralPattern(std::string_view pattern);

}  // namespace vlk
