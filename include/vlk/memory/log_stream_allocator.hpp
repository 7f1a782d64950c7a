// Storage for the text of log records.
//
// A thread allocates a buffer, hands it through the logger's queue, and the
// logging thread frees it. `log_stream_allocator` serves that pattern with
// one `mpsc_slab_allocator` per thread, created at the thread's first
// allocate() or reallocate(): allocation takes no lock, a free from any
// thread only counts. All operations are static.
//
// init() must run before any thread allocates (a first allocation calls it
// otherwise). A thread's allocator is retired at thread end by a pthread key
// destructor, or earlier by threadTerminate(); blocks of an ended thread
// stay valid until freed by whoever holds them. reap() destroys retired
// allocators whose blocks are all freed; call it from time to time.
// terminate() reaps and forgets the rest, which then stay allocated until
// the process ends.
//
// allocate() never returns null; deallocate() and reallocate() do not accept
// null. Running out of memory ends the process.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <set>

#include <vlk/memory/mpsc_slab_allocator.hpp>
#include <vlk/system/mutex_lock.hpp>

namespace vlk {

namespace _log_stream_allocator_detail {

// The sizes of log text blocks and slabs.
struct log_stream_allocator_traits {
    // Blocks are multiples of this and lie on such offsets within a slab.
    static constexpr std::uint64_t granule = 128;
    // Lies in front of the pointer returned to the caller.
    static constexpr std::uint64_t header_bytes = 32;
    // Start value of the slab size; the first slab is twice this.
    static constexpr std::uint64_t first_slab_size = 65536;
    static constexpr std::uint64_t largest_slab_size = 67108864;
    // A page-rounded request above this gets its own mapping.
    static constexpr std::uint64_t large_threshold = 1048576;
    // A slab with less than this left after an allocation is retired.
    static constexpr std::uint64_t slab_tail = 512;
};

using slab_allocator = memory::mpsc_slab_allocator<log_stream_allocator_traits>;

// The process-wide part: the key that retires a thread's allocator and the
// retired allocators of ended threads.
class log_stream_allocator_impl {
  public:
    log_stream_allocator_impl();
    // Reaps what it can and forgets the rest. The key stays.
    ~log_stream_allocator_impl();
    log_stream_allocator_impl(const log_stream_allocator_impl&) = delete;
    log_stream_allocator_impl& operator=(const log_stream_allocator_impl&) = delete;

    pthread_key_t key() const { return _key; }
    // Adds `allocator` to the retired set; true when it was not there.
    bool retire(slab_allocator* allocator);
    void reap();
    std::uint64_t retiredCount() const { return _retiredCount.load(std::memory_order_relaxed); }

  private:
    void _reapLocked();

    pthread_key_t _key{};
    // Guards the set. Taken before any allocator's cache lock.
    alignas(128) lock::mutex_lock _retiredLock;
    // Allocators in `_retired`; changed under the lock, read without it by
    // reap() only to skip the lock when it is 0: relaxed, a hint.
    std::atomic<std::uint64_t> _retiredCount{0};
    std::set<slab_allocator*> _retired;
};

}  // namespace _log_stream_allocator_detail

class log_stream_allocator {
  public:
    using slab_allocator = _log_stream_allocator_detail::slab_allocator;

    // Creates the process-wide part once; safe to call repeatedly.
    static void init();
    // Reaps what can be reaped and destroys the process-wide part.
    static void terminate();
    // Retires the calling thread's allocator; its next allocation makes a
    // new one.
    static void threadTerminate();
    // Destroys retired allocators that have no block in flight.
    static void reap();

    static void* allocate(unsigned long size) {
        slab_allocator* allocator = _allocator;
        if (allocator == nullptr) [[unlikely]] {
            allocator = _createAllocator();
        }
        return allocator->allocate(size);
    }
    static void deallocate(void* block) { slab_allocator::deallocate(block); }
    static void* reallocate(void* block, unsigned long size);

    // Diagnostics: the calling thread's allocator (null before its first
    // allocation and after it retired), and the retired allocators not yet
    // reaped.
    static const slab_allocator* threadAllocator() { return _allocator; }
    static std::uint64_t retiredCount();

  private:
    static slab_allocator* _createAllocator();
    static void _retireFromKey(void* value);
    friend class _log_stream_allocator_detail::log_stream_allocator_impl;

    // The calling thread's allocator. Constant-initialised, so access needs
    // no wrapper call.
    static inline constinit thread_local slab_allocator* _allocator = nullptr;
};

}  // namespace vlk

extern template class vlk::memory::mpsc_slab_allocator<
    vlk::_log_stream_allocator_detail::log_stream_allocator_traits>;
