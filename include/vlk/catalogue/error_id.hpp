// Identifiers and levels of catalogue rows.
//
// An `error_id` names one catalogue row by (`category`, `code`) and carries
// the row's `level` along; the level never takes part in hashing, comparing
// or matching. Its text form, e.g. "01-0001", is made by `renderErrorId`
// wherever an identifier is shown or searched.
//
// `log_level` is a bit mask: a row has exactly one bit, a filter any number.
// Everything here is constant data or pure functions, safe from any thread.
#pragma once

#include <cstdint>
#include <string>

#include <vlk/system/cstring.hpp>

namespace vlk {

enum class log_level : std::uint32_t {
    none = 0x00,
    developer = 0x01,
    trace = 0x02,
    stats = 0x04,
    info = 0x08,
    warning = 0x10,
    error = 0x20,
    critical = 0x40,
    emergency = 0x80,
};

constexpr log_level operator|(log_level a, log_level b) {
    return static_cast<log_level>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}
constexpr log_level operator&(log_level a, log_level b) {
    return static_cast<log_level>(static_cast<std::uint32_t>(a) & static_cast<std::uint32_t>(b));
}

struct error_id {
    std::uint8_t level = 0;  // one bit of log_level; 0 in an id parsed from text
    std::uint8_t category = 0;
    std::uint16_t code = 0;

    // Identity is (category, code): the level rides along.
    friend constexpr bool operator==(const error_id& a, const error_id& b) {
        return a.category == b.category && a.code == b.code;
    }
};
static_assert(sizeof(error_id) == 4);

// The names of the levels: index 0 is "none", index i + 1 the name of bit i.
extern const base::cstring log_level_cstrings[9];

// The name of a single-bit level: the entry of its lowest set bit.
base::cstring logLevelName(std::uint32_t level);

// "none" for 0, otherwise the names of all set bits from bit 0 up, joined by
// ",": 0x28 gives "info,error".
std::string getLogLevelString(log_level level);

// Reads a level name by its first letters only: shorter than four characters
// is none; "c" critical, "i" info, "s" stats, "t" trace, "w" warning; "d" is
// developer when the third character is "v" and info otherwise ("debug");
// "e" is error when the second is "r" and emergency otherwise; anything else,
// upper case included, is none.
log_level getLogLevel(const base::cstring& text);

// Longest text form: two hex digits, separator and up to five digits, plus
// the slack the word-wise decimal writer may overwrite.
inline constexpr std::size_t error_id_buffer_size = 16;

// Writes the text form of `id` at `out` (no NUL) and returns its length:
// two upper-case hex digits of the category, then "-000", "-00", "-0" or "-"
// for a code of one to four digits, or "B" for five digits, then the code.
// `out` must have room for `error_id_buffer_size` bytes.
std::size_t renderErrorId(const error_id& id, char* out);

// Appends the text form of `id` to `text`.
void appendErrorId(std::string& text, const error_id& id);

// Brings the hexadecimal letters a-f of a search pattern to the case of the
// identifiers. Only those six letters: it is no general upper-casing, and
// escapes such as \d are folded too, on purpose.
void foldHexLetters(std::string& text);

}  // namespace vlk
