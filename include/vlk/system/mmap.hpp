// Mapping layer of the toolkit: the system's mmap, munmap, mremap and mprotect
// under the toolkit's names, counting every mapping in `mmap_stats`.
//
// The wrappers are as thread-safe as the calls they wrap and report failure
// as the system does, with null in place of MAP_FAILED; the `name` arguments
// say what a mapping is for and are not used. Only a successful call counts.
// The one wrapper with a policy of its own is the anonymous `mmap(size)`: it
// never returns null. A failure is retried every 100 ms for one second, and
// then the process ends with status 255 and a report of the error and the
// mapping counts, through the mapping-failure reporter of system/fatal.hpp.
//
// Every operation exists in namespace `vlk` and, forwarding, under
// `vlk::system::memory` with the same signature.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace vlk {

// Process-wide totals of the mapping layer, zero before any code runs.
class mmap_stats {
  public:
    // One successful mapping of `bytes`.
    static void mmap(unsigned long bytes) {
        _mappedCount.fetch_add(1, std::memory_order_relaxed);
        _mappedBytes.fetch_add(bytes, std::memory_order_relaxed);
    }
    // One successful unmapping of `bytes`.
    static void munmap(unsigned long bytes) {
        _unmappedCount.fetch_add(1, std::memory_order_relaxed);
        _unmappedBytes.fetch_add(bytes, std::memory_order_relaxed);
    }
    // A mapping resized from `oldBytes` to `newBytes`: moves the byte totals
    // only, the mapping stays one.
    static void mremap(unsigned long oldBytes, unsigned long newBytes) {
        _unmappedBytes.fetch_add(oldBytes, std::memory_order_relaxed);
        _mappedBytes.fetch_add(newBytes, std::memory_order_relaxed);
    }

    static std::uint64_t mappedCount() { return _mappedCount.load(std::memory_order_relaxed); }
    static std::uint64_t unmappedCount() { return _unmappedCount.load(std::memory_order_relaxed); }
    static std::uint64_t mappedBytes() { return _mappedBytes.load(std::memory_order_relaxed); }
    static std::uint64_t unmappedBytes() { return _unmappedBytes.load(std::memory_order_relaxed); }

  private:
    // All four are statistics, updated and read with relaxed order: no other
    // memory is published through them, and a reader of several takes them
    // one at a time, so they need not agree with each other at any instant.
    static inline constinit std::atomic<std::uint64_t> _mappedCount{0};
    static inline constinit std::atomic<std::uint64_t> _unmappedCount{0};
    static inline constinit std::atomic<std::uint64_t> _mappedBytes{0};
    static inline constinit std::atomic<std::uint64_t> _unmappedBytes{0};
};

// Figures of one state-of-the-world store, for memory reports that this
// build does not make.
struct sow_stats;

namespace _allocator_stats_detail {

// The state behind `allocator_stats`: built once, never freed.
struct _allocator_stats_impl {
    // 1 between init() and shutdown(), else 0. Changed only by
    // compare-and-swap; relaxed, as it guards no other data.
    std::atomic<std::uint64_t> _active{0};
    // The tick counter when the state was built.
    std::uint64_t _createdTicks = 0;
};

}  // namespace _allocator_stats_detail

// Switch of the per-thread memory reports. The reports themselves are empty
// operations here; what remains is the state object and its `_active` word.
// Every operation is safe to call from any thread at any time.
class allocator_stats {
  public:
    // Builds the state object on the first call, then sets `_active` 0 -> 1.
    static void init();
    // Sets `_active` 1 -> 0 if the state object exists; the object stays.
    static void shutdown();

    // The state object, or null before the first init().
    static const _allocator_stats_detail::_allocator_stats_impl* impl() {
        // Acquire: pairs with the release store in init(), so the fields
        // written before publication are visible.
        return _impl.load(std::memory_order_acquire);
    }

    static void registerThread(const std::string&) {}
    static void deregisterThread(const std::string&) {}
    static void log(unsigned long) {}
    static void logAll() {}
    static void sow(const std::string&, unsigned long, const sow_stats&) {}

  private:
    static inline constinit std::atomic<_allocator_stats_detail::_allocator_stats_impl*> _impl{
        nullptr};
};

// Anonymous private read-write mapping of `size` bytes. Never null: see above.
void* mmap(unsigned long size);
// Anonymous mapping with the given protection, flags (MAP_ANONYMOUS among
// them) and offset; null on failure.
void* mmap(unsigned long size, int prot, int flags, unsigned long offset);
// Mapping of `fd`, at an address of the system's choice or near `address`;
// null on failure.
void* mmap(const std::string& name, unsigned long size, int prot, int flags, int fd,
           unsigned long offset);
void* mmap(const std::string& name, void* address, unsigned long size, int prot, int flags, int fd,
           unsigned long offset);
// The system's result: 0, or -1 with errno (and nothing counted).
int munmap(void* address, unsigned long size);
int munmap(const std::string& name, void* address, unsigned long size);
// The mapping at its new place, or null on failure.
void* mremap(void* address, unsigned long oldSize, unsigned long newSize, int flags);
// The system's result.
int mprotect(void* address, unsigned long size, int prot);
int mprotect(const std::string& name, void* address, unsigned long size, int prot);

namespace system::memory {

inline void* mmap(unsigned long size) {
    return vlk::mmap(size);
}
inline void* mmap(unsigned long size, int prot, int flags, unsigned long offset) {
    return vlk::mmap(size, prot, flags, offset);
}
inline void* mmap(const std::string& name, unsigned long size, int prot, int flags, int fd,
                  unsigned long offset) {
    return vlk::mmap(name, size, prot, flags, fd, offset);
}
inline void* mmap(const std::string& name, void* address, unsigned long size, int prot, int flags,
                  int fd, unsigned long offset) {
    return vlk::mmap(name, address, size, prot, flags, fd, offset);
}
inline int munmap(void* address, unsigned long size) {
    return vlk::munmap(address, size);
}
inline int munmap(const std::string& name, void* address, unsigned long size) {
    return vlk::munmap(name, address, size);
}
inline void* mremap(void* address, unsigned long oldSize, unsigned long newSize, int flags) {
    return vlk::mremap(address, oldSize, newSize, flags);
}
inline int mprotect(void* address, unsigned long size, int prot) {
    return vlk::mprotect(address, size, prot);
}
inline int mprotect(const std::string& name, void* address, unsigned long size, int prot) {
    return vlk::mprotect(name, address, size, prot);
}

}  // namespace system::memory
}  // namespace vlk
