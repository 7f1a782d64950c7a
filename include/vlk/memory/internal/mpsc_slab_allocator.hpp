// Per-thread bump allocator whose blocks any thread may free.
//
// One `mpsc_slab_allocator` belongs to one thread, its owner: only the owner
// calls allocate() and reallocate(). It carves blocks off the end of its
// current slab (a mapped area) without a lock and with no atomic
// read-modify-write. Any thread may free a block with the static
// deallocate(): a free only counts, with three atomic adds on lines the owner
// does not write. No block is ever reused by itself; a slab returns as a
// whole once it is retired (full) and all its blocks are freed. One such
// emptied slab per allocator is kept mapped for the owner's next slab; any
// other is unmapped. Requests whose page-rounded size exceeds
// `Traits::large_threshold` get a mapping of their own.
//
// Every block has a 32-byte header in front of the caller's pointer: its
// rounded size, its allocator and its slab (null for a large block). Slab
// sizes start at twice `Traits::first_slab_size` and double with each new
// slab up to `Traits::largest_slab_size`.
//
// Never fails towards the caller: a slab record the heap cannot give ends the
// process, a mapping that cannot be had is handled by the mapping layer.
// An allocator may be destroyed (releaseSlabs(), then delete) only once
// idle() is true and its owner allocates no more.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include <vlk/containers/mpmc_hash_map.hpp>
#include <vlk/system/clock.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/mmap.hpp>
#include <vlk/system/spin_lock.hpp>

namespace vlk::memory {

// One slab: a record on its own 128-byte lines plus a mapped data area.
// The owner's fields and the counter that freeing threads raise lie on
// separate lines.
struct alignas(128) mpsc_slab {
    static constexpr std::uint64_t open_mark = ~std::uint64_t{0};

    // 1 while open, plus 1 per block carved; retiring takes the 1 away and
    // leaves the number of blocks made. Written by one thread at a time (the
    // owner while open, the recycler when reset); relaxed, as it publishes
    // nothing: `_freed` carries the ordering.
    std::atomic<std::uint64_t> _liveCount{1};
    // The mapped area, its bump offset and its size in whole pages (0 before
    // the area exists). Plain: written by the owner while the slab is open,
    // by the recycler once it is retired and empty, and handed between them
    // through `_freed` and the cache lock.
    char* _data = nullptr;
    std::uint64_t _used = 0;
    std::uint64_t _size = 0;
    // Key in the allocator's slab map; fixed for the record's life.
    std::uint64_t _id = 0;
    // Tick counter at creation or last reset.
    std::uint64_t _ticks = 0;

    // Blocks freed so far, by any thread; once the slab is retired, minus
    // the number of blocks made (modulo 2^64). So the one read-modify-write
    // of this word that brings it to 0 is the one after which no block of
    // the slab is live any more: either the owner's retirement or the last
    // free. Every change is acq_rel; see mpsc_slab_allocator::_retire().
    alignas(128) std::atomic<std::uint64_t> _freed{0};
    // The number of blocks made, stored at retirement; `open_mark` while
    // the slab is open. A record for inspection: relaxed, no decision reads
    // it.
    std::atomic<std::uint64_t> _finalCount{open_mark};

    // A record with no area yet; ends the process when the heap is out.
    static mpsc_slab* create(std::uint64_t id);
    // Back to the state of a slab just mapped: no block, open, area kept.
    void reset();
    // Unmaps the area and frees the record.
    static void destroy(mpsc_slab* slab);
};

template <typename Traits>
class mpsc_slab_allocator {
  public:
    // Tag that gives the slab maps of this allocator type their own thread
    // tracker.
    struct unique {};
    using slab_map = lockfree::mpmc_hash_map<
        unsigned long, unsigned long, unique,
        lockfree::mpmc_hash_map_constants<16, 2, 8388608, true, false, false, false>>;

    // Lies `Traits::header_bytes` in front of every block.
    struct header {
        std::uint64_t size;  // the block's rounded size; page-rounded if large
        mpsc_slab_allocator* allocator;
        mpsc_slab* slab;  // null for a large block
        std::uint64_t _unused;
    };
    static_assert(sizeof(header) == Traits::header_bytes);
    static_assert(Traits::granule % 16 == 0 && Traits::header_bytes % 16 == 0);

    mpsc_slab_allocator() : _createdTicks(system::time::ticks()) { _lastSlabTicks = _createdTicks; }
    mpsc_slab_allocator(const mpsc_slab_allocator&) = delete;
    mpsc_slab_allocator& operator=(const mpsc_slab_allocator&) = delete;
    // Frees the slab map's table only; releaseSlabs() frees the slabs.
    ~mpsc_slab_allocator() = default;

    // The size a request of `size` bytes takes, header included: size plus
    // one granule, rounded up to a granule; (size + 255) & ~127 for the
    // defaults, so 0 -> 128, 1 -> 256, 128 -> 256, 129 -> 384. A size so
    // large that the sum wraps gives one granule.
    static constexpr std::uint64_t roundedSize(std::uint64_t size) {
        constexpr std::uint64_t slack = 2 * Traits::granule - 1;
        if (size > ~std::uint64_t{0} - slack) {
            return Traits::granule;
        }
        return (size + slack) & ~(Traits::granule - 1);
    }

    // Owner only. Never null; the block is 16-byte aligned.
    void* allocate(std::uint64_t size) { return _allocateRounded(roundedSize(size)); }

    // Any thread; `block` came from some allocator of this type.
    static void deallocate(void* block);

    // Owner only. Blocks do not shrink; a growing block moves, keeping its
    // contents. `block` may come from any allocator of this type.
    void* reallocate(void* block, std::uint64_t size);

    // True when every block ever made has been freed and every free has
    // finished with this allocator. Acquire: pairs with the release add of
    // `_freeCount` that ends deallocate(), so once this is true no freeing
    // thread touches the allocator or its slabs again.
    bool idle() const {
        return _allocationCount.load(std::memory_order_relaxed) ==
               _freeCount.load(std::memory_order_acquire);
    }

    // Tear-down, once idle() and the owner is gone: unmaps and frees every
    // slab (open, retired or cached). Runs once; false for a later call.
    bool releaseSlabs();

    static header* headerOf(void* block) {
        return reinterpret_cast<header*>(static_cast<char*>(block) - Traits::header_bytes);
    }

    // Diagnostics. Relaxed reads of statistics; the slab pointers are for
    // the owner's thread or for a quiet allocator.
    std::uint64_t allocationCount() const {
        return _allocationCount.load(std::memory_order_relaxed);
    }
    std::uint64_t allocatedBytes() const { return _allocatedBytes.load(std::memory_order_relaxed); }
    std::uint64_t freeCount() const { return _freeCount.load(std::memory_order_relaxed); }
    std::uint64_t freedBytes() const { return _freedBytes.load(std::memory_order_relaxed); }
    std::uint64_t recycleCount() const { return _recycleCount.load(std::memory_order_relaxed); }
    std::uint64_t cachedSlabCount() const {
        return _cachedSlabCount.load(std::memory_order_relaxed);
    }
    std::uint64_t slabCount() const { return _slabs.size(); }
    std::uint64_t nextSlabSize() const { return _nextSlabSize; }
    const mpsc_slab* currentSlab() const { return _currentSlab; }
    const mpsc_slab* cachedSlab() const { return _cachedSlab.load(std::memory_order_relaxed); }

  private:
    static std::uint64_t _pageRounded(std::uint64_t bytes) {
        return (bytes + system::pageMask()) & ~system::pageMask();
    }
    static bool _isLarge(std::uint64_t rounded) {
        return _pageRounded(rounded) > Traits::large_threshold;
    }

    void* _allocateRounded(std::uint64_t rounded) {
        mpsc_slab* slab = _currentSlab;
        if (!_isLarge(rounded) && slab != nullptr && rounded <= slab->_size - slab->_used)
            [[likely]] {
            void* block = _carve(*slab, rounded);
            if (slab->_used + Traits::slab_tail > slab->_size) {
                // The block just carved is live, so the slab cannot be
                // empty: no recycle test.
                _currentSlab = nullptr;
                (void)_retire(*slab);
            }
            return block;
        }
        return _allocateSlow(rounded);
    }

    // Single-writer add: the owner is the only writer of `counter`, so a
    // load and a store make the add without a locked instruction; readers
    // on other threads still see whole values.
    static void _ownerAdd(std::atomic<std::uint64_t>& counter, std::uint64_t delta) {
        counter.store(counter.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
    }

    void* _carve(mpsc_slab& slab, std::uint64_t rounded) {
        auto* block = reinterpret_cast<header*>(slab._data + slab._used);
        block->size = rounded;
        block->allocator = this;
        block->slab = &slab;
        slab._used += rounded;
        _ownerAdd(slab._liveCount, 1);
        _ownerAdd(_allocationCount, 1);
        _ownerAdd(_allocatedBytes, rounded);
        return reinterpret_cast<char*>(block) + Traits::header_bytes;
    }

    void* _allocateSlow(std::uint64_t rounded);
    void* _allocateLarge(std::uint64_t rounded);
    [[nodiscard]] bool _retire(mpsc_slab& slab);
    mpsc_slab* _takeCachedSlab(std::uint64_t rounded);
    std::uint64_t _newSlabSize(std::uint64_t rounded, std::uint64_t now) const;
    void _recycle(mpsc_slab& slab);
    void _forget(mpsc_slab& slab);

    // Owner only.
    mpsc_slab* _currentSlab = nullptr;
    // Raised before each new slab by its owner; the first id is 1. Atomic
    // for readers of diagnostics; relaxed.
    std::atomic<std::uint64_t> _slabIdCounter{0};
    // Blocks ever made, large ones too, and the sum of their sizes. Only the
    // owner writes them (_ownerAdd); relaxed, see idle().
    std::atomic<std::uint64_t> _allocationCount{0};
    std::atomic<std::uint64_t> _allocatedBytes{0};
    // Owner only: size of the last slab mapped, tick counter when the owner
    // last took a slab, and at creation (kept for diagnostics).
    std::uint64_t _nextSlabSize = Traits::first_slab_size;
    std::uint64_t _lastSlabTicks = 0;
    std::uint64_t _createdTicks = 0;
    // 0, or 1 once releaseSlabs() owns the tear-down. Acq_rel CAS.
    std::atomic<std::uint64_t> _reaped{0};
    // Guards the next two. The count is read without the lock as a hint to
    // skip it; the lock's acquire and release order everything else,
    // including the reset of a cached slab's plain fields by the recycler
    // before the owner takes it. Both atomic only so that the unlocked hint
    // and diagnostics are race-free: relaxed.
    lock::spin_lock_impl<unsigned long> _cacheLock;
    std::atomic<std::uint64_t> _cachedSlabCount{0};
    std::atomic<mpsc_slab*> _cachedSlab{nullptr};
    // Slabs recycled (cached or unmapped after their last block); relaxed
    // statistic.
    std::atomic<std::uint64_t> _recycleCount{0};
    // Slab id to slab address: every open, retired and cached slab. Any
    // thread changes it by the map's own rules.
    alignas(128) slab_map _slabs;
    // Blocks ever freed and the sum of their sizes; raised by freeing
    // threads, each on its own line.
    alignas(128) std::atomic<std::uint64_t> _freeCount{0};
    alignas(128) std::atomic<std::uint64_t> _freedBytes{0};
};

template <typename Traits>
void* mpsc_slab_allocator<Traits>::_allocateSlow(std::uint64_t rounded) {
    if (_isLarge(rounded)) {
        return _allocateLarge(rounded);
    }
    if (mpsc_slab* full = _currentSlab) {
        _currentSlab = nullptr;
        if (_retire(*full)) {
            _recycle(*full);
        }
    }
    mpsc_slab* slab = _takeCachedSlab(rounded);
    const std::uint64_t now = system::time::ticks();
    if (slab == nullptr) {
        slab = mpsc_slab::create(_slabIdCounter.fetch_add(1, std::memory_order_relaxed) +
                                 1);  // relaxed: an id
        const std::uint64_t size = _newSlabSize(rounded, now);
        slab->_size = size;
        _nextSlabSize = size;
        slab->_data = static_cast<char*>(system::memory::mmap(size));
    }
    _lastSlabTicks = now;
    // A slab from the cache is in the map already; the insert then changes
    // nothing.
    _slabs.insert(slab->_id, reinterpret_cast<unsigned long>(slab));
    _currentSlab = slab;
    return _carve(*slab, rounded);
}

template <typename Traits>
void* mpsc_slab_allocator<Traits>::_allocateLarge(std::uint64_t rounded) {
    const std::uint64_t bytes = _pageRounded(rounded);
    auto* block = static_cast<header*>(system::memory::mmap(bytes));
    block->size = bytes;
    block->allocator = this;
    block->slab = nullptr;
    _ownerAdd(_allocationCount, 1);
    _ownerAdd(_allocatedBytes, bytes);
    return reinterpret_cast<char*>(block) + Traits::header_bytes;
}

// Retires a slab the owner has just let go of. True when every block of the
// slab is freed already, so that the caller must recycle it.
//
// Exactly one thread recycles a slab. Each free raises `_freed` by 1 and
// retirement lowers it by the number of blocks made, all by read-modify-
// writes of the one word, so they have one modification order. Before
// retirement every free leaves a value of at least 1; retirement leaves
// (frees so far - blocks made), which is 0 only when no block is live; after
// it, the frees count up to 0 one by one. So exactly one of these operations
// leaves 0: this one when the frees all came first, else the last free. The
// other side sees a non-zero value and never touches the slab again. No
// second arbiter is needed, and a slab that is recycled, reused and retired
// again cannot be claimed by a late thread of an earlier round, since each
// round's last operation is the only one that sees its 0.
template <typename Traits>
bool mpsc_slab_allocator<Traits>::_retire(mpsc_slab& slab) {
    const std::uint64_t made = slab._liveCount.load(std::memory_order_relaxed) - 1;
    slab._liveCount.store(made, std::memory_order_relaxed);
    slab._finalCount.store(made, std::memory_order_relaxed);
    // Release: the owner's writes to the slab (headers, _used) happen before
    // the recycle by a later last free, whose acq_rel add reads this value or
    // a later one of the same read-modify-write chain. Acquire: when this
    // leaves 0, pairs with the release of every free's add in deallocate(),
    // so their reads of headers happen before the recycle below.
    return slab._freed.fetch_sub(made, std::memory_order_acq_rel) == made;
}

template <typename Traits>
void mpsc_slab_allocator<Traits>::deallocate(void* block) {
    const header* head = headerOf(block);
    mpsc_slab_allocator* owner = head->allocator;
    if (owner == nullptr) {
        return;
    }
    mpsc_slab* slab = head->slab;
    const std::uint64_t size = head->size;
    if (slab == nullptr) {
        system::memory::munmap(const_cast<header*>(head), size);
    } else if (slab->_freed.fetch_add(1, std::memory_order_acq_rel) + 1 == 0) {
        // Acq_rel, pairing with _retire() and the other frees (see there):
        // release keeps this free's reads of the header before a recycle by
        // another thread; acquire, when this add leaves 0, makes every other
        // access to the slab happen before the recycle here.
        owner->_recycle(*slab);
    }
    owner->_freedBytes.fetch_add(size, std::memory_order_relaxed);
    // Release, and last: pairs with the acquire load in idle(). A reaper
    // that sees this count destroys the allocator only after this free is
    // done with it and with the slab.
    owner->_freeCount.fetch_add(1, std::memory_order_release);
}

// Recycles a retired slab with no live block; the caller is its one
// recycler (see _retire()). Keeps it as the cached slab when there is none,
// else gives it back. A cached slab stays in the map under its id.
template <typename Traits>
void mpsc_slab_allocator<Traits>::_recycle(mpsc_slab& slab) {
    _recycleCount.fetch_add(1, std::memory_order_relaxed);
    if (_cachedSlabCount.load(std::memory_order_relaxed) == 0) {
        _cacheLock.lock();
        if (_cachedSlabCount.load(std::memory_order_relaxed) == 0) {
            slab.reset();
            _cachedSlab.store(&slab, std::memory_order_relaxed);
            _cachedSlabCount.store(1, std::memory_order_relaxed);
            _cacheLock.unlock();  // publishes the reset to the next taker
            return;
        }
        _cacheLock.unlock();
    }
    _forget(slab);
}

// Erases a slab that nobody uses from the map and gives it back. The id is
// there by construction; a missing id would mean a second owner, which is
// not ours to free.
template <typename Traits>
void mpsc_slab_allocator<Traits>::_forget(mpsc_slab& slab) {
    if (_slabs.erase(slab._id)) {
        mpsc_slab::destroy(&slab);
    }
}

// Owner only: the cached slab when it can hold `rounded`; a cached slab too
// small for it is given back.
template <typename Traits>
mpsc_slab* mpsc_slab_allocator<Traits>::_takeCachedSlab(std::uint64_t rounded) {
    if (_cachedSlabCount.load(std::memory_order_relaxed) == 0) {
        return nullptr;
    }
    _cacheLock.lock();
    mpsc_slab* slab = _cachedSlab.load(std::memory_order_relaxed);
    if (_cachedSlabCount.load(std::memory_order_relaxed) == 0 || slab == nullptr) {
        _cacheLock.unlock();
        return nullptr;
    }
    _cachedSlabCount.store(0, std::memory_order_relaxed);
    _cachedSlab.store(nullptr, std::memory_order_relaxed);
    _cacheLock.unlock();
    if (slab->_size >= rounded) {
        return slab;
    }
    _forget(*slab);
    return nullptr;
}

// The size of a new slab. `age` is computed as last-minus-now, so it is
// never positive and each new slab is twice the last, up to the cap. The
// branches for older last slabs stay for a clock that is set differently.
template <typename Traits>
std::uint64_t mpsc_slab_allocator<Traits>::_newSlabSize(std::uint64_t rounded,
                                                        std::uint64_t now) const {
    const double m = system::time::g_ticksToSecondsMultiplier;
    const double age = static_cast<double>(_lastSlabTicks) * m - static_cast<double>(now) * m;
    std::uint64_t size = 2 * _nextSlabSize;
    if (age > 1.0) {
        size = Traits::first_slab_size;
    } else if (age >= 0.25) {
        size = _nextSlabSize;
    }
    if (size > Traits::largest_slab_size) {
        size = Traits::largest_slab_size;
    }
    if (size < rounded) {
        size = rounded;
    }
    return _pageRounded(size);
}

template <typename Traits>
void* mpsc_slab_allocator<Traits>::reallocate(void* block, std::uint64_t size) {
    const std::uint64_t rounded = roundedSize(size);
    header* head = headerOf(block);
    const std::uint64_t oldSize = head->size;
    if (rounded <= oldSize) {
        return block;
    }
    // Growth in place only for a block that starts at the bump offset of
    // the current slab. A block carved from that slab ends there rather than
    // starting there, so in practice every growth moves the block; the test
    // is kept in this form on purpose.
    mpsc_slab* slab = _currentSlab;
    if (slab != nullptr && reinterpret_cast<char*>(head) == slab->_data + slab->_used &&
        slab->_used + rounded - oldSize <= slab->_size) {
        const std::uint64_t grown = rounded - oldSize;
        _ownerAdd(_allocatedBytes, grown);
        head->size += grown;
        slab->_used += grown;
        return block;
    }
    void* moved = _allocateRounded(rounded);
    std::memcpy(moved, block, oldSize - Traits::header_bytes);
    deallocate(block);
    return moved;
}

template <typename Traits>
bool mpsc_slab_allocator<Traits>::releaseSlabs() {
    std::uint64_t expected = 0;
    // Acq_rel: one tear-down only; orders it after whatever the winner saw.
    if (!_reaped.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
        return false;
    }
    _cacheLock.lock();
    _cachedSlab.store(nullptr, std::memory_order_relaxed);
    _cachedSlabCount.store(0, std::memory_order_relaxed);
    _cacheLock.unlock();
    // The map holds the owner's open slab and the cached one too.
    _slabs.forEach([](unsigned long, unsigned long address) {
        mpsc_slab::destroy(reinterpret_cast<mpsc_slab*>(address));
    });
    _currentSlab = nullptr;
    return true;
}

}  // namespace vlk::memory
