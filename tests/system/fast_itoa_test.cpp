#include <vlk/system/fast_itoa.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

namespace {

using namespace vlk::fast_itoa;
constexpr char k_untouched = char(0xA5);  // never a digit nor a byte a store can leave
constexpr std::size_t k_guard = 16;

// Writes `value` with itoa (unsigned int) or ltoa at `offset` inside a
// guarded buffer and checks the digits, the returned end, and that nothing
// outside [out, out + reach) changed: a value of n digits may touch its last
// whole word, 2 or 4 bytes, or exactly the digits from nine on.
template <class Value>
testing::AssertionResult writes(Value value, std::size_t offset) {
    constexpr bool narrow = sizeof(Value) == sizeof(unsigned int);
    const std::size_t room = narrow ? itoa_room : ltoa_room;
    const std::string digits = std::to_string(value);
    const std::size_t n = digits.size();
    std::string buffer(k_guard + offset + room + k_guard, k_untouched);
    std::string expected = buffer;
    expected.replace(k_guard + offset, n, digits);
    char* out = buffer.data() + k_guard + offset;
    const char* end = narrow ? itoa(out, value) : ltoa(out, value);
    const std::size_t reach = n <= 2 ? 2 : n <= 4 ? 4 : std::max<std::size_t>(n, 8);
    std::fill(out + n, out + std::min(reach, room), k_untouched);  // free to use
    if (end != out + n || reach > room || buffer != expected) {
        return testing::AssertionFailure() << value << ": returned out + " << (end - out)
                                           << ", reach " << reach << ", bytes around out differ";
    }
    return testing::AssertionSuccess();
}

// Every value up to a hundred thousand, every power of ten and its
// neighbours, the largest values, which fill exactly the promised room, and
// random values of every digit count, drawn alike, at every alignment.
TEST(FastItoa, WritesEveryLengthAtAnyAlignment) {
    for (unsigned int value = 0; value <= 100000; ++value) {
        ASSERT_TRUE(writes(value, value % 8));
        ASSERT_TRUE(writes<unsigned long>(value, value % 8));
    }
    EXPECT_TRUE(writes(std::numeric_limits<unsigned int>::max(), 0));
    EXPECT_TRUE(writes(std::numeric_limits<unsigned long>::max(), 0));
    std::mt19937_64 random(20240611);
    std::uint64_t power = 1;
    for (int digits = 1; digits <= 20; ++digits) {
        const std::uint64_t high = digits == 20 ? ~0ul : power * 10 - 1;
        std::uniform_int_distribution<std::uint64_t> draw(digits == 1 ? 0 : power, high);
        for (int i = 0; i < 20000; ++i) {
            const std::uint64_t value = i < 3 ? power - 1 + i : draw(random);
            ASSERT_TRUE(writes<unsigned long>(value, i % 8));
            if (value <= std::numeric_limits<unsigned int>::max()) {
                ASSERT_TRUE(writes(static_cast<unsigned int>(value), i % 8));
            }
        }
        power *= digits < 20 ? 10 : 1;
    }
}

}  // namespace
