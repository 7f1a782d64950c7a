#include <vlk/system/mmap.hpp>

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string_view>

#include <vlk/system/allocate.hpp>
#include <vlk/system/clock.hpp>
#include <vlk/system/fatal.hpp>
#include <vlk/system/mutex_lock.hpp>

namespace vlk {
namespace {

using _allocator_stats_detail::_allocator_stats_impl;

// Guards the creation of the allocator_stats state. A function-local static,
// so that it is built before its first use even from a static initialiser.
lock::mutex_lock& creationLock() {
    static lock::mutex_lock mutex;
    return mutex;
}

// ::mmap, counting a success; null on failure.
void* mapAndCount(void* address, unsigned long size, int prot, int flags, int fd,
                  unsigned long offset) {
    void* mapped = ::mmap(address, size, prot, flags, fd, static_cast<off_t>(offset));
    if (mapped == MAP_FAILED) {
        return nullptr;
    }
    mmap_stats::mmap(size);
    return mapped;
}

// Seconds since construction on the tick counter, or on the monotonic clock
// while the host probe has not yet set the tick rate (a multiplier of 0 would
// never let a second pass).
class stopwatch {
  public:
    double seconds() const {
        if (_onTicks) {
            return static_cast<double>(system::time::ticks() - _start) *
                   system::time::g_ticksToSecondsMultiplier;
        }
        return system::time::elapsedTime(_start);
    }

  private:
    bool _onTicks = system::time::g_ticksToSecondsMultiplier != 0;
    std::uint64_t _start = _onTicks ? system::time::ticks() : system::time::monotonicTime();
};

void sleep100Milliseconds() {
    timespec request{0, 100'000'000};
    timespec remaining{};
    while (::nanosleep(&request, &remaining) == -1) {
        request = remaining;
    }
}

// The text of error number `code`: GNU strerror_r into `buffer`, or "Unknown
// errno value: <code>" when errno is EINVAL afterwards. errno is not cleared
// first, so a code of EINVAL itself also gives the second form. The rule is
// that of vlk::error::strerror, kept here on the stack because this runs when
// memory cannot be had.
std::string_view errnoText(int code, char (&buffer)[512]) {
    const char* text = ::strerror_r(code, buffer, sizeof buffer);
    if (errno != EINVAL) {
        return text;
    }
    constexpr std::string_view prefix = "Unknown errno value: ";
    char* end = std::copy(prefix.begin(), prefix.end(), buffer);
    end = std::to_chars(end, buffer + sizeof buffer, code).ptr;
    return {buffer, static_cast<std::size_t>(end - buffer)};
}

// Ends the process with a report of the error's text and the mapping
// counts.
[[noreturn]] void abortOnMappingFailure(int code) {
    const unsigned long mapped = mmap_stats::mappedCount();
    const unsigned long unmapped = mmap_stats::unmappedCount();
    const unsigned long active = mapped - unmapped;
    // errno as the failed mmap left it, whatever the clocks did since.
    errno = code;
    char textBuffer[512];
    const std::string text(errnoText(code, textBuffer));
    system::reportMappingFailure({text, mapped, unmapped, active});
}

// An anonymous mapping that is retried for a second before the process ends.
// Returns null only when more than ten seconds pass between two attempts.
void* _mmap(unsigned long size, int prot, int flags, unsigned long offset) {
    if (void* address = mapAndCount(nullptr, size, prot, flags, -1, offset)) {
        return address;
    }
    const stopwatch sinceFirstFailure;
    int code = 0;
    do {
        if (sinceFirstFailure.seconds() >= 10.0) {
            return nullptr;
        }
        sleep100Milliseconds();
        if (void* address = mapAndCount(nullptr, size, prot, flags, -1, offset)) {
            return address;
        }
        code = errno;
    } while (sinceFirstFailure.seconds() < 1.0);
    abortOnMappingFailure(code);
}

}  // namespace

void allocator_stats::init() {
    // Acquire: pairs with the release store below, so a state built by
    // another thread is seen whole.
    _allocator_stats_impl* state = _impl.load(std::memory_order_acquire);
    if (state == nullptr) {
        std::lock_guard guard(creationLock());
        // Relaxed: the lock orders this after any store made under it.
        state = _impl.load(std::memory_order_relaxed);
        if (state == nullptr) {
            state = new (memory::aligned::allocate<128>(sizeof(_allocator_stats_impl)))
                _allocator_stats_impl;
            state->_createdTicks = system::time::ticks();
            // Release: publishes the fields above; pairs with the acquire
            // loads here and in impl().
            _impl.store(state, std::memory_order_release);
        }
    }
    std::uint64_t inactive = 0;
    state->_active.compare_exchange_strong(inactive, 1, std::memory_order_relaxed);
}

void allocator_stats::shutdown() {
    // Acquire: pairs with the release store in init().
    if (_allocator_stats_impl* state = _impl.load(std::memory_order_acquire)) {
        std::uint64_t active = 1;
        state->_active.compare_exchange_strong(active, 0, std::memory_order_relaxed);
    }
}

void* mmap(unsigned long size) {
    return _mmap(size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, 0);
}

void* mmap(unsigned long size, int prot, int flags, unsigned long offset) {
    return mapAndCount(nullptr, size, prot, flags, -1, offset);
}

void* mmap(const std::string&, unsigned long size, int prot, int flags, int fd,
           unsigned long offset) {
    return mapAndCount(nullptr, size, prot, flags, fd, offset);
}

void* mmap(const std::string&, void* address, unsigned long size, int prot, int flags, int fd,
           unsigned long offset) {
    return mapAndCount(address, size, prot, flags, fd, offset);
}

int munmap(void* address, unsigned long size) {
    const int result = ::munmap(address, size);
    if (result == 0) {
        mmap_stats::munmap(size);
    }
    return result;
}

int munmap(const std::string&, void* address, unsigned long size) {
    return munmap(address, size);
}

void* mremap(void* address, unsigned long oldSize, unsigned long newSize, int flags) {
    void* moved = ::mremap(address, oldSize, newSize, flags);
    if (moved == MAP_FAILED) {
        return nullptr;
    }
    mmap_stats::mremap(oldSize, newSize);
    return moved;
}

int mprotect(void* address, unsigned long size, int prot) {
    return ::mprotect(address, size, prot);
}

int mprotect(const std::string&, void* address, unsigned long size, int prot) {
    return ::mprotect(address, size, prot);
}

}  // namespace vlk
