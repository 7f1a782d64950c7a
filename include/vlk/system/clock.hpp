// Clocks of the toolkit: wall time, monotonic nanoseconds and the processor's
// tick counter.
//
// The clock ids and the tick constants are host facts: plain statics with
// compiled-in defaults that `vlk::system::init` overwrites once, before the
// embedding program starts its threads, and that are read without a lock
// afterwards. Until then both clock ids are 1 (CLOCK_MONOTONIC), so `now(ts)`
// reads the same clock as `monotonicTime`, and every tick constant is 0.
//
// Monotonic time is an unsigned count of nanoseconds. The elapsed-time
// operations subtract as unsigned and multiply by 1e-09: a negative
// difference wraps into a huge positive number of seconds.
#pragma once

#include <cstdint>
#include <ctime>

namespace vlk::system::time {

inline constinit clockid_t g_realtimeClockId = 1;
inline constinit clockid_t g_monotonicClockId = 1;
inline constinit bool g_isTscInvariant = false;

inline constinit std::uint64_t g_coreFrequency = 0;
inline constinit std::uint64_t g_ticksPerSecond = 0;
inline constinit std::uint64_t g_ticksPerMilliSecond = 0;
inline constinit std::uint64_t g_ticksPerMicroSecond = 0;
inline constinit double g_secondsToTicksMultiplier = 0;
inline constinit double g_ticksToSecondsMultiplier = 0;
inline constinit double g_ticksToMicroSecondsMultiplier = 0;

// Seconds since the epoch, as time(NULL).
std::int64_t now();
// clock_gettime of the realtime clock id; returns its result.
int now(timespec* ts);
// clock_gettime of the monotonic clock id, in nanoseconds. The call's result
// is not examined.
std::uint64_t monotonicTime();
// clock_gettime of the monotonic clock id; returns its result.
int monotonicTime(timespec* ts);

inline double monotonicTimeInSeconds(std::uint64_t t) {
    return static_cast<double>(t) * 1e-09;
}
inline double elapsedTimeFromDeltaTime(std::uint64_t delta) {
    return static_cast<double>(delta) * 1e-09;
}
inline double elapsedTime(std::uint64_t start, std::uint64_t end) {
    return elapsedTimeFromDeltaTime(end - start);
}
inline double elapsedTime(std::uint64_t start) {
    return elapsedTime(start, monotonicTime());
}

// The time stamp counter, read with RDTSCP so that earlier instructions have
// completed. Convert differences with g_ticksToSecondsMultiplier. The
// compiler's builtin, which <x86intrin.h> wraps: that header and the forty
// thousand lines of intrinsics it brings would be most of what including the
// toolkit costs.
inline std::uint64_t ticks() {
    unsigned int processor;
    return __builtin_ia32_rdtscp(&processor);
}

}  // namespace vlk::system::time
