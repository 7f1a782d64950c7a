#include <vlk/system/fast_itoa.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr unsigned char k_untouched = 0xA5;  // never a digit nor a byte a store can leave
constexpr std::size_t k_guard = 16;

// The bytes a value of `digits` digits may touch: its last whole word, or
// exactly the digits from nine on.
std::size_t reachOf(std::size_t digits) {
    if (digits <= 2) {
        return 2;
    }
    if (digits <= 4) {
        return 4;
    }
    return std::max<std::size_t>(digits, 8);
}

// Writes `value` at `offset` inside a guarded buffer and checks the digits,
// the returned end, and that nothing outside [out, out + reach) changed.
template <class Value, class Writer>
testing::AssertionResult writesLikeToChars(Writer write, Value value, std::size_t room,
                                           std::size_t offset = 0) {
    char expected[24];
    const auto length = static_cast<std::size_t>(
        std::to_chars(expected, expected + sizeof expected, value).ptr - expected);

    std::vector<unsigned char> buffer(k_guard + offset + room + k_guard, k_untouched);
    char* out = reinterpret_cast<char*>(buffer.data()) + k_guard + offset;
    const char* end = write(out, value);

    if (end != out + length) {
        return testing::AssertionFailure()
               << value << ": returned out + " << (end - out) << ", want " << length;
    }
    if (std::string(out, length) != std::string(expected, length)) {
        return testing::AssertionFailure()
               << value << ": wrote \"" << std::string(out, length) << "\"";
    }
    const std::size_t first = k_guard + offset;
    const std::size_t last = first + reachOf(length);
    if (last > first + room) {
        return testing::AssertionFailure() << value << ": reach exceeds the room of " << room;
    }
    for (std::size_t i = 0; i < buffer.size(); ++i) {
        if ((i < first || i >= last) && buffer[i] != k_untouched) {
            return testing::AssertionFailure()
                   << value << ": byte " << (static_cast<long>(i) - static_cast<long>(first))
                   << " relative to out was overwritten";
        }
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult itoaWrites(unsigned int value, std::size_t offset = 0) {
    return writesLikeToChars(vlk::fast_itoa::itoa, value, vlk::fast_itoa::itoa_room, offset);
}

testing::AssertionResult ltoaWrites(unsigned long value, std::size_t offset = 0) {
    return writesLikeToChars(vlk::fast_itoa::ltoa, value, vlk::fast_itoa::ltoa_room, offset);
}

TEST(FastItoa, WritesEveryValueUpToAHundredThousand) {
    for (unsigned int value = 0; value <= 100000; ++value) {
        ASSERT_TRUE(itoaWrites(value));
        ASSERT_TRUE(ltoaWrites(value));
    }
}

TEST(FastItoa, WritesEveryPowerOfTenAndItsNeighbours) {
    std::uint64_t power = 1;
    for (int exponent = 0; exponent <= 19; ++exponent, power *= 10) {
        for (std::uint64_t value : {power - 1, power, power + 1}) {
            EXPECT_TRUE(ltoaWrites(value));
            if (value <= std::numeric_limits<unsigned int>::max()) {
                EXPECT_TRUE(itoaWrites(static_cast<unsigned int>(value)));
            }
        }
    }
}

TEST(FastItoa, WritesZeroAsOneDigitInATwoByteStore) {
    char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(vlk::fast_itoa::itoa(out, 0), out + 1);
    EXPECT_EQ(out[0], '0');
    EXPECT_EQ(out[2], 'x');
    EXPECT_EQ(vlk::fast_itoa::ltoa(out, 0), out + 1);
    EXPECT_EQ(out[0], '0');
}

TEST(FastItoa, WritesTheLargestValuesInExactlyTheirRoom) {
    char out[vlk::fast_itoa::ltoa_room];
    EXPECT_EQ(vlk::fast_itoa::itoa(out, 4294967295u), out + 10);
    EXPECT_EQ(std::string(out, 10), "4294967295");
    EXPECT_EQ(vlk::fast_itoa::ltoa(out, 18446744073709551615ul), out + 20);
    EXPECT_EQ(std::string(out, 20), "18446744073709551615");
    EXPECT_TRUE(itoaWrites(std::numeric_limits<unsigned int>::max()));
    EXPECT_TRUE(ltoaWrites(std::numeric_limits<unsigned int>::max()));
    EXPECT_TRUE(ltoaWrites(std::numeric_limits<unsigned long>::max()));
}

// Every digit count is drawn alike, at every alignment of `out`, so each
// branch and each leading-zero shift is reached many times.
TEST(FastItoa, WritesRandomValuesOfEveryLengthAtAnyAlignment) {
    std::mt19937_64 random(20240611);
    std::uint64_t low = 0;
    std::uint64_t high = 9;
    for (int digits = 1; digits <= 20; ++digits) {
        std::uniform_int_distribution<std::uint64_t> draw(low, high);
        for (int i = 0; i < 20000; ++i) {
            const std::uint64_t value = draw(random);
            const std::size_t offset = static_cast<std::size_t>(i) % 8;
            ASSERT_TRUE(ltoaWrites(value, offset));
            if (value <= std::numeric_limits<unsigned int>::max()) {
                ASSERT_TRUE(itoaWrites(static_cast<unsigned int>(value), offset));
            }
        }
        low = high + 1;
        high = digits == 19 ? std::numeric_limits<std::uint64_t>::max() : high * 10 + 9;
    }
}

}  // namespace
