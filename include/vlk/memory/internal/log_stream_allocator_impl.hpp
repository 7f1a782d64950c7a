// The machinery behind log_stream_allocator: the slab sizes, the per-thread
// slab allocator type and the process-wide part. Only the memory layer and
// its tests include this.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <set>

#include <vlk/memory/internal/mpsc_slab_allocator.hpp>
#include <vlk/memory/log_stream_allocator.hpp>
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
    // 4 MiB: a thread keeps at most its open slab and one emptied one, so
    // this bounds what a thread holds once a backlog has drained, while a
    // backlog costs one mapping per 4 MiB of text.
    static constexpr std::uint64_t largest_slab_size = 4194304;
    // A page-rounded request above this gets its own mapping.
    static constexpr std::uint64_t large_threshold = 1048576;
    // A slab with less than this left after an allocation is retired.
    static constexpr std::uint64_t slab_tail = 512;
};

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

}  // namespace vlk

extern template class vlk::memory::mpsc_slab_allocator<
    vlk::_log_stream_allocator_detail::log_stream_allocator_traits>;
