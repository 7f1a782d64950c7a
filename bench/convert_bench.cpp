// vlk::convert::toDouble against strtod and std::from_chars, on one fixed set
// of 4096 strings: half integers of 1 to 18 digits, half reals with 1 to 6
// digits before the point and 1 to 9 behind it, a fifth of each negative,
// shuffled. Each run parses all of them; items are strings.
#include <vlk/system/convert.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

std::string randomDigits(std::mt19937_64& random, int count) {
    std::string digits(1, static_cast<char>('1' + random() % 9));
    while (static_cast<int>(digits.size()) < count) {
        digits += static_cast<char>('0' + random() % 10);
    }
    return digits;
}

const std::vector<std::string>& numbers() {
    static const std::vector<std::string> texts = [] {
        std::mt19937_64 random(20260102);
        std::vector<std::string> made;
        for (int i = 0; i < 4096; ++i) {
            std::string text = random() % 5 == 0 ? "-" : "";
            if (i % 2 == 0) {
                text += randomDigits(random, 1 + static_cast<int>(random() % 18));
            } else {
                text += randomDigits(random, 1 + static_cast<int>(random() % 6)) + "." +
                        randomDigits(random, 1 + static_cast<int>(random() % 9));
            }
            made.push_back(text);
        }
        std::shuffle(made.begin(), made.end(), random);
        return made;
    }();
    return texts;
}

template <class Parse>
void run(benchmark::State& state, Parse parse) {
    const std::vector<std::string>& texts = numbers();
    for (auto _ : state) {
        for (const std::string& text : texts) {
            double value = parse(text);
            benchmark::DoNotOptimize(value);
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * texts.size()));
}

void toDouble(benchmark::State& state) {
    for (const std::string& text : numbers()) {
        double value = 0;
        const double expected = std::strtod(text.c_str(), nullptr);
        if (vlk::convert::toDouble(text.data(), text.size(), value) ==
                vlk::convert::value_invalid ||
            std::abs(value - expected) > std::abs(expected) * 1e-13) {
            state.SkipWithError(("toDouble disagrees with strtod on " + text).c_str());
            return;
        }
    }
    run(state, [](const std::string& text) {
        double value = 0;
        vlk::convert::toDouble(text.data(), text.size(), value);
        return value;
    });
}

void strtod(benchmark::State& state) {
    run(state, [](const std::string& text) { return std::strtod(text.c_str(), nullptr); });
}

void fromChars(benchmark::State& state) {
    run(state, [](const std::string& text) {
        double value = 0;
        std::from_chars(text.data(), text.data() + text.size(), value);
        return value;
    });
}

BENCHMARK(toDouble)->Name("parse/vlk_toDouble");
BENCHMARK(strtod)->Name("parse/strtod");
BENCHMARK(fromChars)->Name("parse/from_chars");

}  // namespace
