#include <vlk/memory/internal/mpsc_slab_allocator.hpp>

#include <new>

#include <vlk/system/allocate.hpp>
#include <vlk/system/clock.hpp>
#include <vlk/system/mmap.hpp>

namespace vlk::memory {

mpsc_slab* mpsc_slab::create(std::uint64_t id) {
    // aligned::allocate ends the process when the heap is out.
    auto* slab = ::new (aligned::allocate<128>(sizeof(mpsc_slab))) mpsc_slab;
    slab->_id = id;
    slab->_ticks = system::time::ticks();
    return slab;
}

void mpsc_slab::reset() {
    _liveCount.store(1, std::memory_order_relaxed);
    _used = 0;
    _ticks = system::time::ticks();
    _freed.store(0, std::memory_order_relaxed);
    _finalCount.store(open_mark, std::memory_order_relaxed);
}

void mpsc_slab::destroy(mpsc_slab* slab) {
    if (slab->_size != 0) {
        vlk::munmap(slab->_data, slab->_size);
    }
    slab->_data = nullptr;
    slab->_used = 0;
    slab->_size = 0;
    slab->_liveCount.store(1, std::memory_order_relaxed);
    slab->~mpsc_slab();
    aligned::deallocate(slab);
}

}  // namespace vlk::memory
