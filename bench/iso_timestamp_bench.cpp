// iso_timestamp::serialize_utc_with_offset against the C library writing the
// same text: localtime_r, strftime for the date and time, snprintf for the
// fraction and the offset.
//
// The argument is the step in microseconds between consecutive instants of a
// clock that keeps advancing: 3 keeps most calls within one second (the
// cached path), 1000000 makes every call a new second. The zone has a
// non-zero offset, so both sides write all 33 bytes. The goal within a
// second is a tenth of the baseline's time.
#include <vlk/logging/iso_timestamp.hpp>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr timeval k_start{1767323045, 0};  // 2026-01-02 03:04:05 UTC

unsigned long withTableCache(char* out, const timeval& time) {
    return vlk::iso_timestamp::serialize_utc_with_offset(out, 64, time);
}

unsigned long withLibc(char* out, const timeval& time) {
    tm local;
    localtime_r(&time.tv_sec, &local);
    const unsigned long n = strftime(out, 64, "%Y-%m-%dT%H:%M:%S", &local);
    const long offset = local.tm_gmtoff;
    if (offset == 0) {
        return n + std::snprintf(out + n, 64 - n, ".%06ld0", time.tv_usec);
    }
    const long magnitude = std::labs(offset);
    return n + std::snprintf(out + n, 64 - n, ".%06ld0%c%02ld:%02ld", time.tv_usec,
                             offset < 0 ? '-' : '+', magnitude / 3600, magnitude / 60 % 60);
}

template <unsigned long (*format)(char*, const timeval&)>
void run(benchmark::State& state) {
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
    char expected[64], actual[64];
    const unsigned long n = withLibc(expected, k_start);
    if (format(actual, k_start) != n || std::memcmp(actual, expected, n) != 0) {
        state.SkipWithError("the two sides write different text");
        return;
    }
    const long step = state.range(0);
    timeval now = k_start;
    for (auto _ : state) {
        now.tv_usec += step;
        if (now.tv_usec >= 1000000) {
            now.tv_usec -= 1000000;
            ++now.tv_sec;
        }
        benchmark::DoNotOptimize(format(actual, now));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_TEMPLATE(run, withLibc)->Arg(3)->Arg(1000000);
BENCHMARK_TEMPLATE(run, withTableCache)->Arg(3)->Arg(1000000);

}  // namespace
