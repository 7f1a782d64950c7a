#include <vlk/system/clock.hpp>

namespace vlk::system::time {

// clock_gettime resolves to the link-time wrapper, so the program does not
// import the libc symbol of the build host.

std::int64_t now() {
    return ::time(nullptr);
}

int now(timespec* ts) {
    return ::clock_gettime(g_realtimeClockId, ts);
}

std::uint64_t monotonicTime() {
    timespec ts{};
    ::clock_gettime(g_monotonicClockId, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

int monotonicTime(timespec* ts) {
    return ::clock_gettime(g_monotonicClockId, ts);
}

}  // namespace vlk::system::time
