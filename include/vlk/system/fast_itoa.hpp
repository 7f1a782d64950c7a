// Decimal text of unsigned integers, without a divide per digit.
//
// itoa() and ltoa() write the digits of `value` at `out`, no sign, no NUL, and
// return the pointer behind the last digit. Digits are built as bytes of one
// 64-bit word by multiplications and masks and leave in whole-word stores, so
// the bytes between the returned end and the end of the last word hold
// rubbish. A value of n digits touches exactly [out, out + max(n, w)), with
// w = 2 below 100, 4 below 10^4, 8 below 10^8 and w = n above: nothing before
// `out` and, from nine digits on, nothing behind the end. The caller gives
// `itoa_room` (10) bytes to itoa and `ltoa_room` (20) bytes to ltoa; a value
// known to be smaller needs only its w. No alignment is needed.
//
// Pure functions of their arguments: any thread, no allocation, no failure.
// Negative numbers are the caller's business: write "-" and pass the
// magnitude.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vlk::fast_itoa {

inline constexpr std::size_t itoa_room = 10;
inline constexpr std::size_t ltoa_room = 20;

namespace _fast_itoa_detail {

// Digit words carry the most significant digit in the lowest byte, so a word
// stored little-endian reads left to right. Each step below splits every lane
// of a word into two half-width lanes in parallel: a lane holding v becomes
// (v / d) in its low half and (v % d) in its high half.

inline constexpr std::uint64_t k_bias = 0x3030303030303030;  // '0' in every byte

// One whole-word store; memcpy keeps it free of aliasing and alignment
// assumptions and compiles to a single mov.
template <class Word>
inline void storeWord(char* out, Word word) {
    std::memcpy(out, &word, sizeof word);
}

// v < 100 as two digit bytes, tens low. (v * 103) >> 10 equals v / 10 for
// v < 179; v * 256 - tens * 2559 is (v - 10 tens) << 8 | tens.
inline std::uint32_t pairDigits(std::uint32_t v) {
    const std::uint32_t tens = (v * 103) >> 10;
    return v * 256 - tens * 2559;
}

// v < 10000 as four digit bytes. (v * 10486) >> 20 equals v / 100 for
// v < 43699. Each 16-bit lane stays below 10197 through the multiply by 103,
// so no lane spills into the next one; the mask drops the bits that the
// right shift brings down from the upper lane.
inline std::uint32_t fourDigits(std::uint32_t v) {
    const std::uint32_t hundreds = (v * 10486) >> 20;
    const std::uint32_t pairs = ((v - 100 * hundreds) << 16) | hundreds;
    const std::uint32_t tens = ((pairs * 103) >> 10) & 0x000F000F;
    return pairs * 256 - tens * 2559;
}

// v < 10^8 as eight digit bytes. The 32-bit lanes (v / 10^4, v % 10^4) are
// split into pairs by lane * 65536 - (lane / 100) * (100 * 65536 - 1), then
// the four pairs into digits as in pairDigits(). Every lane's true result is
// non-negative and the whole fits in 64 bits, so the borrows of the
// subtractions between lanes cancel and the wrapped arithmetic is exact.
inline std::uint64_t eightDigits(std::uint32_t v) {
    const std::uint64_t quads = (v / 10000) | (std::uint64_t{v % 10000} << 32);
    const std::uint64_t hundreds = ((quads * 10486) >> 20) & 0x0000007F0000007F;
    const std::uint64_t pairs = quads * 65536 - hundreds * 6553599;
    const std::uint64_t tens = ((pairs * 103) >> 10) & 0x000F000F000F000F;
    return pairs * 256 - tens * 2559;
}

// Leading zero digits are the zero low bytes of a digit word; `digits` must
// not be 0. Returns the number of bits to shift them out. The top byte holds
// a digit below 10, so setting the top bit cannot change the count of a
// non-zero word; it lets the compiler drop its test for zero.
template <class Word>
inline unsigned leadingZeroBits(Word digits) {
    constexpr Word top = Word{1} << (sizeof(Word) * 8 - 1);
    return static_cast<unsigned>(std::countr_zero(digits | top)) & ~7u;
}

// v < 100: one or two digits in one 16-bit store. For v < 10 the unsigned
// v - 10 wraps and has bit 3 set after the shift: the zero tens byte is
// shifted out and the length drops to one, without a branch.
inline char* writePair(char* out, std::uint32_t v) {
    const std::uint32_t zeroBits = ((v - 10) >> 8) & 8;
    storeWord(out, static_cast<std::uint16_t>((pairDigits(v) + 0x3030) >> zeroBits));
    return out + 2 - zeroBits / 8;
}

// 0 < v < 10^4: leading zeros stripped, one 32-bit store.
inline char* writeFour(char* out, std::uint32_t v) {
    const std::uint32_t digits = fourDigits(v);
    const unsigned zeroBits = leadingZeroBits(digits);
    storeWord(out, (digits + static_cast<std::uint32_t>(k_bias)) >> zeroBits);
    return out + 4 - zeroBits / 8;
}

// 0 < v < 10^8: leading zeros stripped, one 64-bit store.
inline char* writeEight(char* out, std::uint32_t v) {
    const std::uint64_t digits = eightDigits(v);
    const unsigned zeroBits = leadingZeroBits(digits);
    storeWord(out, (digits + k_bias) >> zeroBits);
    return out + 8 - zeroBits / 8;
}

// v < 10^8 as exactly eight digits, zeros kept: the tail of a longer number.
inline char* writeEightFull(char* out, std::uint32_t v) {
    storeWord(out, eightDigits(v) + k_bias);
    return out + 8;
}

// value < 10^8, in as few stores as its magnitude allows.
inline char* writeBelow1e8(char* out, std::uint32_t value) {
    if (value < 100) {
        return writePair(out, value);
    }
    if (value < 10000) {
        return writeFour(out, value);
    }
    return writeEight(out, value);
}

}  // namespace _fast_itoa_detail

// Writes 1 to 10 digits; see the header comment for the bytes it touches.
inline char* itoa(char* out, unsigned int value) {
    using namespace _fast_itoa_detail;
    if (value < 100000000) {
        return writeBelow1e8(out, value);
    }
    // 10^8 and up: one or two leading digits, then eight in full.
    const std::uint32_t high = value / 100000000;
    return writeEightFull(writePair(out, high), value - high * 100000000);
}

// Writes 1 to 20 digits; see the header comment for the bytes it touches.
inline char* ltoa(char* out, unsigned long value) {
    using namespace _fast_itoa_detail;
    if (value < 100000000) {
        return writeBelow1e8(out, static_cast<std::uint32_t>(value));
    }
    // The low eight digits always come last and in full; what stands before
    // them is a pair, up to eight digits, or up to four and eight more.
    const std::uint64_t high = value / 100000000;
    const auto low = static_cast<std::uint32_t>(value - high * 100000000);
    if (high < 100) {
        out = writePair(out, static_cast<std::uint32_t>(high));
    } else if (high < 100000000) {
        out = writeEight(out, static_cast<std::uint32_t>(high));
    } else {
        const auto top = static_cast<std::uint32_t>(high / 100000000);
        const auto middle = static_cast<std::uint32_t>(high - std::uint64_t{top} * 100000000);
        out = writeEightFull(writeFour(out, top), middle);
    }
    return writeEightFull(out, low);
}

}  // namespace vlk::fast_itoa
