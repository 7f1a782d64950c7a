// Grace periods for the lock-free map: which threads may still read a table
// that a writer has just replaced.
//
// Each thread publishes, in two thread-local words, the map it last entered
// and a section counter that is odd-and-rising: 3 inside its first section,
// 5 after it, then 7, 9, 11 ... Bit 1 set means "inside". A writer that has
// published a new table calls `wait(map)`, which returns once every thread
// that was inside a section on `map` has moved its counter on. There is one
// tracker per map type (`Map`), shared by all maps of that type.
//
// Reader cost: no lock. Entering is two stores to the thread's own words and
// leaving one; with the default (asymmetric) scheme all three are plain
// moves, with the full scheme the entering counter store is an xchg. A thread
// registers lazily at its first section (one allocation, the tracker lock
// taken once) and is retired by a pthread key destructor when it ends.
// `wait` costs a membarrier call (asymmetric scheme) and a walk of all
// registered threads; it holds the tracker lock for the walk and may spin
// without limit on a thread that stays inside a section. A section must not
// block.
//
// Ordering. A reader stores its counter and then loads the map's table; a
// writer stores the table and then loads every counter. Each side is a store
// followed by a load, which x86 may reorder, and the one outcome to exclude is
// that the reader loads the old table while the writer loads the reader's
// old counter. The map publishes its table with a seq_cst store and loads it
// inside a section with seq_cst loads; wait() loads each counter first with
// seq_cst. With `tracker_fence::full` the reader's counter store is seq_cst
// too (an xchg on x86): four seq_cst operations, so that outcome is
// impossible. With `tracker_fence::asymmetric` (the default) the reader's
// store is a release store (a plain move) behind a compiler barrier, and the
// writer calls membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) before it reads
// counters, which makes every running thread of the process execute a full
// barrier; a thread that is not running passed one in its context switch.
// Either the reader's counter store is visible before the writer reads it,
// or the reader's table load executes after that barrier and sees the new
// table. Where the kernel refuses the registration, asymmetric falls back to
// full, decided once per process before any thread's first section. No
// standalone fence is used, so ThreadSanitizer sees every edge.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <new>

#include <vlk/system/allocate.hpp>
#include <vlk/system/process_barrier.hpp>
#include <vlk/system/spin_lock.hpp>

namespace vlk::lockfree {

// How a reader orders its counter store before its table load; see the top.
enum class tracker_fence { full, asymmetric };

namespace _lf_thread_tracker_detail {

// True once this process is registered for expedited membarrier. Written
// once, inside the static initialisation of asymmetricFencesReady(), which
// every thread passes before its first section; relaxed loads suffice after
// that, because the guard of that initialisation orders the store before
// any caller's return.
inline constinit std::atomic<bool> g_asymmetricFences{false};

inline bool asymmetricFencesReady() {
    static const bool ready = [] {
        bool registered = system::registerPrivateExpeditedBarrier();
        g_asymmetricFences.store(registered, std::memory_order_relaxed);
        return registered;
    }();
    return ready;
}

// One thread's entry in one tracker. Allocated on its own 128-byte line
// (vlk::allocate(184), aligned up), so that no two threads' records share a
// line, and never reused.
struct thread_record {
    std::atomic<std::uint64_t>* _counterAddress;
    std::atomic<std::uint64_t>* _instanceAddress;
    void* _owner;
    thread_record* _next;  // _threads
    thread_record* _prev;
    thread_record* _pendingAddNext;
    thread_record* _pendingRemoveNext;
};

template <typename Map>
class lf_thread_tracker_impl;

// The list of threads known to one tracker. Constant-initialised (all zero),
// so it is usable from any static initialiser; the pthread key is created at
// the first registration.
template <typename Map>
class wait_info {
  public:
    constexpr wait_info() = default;
    wait_info(const wait_info&) = delete;
    wait_info& operator=(const wait_info&) = delete;

    // Runs at exit: frees every record. A thread that ends after this finds
    // the tracker closed and leaves its (already freed) record alone.
    ~wait_info() {
        _takeLock();
        _merge();
        for (thread_record* record = _threads; record != nullptr;) {
            thread_record* next = record->_next;
            vlk::memory::aligned::deallocate(record);
            record = next;
        }
        _threads = nullptr;
        _closed = true;
        _releaseLock();
    }

    // Returns when no thread is still inside a section on `map` that began
    // before this call. The table replacing the one being waited out must
    // already be published.
    void wait(unsigned long map) {
        const tracker_fence fence = lf_thread_tracker_impl<Map>::fence();
        // The walk runs under the lock. A thread that ends takes the lock in
        // its key destructor before its thread-local counter goes away, so
        // no record on the list can point at freed storage while we read it;
        // and a concurrent wait on another map of this type cannot free a
        // record under our feet. Readers never take this lock inside a
        // section, so holding it while spinning on them cannot deadlock.
        _takeLock();
        // Relaxed: only read under the lock, which orders it with the
        // registering and retiring threads' updates.
        if (_pendingCount.load(std::memory_order_relaxed) != 0) {
            _merge();
        }
        _writerBarrier(fence);
        for (thread_record* record = _threads; record != nullptr; record = record->_next) {
            _waitFor(*record, map);
        }
        _releaseLock();
    }

    // Diagnostics, under the lock: records on the thread list, and records
    // still on the pending lists.
    unsigned long threadCount() {
        _takeLock();
        unsigned long count = 0;
        for (thread_record* record = _threads; record != nullptr; record = record->_next) {
            ++count;
        }
        _releaseLock();
        return count;
    }
    unsigned long pendingCount() const { return _pendingCount.load(std::memory_order_relaxed); }

    // Allocates and queues the calling thread's record; called at its first
    // section.
    void registerThread(std::atomic<std::uint64_t>* counter, std::atomic<std::uint64_t>* instance) {
        void* memory = vlk::memory::aligned::allocate<128>(sizeof(thread_record));
        auto* record = ::new (memory)
            thread_record{counter, instance, this, nullptr, nullptr, nullptr, nullptr};
        _takeLock();
        if (!_keyCreated) {
            ::pthread_key_create(&_key, &wait_info::_retire);
            _keyCreated = true;
        }
        _pendingCount.fetch_add(1, std::memory_order_relaxed);
        record->_pendingAddNext = _pendingAdd;
        _pendingAdd = record;
        pthread_key_t key = _key;
        _releaseLock();
        ::pthread_setspecific(key, record);
    }

  private:
    // Key destructor at thread end: the record stays on _threads, so that
    // the list is only changed by a merge, and is freed by the next merge.
    static void _retire(void* value) {
        wait_info& self = lf_thread_tracker_impl<Map>::_waitInfo;
        auto* record = static_cast<thread_record*>(value);
        self._takeLock();
        if (!self._closed) {
            self._pendingCount.fetch_add(1, std::memory_order_relaxed);
            record->_pendingRemoveNext = self._pendingRemove;
            self._pendingRemove = record;
        }
        self._releaseLock();
    }

    // _lock: bit 31 held, bit 30 a waiter's mark, other bits always 0. The
    // lock is free when (word & 0xbfffffff) == 0, so a raised mark does not
    // keep anyone out; taking the lock wipes it.
    void _takeLock() {
        lock::backoff wait;
        std::uint32_t seen = _lock.load(std::memory_order_relaxed);
        for (;;) {
            // Acquire: pairs with the release AND of _releaseLock().
            if ((seen & 0xbfffffffu) == 0 &&
                _lock.compare_exchange_strong(seen, 0x80000000u, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
                return;
            }
            if ((seen & 0x40000000u) == 0) {
                _lock.fetch_or(0x40000000u, std::memory_order_relaxed);
            }
            wait.round();
            seen = _lock.load(std::memory_order_relaxed);
        }
    }
    // Release: publishes the list changes to the next _takeLock().
    void _releaseLock() { _lock.fetch_and(0x7fffffffu, std::memory_order_release); }

    // Moves new records onto _threads and frees retired ones. Lock held.
    void _merge() {
        for (thread_record* record = _pendingAdd; record != nullptr;) {
            thread_record* next = record->_pendingAddNext;
            record->_prev = nullptr;
            record->_next = _threads;
            if (_threads != nullptr) {
                _threads->_prev = record;
            }
            _threads = record;
            record->_pendingAddNext = nullptr;
            record = next;
        }
        _pendingAdd = nullptr;
        for (thread_record* record = _pendingRemove; record != nullptr;) {
            thread_record* next = record->_pendingRemoveNext;
            if (record->_prev != nullptr) {
                record->_prev->_next = record->_next;
            } else {
                _threads = record->_next;
            }
            if (record->_next != nullptr) {
                record->_next->_prev = record->_prev;
            }
            vlk::memory::aligned::deallocate(record);
            record = next;
        }
        _pendingRemove = nullptr;
        _pendingCount.store(0, std::memory_order_relaxed);
    }

    // The writer's half of the asymmetric scheme described at the top; the
    // full scheme needs nothing beyond the seq_cst loads in _waitFor().
    static void _writerBarrier(tracker_fence fence) {
        if (fence == tracker_fence::asymmetric && asymmetricFencesReady()) {
            system::privateExpeditedBarrier();
        }
    }

    // Spins, one pause per look, while the record's thread stays in a
    // section on `map` that it had entered when we looked first.
    static void _waitFor(const thread_record& record, unsigned long map) {
        // Seq_cst: the writer's load of the store->load pair at the top. As
        // an acquire it pairs with the release stores of enter and leave, so
        // whatever the thread did in the sections before the value we read,
        // its reads of the old table included, happens before our return
        // and the caller's free of that table.
        const std::uint64_t counter = record._counterAddress->load(std::memory_order_seq_cst);
        // Relaxed: enter stores the map before its release store of the
        // counter, so a counter seen inside shows the map of that section.
        if ((counter & 2) == 0 || record._instanceAddress->load(std::memory_order_relaxed) != map) {
            return;
        }
        while (record._counterAddress->load(std::memory_order_acquire) == counter) {
            __builtin_ia32_pause();
        }
    }

  public:
    pthread_key_t _key = 0;
    std::atomic<std::uint32_t> _lock{0};
    // The three lists are changed only under _lock.
    thread_record* _threads = nullptr;
    thread_record* _pendingAdd = nullptr;
    thread_record* _pendingRemove = nullptr;
    // Records on the two pending lists together; written under _lock.
    std::atomic<std::uint32_t> _pendingCount{0};

  private:
    bool _keyCreated = false;  // under _lock
    bool _closed = false;      // under _lock; set by the destructor
};

// The per-thread words and the read section of the maps of type `Map`.
// `Map` may declare `static constexpr tracker_fence reader_fence`; without
// it the tracker uses the asymmetric scheme.
template <typename Map>
class lf_thread_tracker_impl {
  public:
    static constexpr tracker_fence fence() {
        if constexpr (requires { Map::reader_fence; }) {
            return Map::reader_fence;
        } else {
            return tracker_fence::asymmetric;
        }
    }

    // Starts a read section on `map`; returns the value that leave() stores.
    [[gnu::always_inline]] static std::uint64_t enter(unsigned long map) {
        // Relaxed: only this thread writes its own counter.
        std::uint64_t counter = _counter.load(std::memory_order_relaxed);
        if (counter == 0) [[unlikely]] {
            counter = _register();
        }
        _instance.store(map, std::memory_order_relaxed);
        _storeEntryCounter(counter + 2);
        return counter + 4;
    }

    // Ends the section started by enter(), which returned `value`.
    [[gnu::always_inline]] static void leave(std::uint64_t value) {
        // Release: pairs with the acquire loads in wait(); the section's
        // reads of the table happen before the writer frees it.
        _counter.store(value, std::memory_order_release);
    }

    // Written only by the owning thread; read by writers through the
    // addresses in the thread's record, hence atomic.
    static inline thread_local constinit std::atomic<std::uint64_t> _instance{0};
    static inline thread_local constinit std::atomic<std::uint64_t> _counter{0};
    static inline constinit wait_info<Map> _waitInfo{};

  private:
    // The reader's store of the store->load pair described at the top: it
    // must be visible before the caller's next load of the map's table. In
    // both forms it is a release store, pairing with the acquire loads in
    // wait(): it orders the _instance store before it, and every access of
    // the sections before this one ahead of any writer that reads the value.
    [[gnu::always_inline]] static void _storeEntryCounter(std::uint64_t value) {
        if constexpr (fence() == tracker_fence::asymmetric) {
            if (g_asymmetricFences.load(std::memory_order_relaxed)) [[likely]] {
                _counter.store(value, std::memory_order_release);
                // Keeps the compiler from moving the table load above the
                // store; the writer's membarrier does the processor's part.
                std::atomic_signal_fence(std::memory_order_seq_cst);
                return;
            }
        }
        _counter.store(value, std::memory_order_seq_cst);
    }

    // Creates the record; returns 1, so that the first section is 3.
    [[gnu::noinline]] static std::uint64_t _register() {
        asymmetricFencesReady();
        _waitInfo.registerThread(&_counter, &_instance);
        return 1;
    }
};

}  // namespace _lf_thread_tracker_detail
}  // namespace vlk::lockfree
