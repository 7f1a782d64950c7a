// Text to numbers: the strict parser vlk::convert::toDouble and, on it, the
// configuration parsers of vlk::string_utils that read a number with a unit
// ("2.5x", "50%", "10s", "64MB"). Numbers to text: <vlk/system/fast_itoa.hpp>.
//
// Nothing here allocates (apart from the parsers' copies of their text),
// throws or logs; a refusal is the result, and leaves the output untouched.
// All of it uses only its arguments and constant tables: any thread.
#pragma once

#include <array>
#include <string>

namespace vlk {

namespace convert {

// The result of toDouble.
enum value_type : int {
    value_invalid = 0,   // not a number; the output is untouched
    value_unsigned = 1,  // an integer of 2^63 or more
    value_integer = 2,   // an integer below 2^63, or a negative one
    value_real = 3,      // a fraction, an exponent, or a "." with no fraction
};

namespace _vlk_convert_detail {

// Byte classes: 0 to 9 the digits, 10 whitespace (tab, line feed, vertical
// tab, carriage return, blank; not form feed), 11 "+", 12 "-", 13 "E" and
// "e", 14 ".", 16 any other byte up to 0x7F, and 0, the digit zero, for every
// byte above 0x7F, which is how the original table, indexed by a signed
// char, read them.
constexpr std::array<unsigned char, 256> makeIntegerTable() {
    std::array<unsigned char, 256> table{};
    for (unsigned byte = 0; byte < 0x80; ++byte) {
        table[byte] = 16;
    }
    for (unsigned digit = 0; digit < 10; ++digit) {
        table['0' + digit] = static_cast<unsigned char>(digit);
    }
    for (const unsigned char blank : {'\t', '\n', '\v', '\r', ' '}) {
        table[blank] = 10;
    }
    table['+'] = 11;
    table['-'] = 12;
    table['E'] = 13;
    table['e'] = 13;
    table['.'] = 14;
    return table;
}

template <int = 0>
struct lookup_tables {
    static constexpr std::array<unsigned char, 256> lookup_integer = makeIntegerTable();
};

}  // namespace _vlk_convert_detail

// Parses the whole of [text, text + length) as a number, stores it in `out`
// and says what it was; value_invalid leaves `out` alone. Accepted: blanks
// around the number; one sign; a decimal integer of up to 20 digits (19
// after "-", and from -2^63 on); a fraction after "."; an exponent of up to
// three digits (up to 308 when positive) after "E" or "e". Not accepted: a
// zero followed by anything but a digit or "." ("0x1", "0e1", "0 "), an
// exponent on a zero value ("0.0e5"), two signs or dots. The exponent is
// lenient at its end: "5e" and "5e+" are 5, and one stray byte may end it
// ("5e2x" is 500, "5e2xy" is refused).
//
// Integers are exact up to 2^64 - 1; above, the overflow check looks only at
// whether a digit step made the number smaller, so some 20-digit numbers
// beyond 2^64 wrap rather than being refused. Reals are built by repeated
// additions and multiplications by 10.0 and 0.1 and are not correctly
// rounded: equal to strtod within a few units in the last place, not always
// to the bit. Bytes above 0x7F count as the digit zero.
template <int = 0>
value_type toDouble(const char* text, unsigned long length, double& out);

extern template value_type toDouble<0>(const char* text, unsigned long length, double& out);

}  // namespace convert

namespace string_utils {

// The unit parsers. Each returns false for a text it refuses and writes its
// output only when it returns true. The number is the text up to the first
// character other than a digit or "." ("-" too for a percentage), read by
// toDouble, so there is no sign and no exponent ("+5" and "1e3s" are
// refused); the unit is the rest, up to a NUL, without blanks at either end.
// Only the first character of a unit counts (but see "m" for time).

// "2.5x": the number, which toDouble reads in any of its forms, before the
// first "x" or "X"; what stands behind it is not looked at. "x3" and "3" are
// refused.
bool getNumericMultiplierConstant(const std::string& text, double& multiplier);

// A fraction: "50%", "50 percent" (any case) and "50" are 0.5. Without a unit
// a number below 1.0 is taken as the fraction itself: "0.5" is 0.5 but
// "0.5%" is 0.005, and "1" is 0.01.
bool getNumericPercentConstant(const std::string& text, double& fraction);

// Nanoseconds; a unit is required. d, h, m (minutes, only as the whole unit),
// s, u, n and w, in either case; "m" followed by anything is milliseconds:
// "5m" is five minutes, "5ms" and "5min" five milliseconds.
bool getNumericTimeConstant(const std::string& text, unsigned long& nanoseconds);

// Bytes, in powers of 1024: no unit, k, m, g or t in either case ("10KB",
// "10k", "10kilo" are 10240). "10B" and "1P" are refused.
bool getNumericByteConstant(const std::string& text, unsigned long& bytes);

// The time and byte products are computed in double and truncated to 64 bits,
// with no check: a product of 2^64 or more gives 2^63.

}  // namespace string_utils

}  // namespace vlk
