// vlk::fast_itoa against std::to_chars and fmt::format_int.
//
// The argument is a digit count; 0 draws the digit count of every value
// uniformly at random, so that branch prediction cannot learn it. Each run
// writes the same pre-generated 4096 values, one after the other, into one
// buffer.
#include <vlk/system/fast_itoa.hpp>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <charconv>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace {

constexpr std::size_t k_values = 4096;

template <class Value>
std::vector<Value> makeValues(int digits) {
    const int maxDigits = std::numeric_limits<Value>::digits10 + 1;
    std::mt19937_64 random(42 + static_cast<unsigned>(digits));
    std::uniform_int_distribution<int> drawDigits(1, maxDigits);
    std::vector<Value> values;
    values.reserve(k_values);
    while (values.size() < k_values) {
        const int n = digits == 0 ? drawDigits(random) : digits;
        std::uint64_t low = 1;
        for (int i = 1; i < n; ++i) {
            low *= 10;
        }
        const std::uint64_t high =
            n == 20 ? std::numeric_limits<std::uint64_t>::max() : low * 10 - 1;
        const std::uint64_t value =
            std::uniform_int_distribution<std::uint64_t>(n == 1 ? 0 : low, high)(random);
        if (value <= std::numeric_limits<Value>::max()) {
            values.push_back(static_cast<Value>(value));
        }
    }
    return values;
}

template <class Value, class Writer>
void run(benchmark::State& state, Writer write) {
    const std::vector<Value> values = makeValues<Value>(static_cast<int>(state.range(0)));
    char buffer[32];
    for (auto _ : state) {
        for (Value value : values) {
            char* end = write(buffer, value);
            // The pointer escapes with a memory clobber, so the digit stores
            // must happen.
            benchmark::DoNotOptimize(end);
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * values.size()));
    state.SetLabel(state.range(0) == 0 ? "random digits" : "");
}

template <class Value>
char* vlkWrite(char* out, Value value) {
    if constexpr (sizeof(Value) == sizeof(unsigned int)) {
        return vlk::fast_itoa::itoa(out, value);
    } else {
        return vlk::fast_itoa::ltoa(out, value);
    }
}

template <class Value>
char* toCharsWrite(char* out, Value value) {
    return std::to_chars(out, out + 32, value).ptr;
}

// format_int writes into its own buffer; reading that result in place spares
// it the copy the others do not make either.
template <class Value>
char* fmtWrite(char* out, Value value) {
    fmt::format_int text(value);
    const char* data = text.data();
    benchmark::DoNotOptimize(data);
    return out + text.size();
}

template <class Value>
void vlkBench(benchmark::State& state) {
    run<Value>(state, vlkWrite<Value>);
}

template <class Value>
void toCharsBench(benchmark::State& state) {
    run<Value>(state, toCharsWrite<Value>);
}

template <class Value>
void fmtBench(benchmark::State& state) {
    run<Value>(state, fmtWrite<Value>);
}

void itoaDigits(benchmark::internal::Benchmark* b) {
    for (int digits : {1, 2, 4, 7, 8, 10, 0}) {
        b->Arg(digits);
    }
}

void ltoaDigits(benchmark::internal::Benchmark* b) {
    for (int digits : {1, 2, 4, 8, 12, 16, 20, 0}) {
        b->Arg(digits);
    }
}

BENCHMARK(vlkBench<unsigned int>)->Name("itoa/vlk")->Apply(itoaDigits);
BENCHMARK(toCharsBench<unsigned int>)->Name("itoa/to_chars")->Apply(itoaDigits);
BENCHMARK(fmtBench<unsigned int>)->Name("itoa/fmt")->Apply(itoaDigits);
BENCHMARK(vlkBench<unsigned long>)->Name("ltoa/vlk")->Apply(ltoaDigits);
BENCHMARK(toCharsBench<unsigned long>)->Name("ltoa/to_chars")->Apply(ltoaDigits);
BENCHMARK(fmtBench<unsigned long>)->Name("ltoa/fmt")->Apply(ltoaDigits);

}  // namespace
