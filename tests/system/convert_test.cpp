#include <vlk/system/convert.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

using namespace vlk::convert;
using namespace std::string_literals;
namespace su = vlk::string_utils;

constexpr double k_untouched = -123.25;

struct parse_case {
    std::string text;
    value_type type;
    double value = k_untouched;
};

// The rules' edges, and a long fraction with its exponent.
TEST(ToDouble, FollowsEveryRule) {
    const parse_case cases[] = {
        // clang-format off
        // The limits of the two result types; "1844...616" wraps below its start.
        {"18446744073709551615", value_unsigned, 18446744073709551615.0},
        {"9223372036854775808", value_unsigned, 9223372036854775808.0},
        {"9223372036854775807", value_integer, 9223372036854775807.0},
        {"-9223372036854775808", value_integer, -9223372036854775808.0},
        {"-9223372036854775809", value_invalid}, {"18446744073709551616", value_invalid},
        // 20 digits, 19 after "-"; a single leading zero is not counted.
        {"000000000000000000001", value_integer, 1}, {"0000000000000000000001", value_invalid},
        {"-00000000000000000001", value_integer, -1}, {"-000000000000000000001", value_invalid},
        // Signs and zeros.
        {"+7", value_integer, 7}, {"+", value_invalid}, {"--7", value_invalid},
        {"1-", value_invalid}, {"- ", value_integer, 0}, {"- 5", value_invalid},
        {"0x1", value_invalid}, {"0e1", value_invalid}, {"0.5", value_real, 0.5},
        // Blanks: tab, line feed, vertical tab, carriage return, blank; not form feed.
        {"\t\n\v\r 7\t\n\v\r ", value_integer, 7}, {" ", value_invalid},
        {"\f7", value_invalid}, {"7 8", value_invalid}, {" 1.5 ", value_real, 1.5},
        // Fractions, and other bytes.
        {"5.", value_real, 5}, {".5", value_real, 0.5}, {".", value_real, 0},
        {"1..2", value_invalid}, {"1.5+", value_invalid}, {"", value_invalid},
        {"1\0"s, value_invalid},
        // Exponents.
        {"5E+2", value_real, 500}, {"-5e-1", value_real, -0.5}, {"5.e1", value_real, 50},
        {"5e", value_real, 5}, {"5e+", value_real, 5}, {"5e002", value_real, 500},
        {"5e0002", value_invalid}, {"5e002 ", value_invalid}, {"5e2x", value_real, 500},
        {"5e2xy", value_invalid}, {"0.0e5", value_invalid}, {".e5", value_invalid},
        {"1e308", value_real, 1e308}, {"1e309", value_invalid}, {"1e-400", value_real, 0},
        {"-12345678.987654321e-7", value_real, -1.2345678987654321},
        // Bytes above 0x7F are the digit zero.
        {"\x80", value_integer, 0}, {"1\xff", value_integer, 10}};
    // clang-format on
    // Each text is parsed from a copy of exactly its size, so nothing behind the
    // range can be read; reals are not correctly rounded, so they agree within
    // a relative 1e-13; a refusal leaves the output untouched.
    for (const parse_case& c : cases) {
        const std::vector<char> copy(c.text.begin(), c.text.end());
        double out = k_untouched;
        EXPECT_EQ(toDouble(copy.data(), copy.size(), out), c.type) << '"' << c.text << '"';
        const double tolerance = c.type == value_real ? std::abs(c.value) * 1e-13 : 0;
        EXPECT_NEAR(out, c.value, tolerance) << '"' << c.text << '"';
    }
    double out = k_untouched;
    EXPECT_EQ(toDouble("123", 2, out), value_integer);  // only the range is read
    EXPECT_EQ(out, 12);
}

template <class Out>
struct unit_case {
    std::string text;
    bool ok;
    Out value = 77;  // also what a refusal must leave untouched
};

// Bytes and times take the first letter of their unit; the output is written
// only on success.
TEST(UnitParsers, BytesTimesPercentsAndMultipliers) {
    // clang-format off
    const unit_case<unsigned long> bytes[] = {
        {"10", true, 10}, {"1.5k", true, 1536}, {"1 G", true, 1073741824},
        {"10kilo ", true, 10240}, {" 10kilo ", false},  // the number must come first
        {"2t", true, 2199023255552}, {"5k\0junk"s, true, 5120},
        {"16777216T", true, 9223372036854775808ul},  // 2^64 is not detected
        {"10B", false}, {"1P", false}, {"k", false}, {"+5", false}, {"1e3", false}};
    const unit_case<unsigned long> times[] = {
        {"1.5s", true, 1500000000}, {"10", false}, {"1 w", true, 604800000000000},
        {"2D", true, 172800000000000}, {"3hello", true, 10800000000000},
        {"5M ", true, 300000000000}, {"5ms", true, 5000000}, {"5min", true, 5000000},
        {"7n", true, 7}, {"7U", true, 7000}, {"7x", false}, {"-1s", false}};
    const unit_case<double> percents[] = {
        {"50", true, 0.5}, {"50%", true, 0.5}, {"0.5", true, 0.5}, {"0.5%", true, 0.005},
        {"1", true, 0.01}, {"50 PERCENT", true, 0.5}, {"50 per", false}, {"-50%", true, -0.5},
        {"", false}};
    const unit_case<double> multipliers[] = {
        {"x3", false}, {"3", false}, {"2.5Xfoo", true, 2.5}, {"1e1x", true, 10}, {" 2 x", true, 2}};
    // clang-format on
    auto check = [](auto parse, const auto& cases) {
        for (const auto& c : cases) {
            decltype(c.value) out = 77;
            EXPECT_EQ(parse(c.text, out), c.ok) << '"' << c.text << '"';
            EXPECT_EQ(out, c.ok ? c.value : 77) << '"' << c.text << '"';
        }
    };
    check(su::getNumericByteConstant, bytes);
    check(su::getNumericTimeConstant, times);
    check(su::getNumericPercentConstant, percents);
    check(su::getNumericMultiplierConstant, multipliers);
}

}  // namespace
