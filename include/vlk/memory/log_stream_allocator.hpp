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

#include <cstdint>

namespace vlk {

namespace memory {
template <typename Traits>
class mpsc_slab_allocator;
}  // namespace memory

namespace _log_stream_allocator_detail {
struct log_stream_allocator_traits;
using slab_allocator = memory::mpsc_slab_allocator<log_stream_allocator_traits>;
class log_stream_allocator_impl;
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

    static void* allocate(unsigned long size);
    static void deallocate(void* block);
    static void* reallocate(void* block, unsigned long size);
    // What a block of `size` bytes takes from a slab, its header and the
    // rounding included.
    static std::uint64_t blockSize(std::uint64_t size);

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
