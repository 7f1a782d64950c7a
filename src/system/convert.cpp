#include <vlk/system/convert.hpp>
#include <vlk/system/string_utils.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace vlk::convert {

namespace {

constexpr const auto& k_class = _vlk_convert_detail::lookup_tables<0>::lookup_integer;

static_assert(k_class['7'] == 7 && k_class[' '] == 10 && k_class['\f'] == 16);
static_assert(k_class['e'] == 13 && k_class['.'] == 14 && k_class[0x7F] == 16);
static_assert(k_class[0x80] == 0 && k_class[0xFF] == 0, "bytes above 0x7F are the digit 0");

constexpr unsigned k_blank = 10;
constexpr unsigned k_plus = 11;
constexpr unsigned k_exponent = 13;
constexpr unsigned k_dot = 14;
constexpr unsigned k_other = 16;

constexpr std::uint64_t k_top_bit = std::uint64_t{1} << 63;

unsigned classOf(const char* p) {
    return k_class[static_cast<unsigned char>(*p)];
}

bool isDigit(unsigned byteClass) {
    return byteClass <= 9;
}

const char* skipBlanks(const char* p, const char* end) {
    while (p != end && classOf(p) == k_blank) {
        ++p;
    }
    return p;
}

// The range ended after an integer (step 5).
value_type integerResult(std::uint64_t magnitude, bool negative, double& out) {
    if (!negative) {
        out = static_cast<double>(magnitude);
        return (magnitude & k_top_bit) != 0 ? value_unsigned : value_integer;
    }
    if (magnitude > k_top_bit) {
        return value_invalid;
    }
    // 0 - 2^63 is 2^63, which converts to -2^63.
    out = static_cast<double>(static_cast<std::int64_t>(0 - magnitude));
    return value_integer;
}

value_type realResult(double value, bool negative, double& out) {
    out = negative ? -value : value;
    return value_real;
}

// Step 8: the whole range must have been used.
value_type endResult(const char* p, const char* end, double value, bool negative, double& out) {
    return p == end ? realResult(value, negative, out) : value_invalid;
}

// Step 7, `p` on the "E".
value_type exponentPart(const char* p, const char* end, double value, bool negative, double& out) {
    if (value == 0.0) {
        return value_invalid;
    }
    if (++p == end) {
        return realResult(value, negative, out);
    }
    bool negativeExponent = false;
    if (classOf(p) >= k_plus) {
        // Any byte of class 11 or above takes the sign's place.
        negativeExponent = *p == '-';
        if (++p == end) {
            return realResult(value, negative, out);
        }
    }
    unsigned exponent = 0;
    for (int digits = 0; p != end;) {
        const unsigned byteClass = classOf(p++);
        if (!isDigit(byteClass)) {
            break;  // a stray byte ends the exponent and is swallowed
        }
        exponent = exponent * 10 + byteClass;
        if (++digits == 3) {
            break;
        }
    }
    if (negativeExponent) {
        for (unsigned i = 0; i < exponent; ++i) {
            value *= 0.1;
        }
    } else {
        if (exponent > 308) {
            return value_invalid;
        }
        for (unsigned i = 0; i < exponent; ++i) {
            value *= 10.0;
        }
    }
    return endResult(p, end, value, negative, out);
}

// Step 6, `p` on the first byte behind the integer part.
value_type fractionPart(const char* p, const char* end, double value, bool negative, double& out) {
    if (*p == '.') {
        if (++p == end) {
            return realResult(value, negative, out);
        }
        if (classOf(p) >= k_dot) {
            return value_invalid;
        }
    }
    double scale = 1.0;
    while (true) {
        const unsigned byteClass = classOf(p);
        if (isDigit(byteClass)) {
            scale *= 10.0;
            value += byteClass / scale;
            if (++p == end) {
                return realResult(value, negative, out);
            }
        } else if (byteClass == k_blank) {
            return endResult(skipBlanks(p, end), end, value, negative, out);
        } else if (byteClass == k_exponent) {
            return exponentPart(p, end, value, negative, out);
        } else {
            return value_invalid;  // a sign, a second ".", any other byte
        }
    }
}

}  // namespace

template <int>
value_type toDouble(const char* text, unsigned long length, double& out) {
    // Step 1.
    if (text == nullptr || length == 0 || classOf(text) == k_other) {
        return value_invalid;
    }
    const char* p = text;
    const char* const end = text + length;

    // Step 2: blanks, then at most one sign.
    p = skipBlanks(p, end);
    bool negative = false;
    if (p != end && (*p == '-' || *p == '+')) {
        negative = *p++ == '-';
    }
    if (p == end) {
        return value_invalid;
    }

    // Step 3: a leading zero stands alone or before a digit or ".".
    if (classOf(p) == 0) {
        if (p + 1 == end) {
            out = 0.0;
            return value_integer;
        }
        if (!isDigit(classOf(p + 1)) && p[1] != '.') {
            return value_invalid;
        }
        ++p;
    }

    // Step 4: the integer part, at most 20 digits, or 19 after "-".
    const int maxDigits = negative ? 19 : 20;
    std::uint64_t magnitude = 0;
    int digits = 0;
    for (; p != end && isDigit(classOf(p)); ++p) {
        if (++digits > maxDigits) {
            return value_invalid;
        }
        const std::uint64_t next = magnitude * 10 + classOf(p);
        if (!negative && next < magnitude) {
            return value_invalid;
        }
        magnitude = next;
    }

    // Step 5.
    if (p != end) {
        const unsigned byteClass = classOf(p);
        if (byteClass == k_blank) {
            p = skipBlanks(p, end);
            if (p != end) {
                return value_invalid;
            }
        } else if (byteClass == k_other) {
            return value_invalid;
        } else {
            return fractionPart(p, end, static_cast<double>(magnitude), negative, out);
        }
    }
    return integerResult(magnitude, negative, out);
}

template value_type toDouble<0>(const char* text, unsigned long length, double& out);

}  // namespace vlk::convert

namespace vlk::string_utils {

namespace {

constexpr const char* k_blanks = " \t\n\v\f\r";

// The number and unit of a parser's text, steps 1 to 4.
struct quantity {
    double value = 0.0;
    std::string unit;
};

bool splitQuantity(const std::string& text, const char* numberCharacters, quantity& result) {
    const std::size_t numberEnd = std::min(text.find_first_not_of(numberCharacters), text.size());
    if (numberEnd == 0) {
        return false;
    }
    if (convert::toDouble(text.data(), numberEnd, result.value) == convert::value_invalid) {
        return false;
    }
    // The unit ends at a NUL; blanks around it are dropped.
    const char* unit = text.c_str() + numberEnd;
    const std::string_view rest(unit, std::strlen(unit));
    const std::size_t first = rest.find_first_not_of(k_blanks);
    if (first == std::string_view::npos) {
        result.unit.clear();
    } else {
        result.unit = rest.substr(first, rest.find_last_not_of(k_blanks) + 1 - first);
    }
    return true;
}

// double to unsigned 64 bits as the x86-64 conversion does it: from 2^63 on,
// 2^63 is subtracted and the top bit set again. A product of 2^64 or more is
// not detected; the conversion's out-of-range answer, 2^63, is spelled out
// here instead of leaving the cast undefined.
std::uint64_t truncateToUnsigned(double value) {
    constexpr double k_two63 = 9223372036854775808.0;
    constexpr std::uint64_t k_top = std::uint64_t{1} << 63;
    if (value < k_two63) {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
    }
    const double low = value - k_two63;
    return (low < k_two63 ? static_cast<std::uint64_t>(static_cast<std::int64_t>(low)) : k_top) |
           k_top;
}

struct unit_letter {
    char letter;  // lower case; the upper case is the same unit
    double multiplier;
};

constexpr unit_letter k_time_units[] = {
    {'d', 86400000000000.0}, {'h', 3600000000000.0}, {'m', 60000000000.0},     {'n', 1.0},
    {'s', 1000000000.0},     {'u', 1000.0},          {'w', 604800000000000.0},
};

constexpr unit_letter k_byte_units[] = {
    {'k', 1024.0}, {'m', 1048576.0}, {'g', 1073741824.0}, {'t', 1099511627776.0}};

// The multiplier of the unit that `first` begins, 0 for none. Only the two
// cases of a letter have the letter's bits apart from 0x20.
template <std::size_t N>
double multiplierOf(const unit_letter (&units)[N], char first) {
    for (const unit_letter& u : units) {
        if ((first | 0x20) == u.letter) {
            return u.multiplier;
        }
    }
    return 0.0;
}

}  // namespace

bool getNumericMultiplierConstant(const std::string& text, double& multiplier) {
    const std::size_t x = text.find_first_of("xX");
    if (x == std::string::npos || x == 0) {
        return false;
    }
    double value = 0.0;
    if (convert::toDouble(text.data(), x, value) == convert::value_invalid) {
        return false;
    }
    multiplier = value;
    return true;
}

bool getNumericPercentConstant(const std::string& text, double& fraction) {
    quantity q;
    if (!splitQuantity(text, "1234567890.-", q)) {
        return false;
    }
    if (q.unit.empty()) {
        fraction = q.value >= 1.0 ? q.value / 100 : q.value;
        return true;
    }
    if (q.unit[0] == '%' ||
        ((q.unit[0] == 'p' || q.unit[0] == 'P') && toLower(q.unit) == "percent")) {
        fraction = q.value / 100;
        return true;
    }
    return false;
}

bool getNumericTimeConstant(const std::string& text, unsigned long& nanoseconds) {
    quantity q;
    if (!splitQuantity(text, "1234567890.", q) || q.unit.empty()) {
        return false;
    }
    // "m" alone is minutes; "m" and more is milliseconds.
    const double unit = q.unit.size() > 1 && (q.unit[0] | 0x20) == 'm'
                            ? 1000000.0
                            : multiplierOf(k_time_units, q.unit[0]);
    if (unit == 0.0) {
        return false;
    }
    nanoseconds = truncateToUnsigned(q.value * unit);
    return true;
}

bool getNumericByteConstant(const std::string& text, unsigned long& bytes) {
    quantity q;
    if (!splitQuantity(text, "1234567890.", q)) {
        return false;
    }
    const double unit = q.unit.empty() ? 1.0 : multiplierOf(k_byte_units, q.unit[0]);
    if (unit == 0.0) {
        return false;
    }
    bytes = truncateToUnsigned(q.value * unit);
    return true;
}

}  // namespace vlk::string_utils
