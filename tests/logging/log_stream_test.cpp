#include <vlk/logging/log_stream.hpp>

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include <vlk/logging/error_stream.hpp>

namespace {

using vlk::log_stream;

log_stream withLength(std::uint64_t capacity, std::uint64_t length) {
    log_stream stream(vlk::log_stream_buffer::withCapacity(capacity));
    stream.append(std::string(length, 'x').data(), length);
    return stream;
}

TEST(LogStream, GrowsToMultiplesOf128AtLeastDoubling) {
    const struct {
        std::uint64_t capacity, length, append, grown;
    } cases[] = {
        {0, 0, 5, 128},            // nothing yet: one granule
        {0, 0, 200, 256},          // or what is needed, rounded up
        {128, 100, 500, 640},      // more than double: what is needed
        {1024, 1000, 1000, 2048},  // a 2000-byte body grows 1024 to 2048
        {1024, 1000, 24, 1024},    // fits: no growth
    };
    for (const auto& c : cases) {
        log_stream stream = c.capacity == 0 ? log_stream() : withLength(c.capacity, c.length);
        stream.append(std::string(c.append, 'y').data(), c.append);
        EXPECT_EQ(stream.capacity, c.grown) << c.capacity << " + " << c.append;
        EXPECT_EQ(stream.length, c.length + c.append);
        EXPECT_EQ(std::string(stream.data + c.length, c.append), std::string(c.append, 'y'));
    }
}

TEST(LogStream, PiecesAreWrittenInOrderWithSignsAndWithoutNulls) {
    static const char fixed[6] = "fixed";
    const std::string text = "text:";
    const char* absent = nullptr;
    const char* present = "present";
    const int lowest = INT_MIN, negative = -7, zero = 0;
    const unsigned long largest = ULONG_MAX;
    vlk::error_id row{0x08, 0x01, 1};
    vlk::velk_error_stream<std::string, char[6], const char*, const char*, int, int, int,
                           unsigned long>
        stream(row, text, fixed, absent, present, lowest, negative, zero, largest);
    log_stream out;
    stream.appendTo(out);
    EXPECT_EQ(std::string(out.data, out.length),
              "text:fixedpresent-2147483648-7018446744073709551615");

    // A number reserves its longest text before writing: 1020 + 11 > 1024.
    log_stream nearlyFull = withLength(1024, 1020);
    vlk::velk_error_stream1<int>(row, zero).appendTo(nearlyFull);
    EXPECT_EQ(nearlyFull.capacity, 2048U);
    EXPECT_EQ(nearlyFull.length, 1021U);
}

}  // namespace
