// vlk::convert::toDouble on arbitrary bytes. Checks, beyond the sanitizers:
// the range is read and nothing behind it (the input is a heap block of
// exactly its size); a refusal leaves the output alone; integer results are
// whole numbers; a plain string of 1 to 19 digits is the integer strtoull
// reads, a value_integer below 2^63 and a value_unsigned from there on; a
// plain decimal fraction is close to what strtod reads.
#include <vlk/system/convert.hpp>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace vlk::convert;

void check(bool ok, const char* what, const std::string& text) {
    if (!ok) {
        std::fprintf(stderr, "to_double_fuzz: %s for \"%s\"\n", what, text.c_str());
        std::abort();
    }
}

std::size_t countDigits(const std::string& text, std::size_t from) {
    std::size_t end = from;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') {
        ++end;
    }
    return end - from;
}

// "-"? digits "." digits, up to 15 digits on each side.
bool isPlainReal(const std::string& text) {
    const std::size_t sign = !text.empty() && text[0] == '-' ? 1 : 0;
    const std::size_t whole = countDigits(text, sign);
    if (whole == 0 || whole > 15 || sign + whole >= text.size() || text[sign + whole] != '.') {
        return false;
    }
    const std::size_t fraction = countDigits(text, sign + whole + 1);
    return fraction > 0 && fraction <= 15 && sign + whole + 1 + fraction == text.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::unique_ptr<char[]> range(new char[size]);
    if (size != 0) {
        std::memcpy(range.get(), data, size);
    }
    const std::string text(range.get(), size);

    constexpr double k_untouched = -1234.5;
    double out = k_untouched;
    const value_type type = toDouble(range.get(), size, out);
    check(type >= value_invalid && type <= value_real, "unknown result", text);
    if (type == value_invalid) {
        check(std::memcmp(&out, &k_untouched, sizeof out) == 0, "refused but wrote", text);
    }
    if (type == value_integer || type == value_unsigned) {
        check(std::isfinite(out) && out == std::trunc(out), "integer not whole", text);
        check(type == value_integer || out >= 9223372036854775808.0, "small unsigned", text);
    }

    const std::size_t digits = countDigits(text, 0);
    if (digits >= 1 && digits <= 19 && digits == size) {
        const unsigned long long expected = std::strtoull(text.c_str(), nullptr, 10);
        check(type == (expected >> 63 != 0 ? value_unsigned : value_integer), "digits type", text);
        check(out == static_cast<double>(expected), "digits differ from strtoull", text);
    }
    if (isPlainReal(text)) {
        const double expected = std::strtod(text.c_str(), nullptr);
        check(type == value_real, "fraction not real", text);
        check(std::abs(out - expected) <= std::abs(expected) * 1e-13, "fraction off strtod", text);
    }
    return 0;
}
