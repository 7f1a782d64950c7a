// isMatch on a registered handle against a bare pcre_exec on the same
// JIT-studied expression: what the registry adds per match.
#include <benchmark/benchmark.h>
#include <pcre.h>

#include <array>
#include <string>

#include <vlk/regex/regex_manager.hpp>

namespace {

using velk::velk_regex_manager;

// Seven-character identifiers, as operators type them; half match.
const std::array<std::string, 8> kSubjects = {"01-0001", "0A-0100", "01-0099", "1D-0001",
                                              "01-7777", "02-0001", "01-1234", "FF-0001"};
constexpr const char* kPattern = "^01-";

void BM_BarePcreExec(benchmark::State& state) {
    auto* expression = static_cast<vlk::jit_regex*>(velk_regex_manager::registerRegex(kPattern));
    int ovector[16];
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string& subject = kSubjects[i++ & 7];
        int result = pcre_exec(expression->_code, expression->_extra, subject.data(),
                               static_cast<int>(subject.size()), 0, 0, ovector, 16);
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_BarePcreExec);

void BM_IsMatchOnHandle(benchmark::State& state) {
    void* handle = velk_regex_manager::registerRegex(kPattern);
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string& subject = kSubjects[i++ & 7];
        bool matched = velk_regex_manager::isMatch(handle, subject.data(), subject.size());
        benchmark::DoNotOptimize(matched);
    }
}
BENCHMARK(BM_IsMatchOnHandle);

void BM_LazyIsMatch(benchmark::State& state) {
    void* slot = nullptr;
    const vlk::base::cstring pattern{kPattern, 4};
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string& subject = kSubjects[i++ & 7];
        bool matched = velk_regex_manager::isMatch(
            vlk::base::cstring{subject.data(), subject.size()}, pattern, slot);
        benchmark::DoNotOptimize(matched);
    }
}
BENCHMARK(BM_LazyIsMatch);

void BM_RegisterKnownPattern(benchmark::State& state) {
    velk_regex_manager::registerRegex(kPattern);
    const std::string pattern = kPattern;
    for (auto _ : state) {
        benchmark::DoNotOptimize(velk_regex_manager::registerRegex(pattern));
    }
}
BENCHMARK(BM_RegisterKnownPattern);

}  // namespace
