#include <vlk/system/fast_itoa.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

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
    const std::string digits = std::to_string(value);
    std::string buffer(k_guard + offset + room + k_guard, char(k_untouched));
    std::string expected = buffer;
    expected.replace(k_guard + offset, digits.size(), digits);
    char* out = buffer.data() + k_guard + offset;
    const char* end = write(out, value);
    const std::size_t reach = reachOf(digits.size());
    std::fill(out + digits.size(), out + std::min(reach, room), char(k_untouched));  // free
    if (end != out + digits.size() || reach > room || buffer != expected) {
        return testing::AssertionFailure() << value << ": returned out + " << (end - out)
                                           << ", reach " << reach << ", bytes around out differ";
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult itoaWrites(unsigned int value, std::size_t offset = 0) {
    return writesLikeToChars(vlk::fast_itoa::itoa, value, vlk::fast_itoa::itoa_room, offset);
}

testing::AssertionResult ltoaWrites(unsigned long value, std::size_t offset = 0) {
    return writesLikeToChars(vlk::fast_itoa::ltoa, value, vlk::fast_itoa::ltoa_room, offset);
}

// Every value up to a hundred thousand, every power of ten and its
// neighbours, and the largest values, which fill exactly the promised room.
TEST(FastItoa, WritesSmallValuesPowersOfTenAndTheLargest) {
    for (unsigned int value = 0; value <= 100000; ++value) {
        ASSERT_TRUE(itoaWrites(value));
        ASSERT_TRUE(ltoaWrites(value));
    }
    EXPECT_TRUE(itoaWrites(std::numeric_limits<unsigned int>::max()));
    EXPECT_TRUE(ltoaWrites(std::numeric_limits<unsigned long>::max()));
    std::uint64_t power = 1;
    for (int exponent = 1; exponent <= 19; ++exponent) {
        power *= 10;
        for (std::uint64_t value : {power - 1, power, power + 1}) {
            EXPECT_TRUE(ltoaWrites(value)) << value;
        }
    }
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
