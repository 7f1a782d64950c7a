// Small text operations of the toolkit, mostly for reading configuration and
// rendering identifiers. The numeric parsers of the same namespace
// (getNumeric...Constant) are in <vlk/system/convert.hpp>.
//
// Tables here are constant-initialised: they are complete before any dynamic
// initialiser runs, so static initialisers of other units may read them. All
// of it uses only its arguments and constant tables and is safe from any
// thread; toUpper and toLower depend on the process's locale.
#pragma once

#include <vlk/system/cstring.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vlk {

namespace _vlk_string_utils {

constexpr std::array<unsigned char, 256> makeRegexTable() {
    std::array<unsigned char, 256> table{};
    for (const char c : std::string_view("$()*+.?[\\]^{|}")) {
        table[static_cast<unsigned char>(c)] = 1;
    }
    return table;
}

template <int = 0>
struct lookup_tables {
    // Non-zero for the 14 characters $ ( ) * + . ? [ \ ] ^ { | } and zero for
    // every other byte, those above 0x7F included.
    static constexpr std::array<unsigned char, 256> lookup_regex = makeRegexTable();
};

}  // namespace _vlk_string_utils

namespace string_utils {

// A byte's text as two upper-case hexadecimal digits: uchar2hex[10] is "0A"
// and uchar2hex[255] is "FF". Every entry has length 2 and is not
// NUL-terminated.
extern const base::cstring uchar2hex[256];

// True if the text holds a character of lookup_regex: it could be a regular
// expression, not that it is a valid one. The std::string form stops at the
// first NUL, the other two read the whole length. Empty text gives false.
bool isRegex(const std::string& text);
bool isRegex(const base::cstring& text);
bool isRegex(const char* text, unsigned long length);

// `fallback` for an empty text; otherwise true only for a text of exactly
// four characters that begins with 't' ("true", also "tree"; not "TRUE").
bool isTrue(const std::string& text, bool fallback);
bool isTrue(const base::cstring& text, bool fallback);

// Writes `value` in decimal at `buffer`, no NUL, and returns the number of
// digits. Writes in whole words like fast_itoa::ltoa: give it
// fast_itoa::ltoa_room (20) bytes.
std::uint64_t convertInt(char* buffer, unsigned long value);

// The size in powers of 1000, truncated, with the unit and no blank: "0B",
// "999B", "1KB" for 1999, then MB, GB, TB and PB ("5000PB" for 5 * 10^18).
// Not the inverse of getNumericByteConstant, which counts in powers of 1024.
std::string sizeAsString(unsigned long size);

// A copy with toupper or tolower applied to every byte, in the current locale.
std::string toUpper(const std::string& text);
std::string toLower(const std::string& text);

// Replaces backslash escapes in place, in the view's own storage, which must
// be writable, and shortens the view. \a \b \f \n \r \t are the control
// characters; \ and three octal digits (taken modulo 256) or \x and two
// hexadecimal digits of either case are one byte; a backslash before any
// other character is dropped ("\\" is one backslash, "\v" is "v"). False,
// with the length unchanged but the storage partly rewritten, for a trailing
// backslash or a short or malformed octal or hexadecimal escape.
bool compress_escapes(base::cstring& text);

// Appends the comma-separated tokens of `text` to `tokens`, skipping empty
// ones ("a,,b" gives 2); the delimiter argument is ignored, the separator is
// always ','. Returns the number appended.
std::size_t tokenize(const std::string& text, std::vector<std::string>& tokens, char delimiter);

// Appends views into `text` (which must outlive them) of the pieces between
// `delimiter`s. Empty pieces are kept ("a,,b" gives "a", "", "b"; "," gives
// ""), except that a delimiter at the very end adds none behind it ("a,"
// gives "a"). Empty text gives none. Returns the number appended.
std::size_t tokenize(const base::cstring& text, std::vector<base::cstring>& tokens, char delimiter);

// Writes the text of errno value `number` into `buffer` and returns its
// length; a null buffer gives 0. The text comes from the GNU strerror_r and
// is copied in when that returns another string; when errno is EINVAL
// afterwards (left over from an earlier call: glibc does not set it) and
// `size` is above 12, the text is "unknown error", 14 bytes with the NUL,
// cut to 13 unterminated bytes in a buffer of 13. A text of `size` bytes or
// more is left unterminated and its length counts only to `size`; nothing is
// written or read past `size`. So `size` should exceed every message: 64 is
// plenty.
std::uint64_t strerror(char* buffer, unsigned long size, int number);

}  // namespace string_utils

}  // namespace vlk
