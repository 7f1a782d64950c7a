// The four unit parsers of vlk::string_utils on arbitrary text. Checks,
// beyond the sanitizers: an output is written only when its parser says
// true; for "<digits>" with at most one unit character behind them the
// results are those of strtoull times the unit's multiplier, wherever that
// product is exact in a double.
#include <vlk/system/convert.hpp>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

namespace {

namespace su = vlk::string_utils;

void check(bool ok, const char* what, const std::string& text) {
    if (!ok) {
        std::fprintf(stderr, "unit_parsers_fuzz: %s for \"%s\"\n", what, text.c_str());
        std::abort();
    }
}

template <class Out>
bool parse(bool (*parser)(const std::string&, Out&), const std::string& text, Out& out,
           const char* name) {
    const Out untouched = static_cast<Out>(424242);
    out = untouched;
    const bool ok = parser(text, out);
    check(ok || out == untouched, name, text);
    return ok;
}

// 0 for a letter that is not a byte unit.
std::uint64_t byteMultiplier(char unit) {
    switch (unit | 0x20) {
        case 'k':
            return std::uint64_t{1} << 10;
        case 'm':
            return std::uint64_t{1} << 20;
        case 'g':
            return std::uint64_t{1} << 30;
        case 't':
            return std::uint64_t{1} << 40;
        default:
            return 0;
    }
}

std::uint64_t timeMultiplier(char unit) {
    switch (unit | 0x20) {
        case 'd':
            return 86400000000000;
        case 'h':
            return 3600000000000;
        case 'm':
            return 60000000000;  // a one-character unit: minutes
        case 'n':
            return 1;
        case 's':
            return 1000000000;
        case 'u':
            return 1000;
        case 'w':
            return 604800000000000;
        default:
            return 0;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    double multiplier = 0.0;
    double fraction = 0.0;
    unsigned long nanoseconds = 0;
    unsigned long bytes = 0;
    const bool multiplierOk =
        parse(su::getNumericMultiplierConstant, text, multiplier, "multiplier written");
    const bool fractionOk = parse(su::getNumericPercentConstant, text, fraction, "percent written");
    const bool timeOk = parse(su::getNumericTimeConstant, text, nanoseconds, "time written");
    const bool bytesOk = parse(su::getNumericByteConstant, text, bytes, "bytes written");

    // "<1 to 15 digits>" and nothing, a letter or "%".
    std::size_t digits = 0;
    while (digits < size && std::isdigit(static_cast<unsigned char>(text[digits]))) {
        ++digits;
    }
    if (digits == 0 || digits > 15 || size - digits > 1) {
        return 0;
    }
    const char unit = digits < size ? text[digits] : '\0';
    if (unit != '\0' && unit != '%' && !std::isalpha(static_cast<unsigned char>(unit))) {
        return 0;
    }
    const std::uint64_t value = std::strtoull(text.substr(0, digits).c_str(), nullptr, 10);
    const auto real = static_cast<double>(value);  // exact below 10^15

    const std::uint64_t bytesUnit = unit == '\0' ? 1 : byteMultiplier(unit);
    check(bytesOk == (bytesUnit != 0), "bytes accepted", text);
    if (bytesOk && value <= std::numeric_limits<std::uint64_t>::max() / bytesUnit) {
        check(bytes == value * bytesUnit, "bytes differ", text);
    }

    const std::uint64_t timeUnit = unit == '\0' ? 0 : timeMultiplier(unit);
    check(timeOk == (timeUnit != 0), "time accepted", text);
    if (timeOk && value <= (std::uint64_t{1} << 53) / timeUnit) {
        check(nanoseconds == value * timeUnit, "time differs", text);
    }

    const bool percentUnit = unit == '\0' || unit == '%';
    check(fractionOk == percentUnit, "percent accepted", text);
    if (fractionOk) {
        check(fraction == (unit == '\0' && real < 1.0 ? real : real / 100), "percent differs",
              text);
    }

    check(multiplierOk == (unit == 'x' || unit == 'X'), "multiplier accepted", text);
    if (multiplierOk) {
        check(multiplier == real, "multiplier differs", text);
    }
    return 0;
}
