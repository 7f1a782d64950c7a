// Concurrent hash map for many readers and many writers.
//
// A lookup takes no lock and writes nothing shared: it reads one bucket
// (a cache line for word-sized keys and values) between two loads of the
// bucket's word and believes what it read only when the word did not change.
// An insert or erase locks one bucket through a bit of that word. Up to three
// entries live in the bucket; more go to a chain of nodes taken from overflow
// segments spread over the table. When a full bucket finds no free node
// anywhere, one writer builds a twice as large table while it holds every old
// bucket locked, publishes it with one store, waits out the readers of the
// old table through the thread tracker, and frees it. The load of the table
// plays no part in growth.
//
// Thread-safe: find, insert, erase and clear may run from any threads at
// once. The destructor must run alone. Lookups block nobody; a lookup that
// misses while its bucket is locked retries, so a miss is only reported on an
// unlocked, unchanged bucket. Writers wait for a locked bucket and for a
// resize. Running out of memory ends the process; a full map grows.
//
// Keys and values that fit in one lock-free word and are trivially copyable
// live in atomic slots, and such maps may erase. Other types (strings,
// counted pointers) live in plain storage that is written only before an
// entry is published and destroyed only after a grace period, so their maps
// have no erase: an erase refills slots in place, which a reader could be
// copying at that moment. Lookups of those maps copy the value by its copy
// assignment, which for a counted pointer counts the new reference first.
#pragma once

#include <sched.h>

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include <vlk/containers/thread_tracker.hpp>
#include <vlk/system/abort.hpp>
#include <vlk/system/allocate.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/mmap.hpp>
#include <vlk/system/spin_lock.hpp>

namespace vlk::lockfree {

// Bucket count of a new or cleared table (and the floor of a shrink), the
// growth factor, a declared bound that nothing enforces, and four policy
// switches of which only one combination is built.
template <unsigned long InitialBuckets, unsigned long GrowthFactor, unsigned long MaxBuckets,
          bool Policy1, bool Policy2, bool Policy3, bool Policy4>
struct mpmc_hash_map_constants {
    static_assert(InitialBuckets >= 2 && std::has_single_bit(InitialBuckets),
                  "bucket counts are powers of two");
    static_assert(GrowthFactor >= 2 && std::has_single_bit(GrowthFactor));
    static_assert(Policy1 && !Policy2 && !Policy3 && !Policy4,
                  "only the policy combination <true, false, false, false> is built");
    static constexpr unsigned long initial_buckets = InitialBuckets;
    static constexpr unsigned long growth_factor = GrowthFactor;
    static constexpr unsigned long max_buckets = MaxBuckets;
};

// Hash and equality. No hash is stored: a rehash computes it again.
template <typename Key>
struct mpmc_hash_map_key_traits {
    static std::uint64_t hash(const Key& key) { return std::hash<Key>{}(key); }
    static bool equal(const Key& a, const Key& b) { return a == b; }
};

template <>
struct mpmc_hash_map_key_traits<std::string> {
    static std::uint64_t hash(const std::string& key) {
        return std::_Hash_bytes(key.data(), key.size(), 0xc70f6907);
    }
    static bool equal(const std::string& a, const std::string& b) {
        return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size()) == 0;
    }
};

template <>
struct mpmc_hash_map_key_traits<unsigned long> {
    static std::uint64_t hash(unsigned long key) { return key; }
    static bool equal(unsigned long a, unsigned long b) { return a == b; }
};

template <typename T>
struct _mpmc_lock_free_word : std::bool_constant<std::atomic<T>::is_always_lock_free> {};

// True when a T can be read and written as one atomic word. The conjunction
// stops before std::atomic<T> is named for types it would reject.
template <typename T>
inline constexpr bool mpmc_word_type =
    std::conjunction_v<std::is_trivially_copyable<T>, std::bool_constant<sizeof(T) <= 8>,
                       _mpmc_lock_free_word<T>>;

// Storage of one key or value in a bucket or node.
template <typename T, bool Word = mpmc_word_type<T>>
class mpmc_hash_map_slot;

// Word slots may be read while a writer changes them: the reads cannot tear,
// and the reader's recheck of the bucket word throws away what it read. Stores
// are release and loads acquire (plain moves on x86): a reader that reads any
// store of a writer therefore also sees every word that writer stored before
// it, the locked word included, so its recheck fails. See _unchanged().
template <typename T>
class mpmc_hash_map_slot<T, true> {
  public:
    T read() const { return _word.load(std::memory_order_acquire); }
    void construct(const T& value) { _word.store(value, std::memory_order_release); }
    void destroy() {}
    void copyTo(T& out) const { out = read(); }

  private:
    std::atomic<T> _word{};
};

// Object slots are constructed before the entry is published and destroyed
// after it can no longer be reached, so readers never race with a writer.
template <typename T>
class mpmc_hash_map_slot<T, false> {
  public:
    const T& read() const { return *std::launder(reinterpret_cast<const T*>(_bytes)); }
    void construct(const T& value) { ::new (static_cast<void*>(_bytes)) T(value); }
    void destroy() { std::destroy_at(std::launder(reinterpret_cast<T*>(_bytes))); }
    void copyTo(T& out) const { out = read(); }

  private:
    alignas(T) unsigned char _bytes[sizeof(T)];
};

// The slot types, and whether the map may erase (see the top).
template <typename Key, typename Value>
struct mpmc_hash_map_impl_traits {
    using key_slot = mpmc_hash_map_slot<Key>;
    using value_slot = mpmc_hash_map_slot<Value>;
    static constexpr bool erasable = mpmc_word_type<Key> && mpmc_word_type<Value>;
};

// Whether the entries of a dead table must be destroyed one by one.
template <typename Key, typename Value>
struct mpmc_hash_map_reclaim_traits {
    static constexpr bool release_needed =
        !std::is_trivially_destructible_v<Key> || !std::is_trivially_destructible_v<Value>;
};

// Where table blocks come from: the heap below 64 KiB, whole pages of the
// mapping layer from there on.
struct mpmc_hash_map_allocator {
    static constexpr unsigned long mapped_from = 65536;

    // Returns a 128-byte aligned block of at least `bytes`; rounds `bytes`
    // up to whole pages when the block is mapped.
    static void* allocate(unsigned long& bytes) {
        if (bytes < mapped_from) {
            return vlk::memory::aligned::allocate<128>(bytes);
        }
        bytes = (bytes + system::pageMask()) & ~system::pageMask();
        return vlk::system::memory::mmap(bytes);
    }
    static void deallocate(void* block, unsigned long bytes) {
        if (bytes < mapped_from) {
            vlk::memory::aligned::deallocate(block);
        } else {
            vlk::munmap(block, bytes);
        }
    }
};

// The reader side of the grace period; see thread_tracker.hpp.
struct mpmc_hash_map_parallel_traits {
    static constexpr tracker_fence reader_fence = tracker_fence::asymmetric;
};
// The same with a full fence in every read section, for hosts or tools
// where membarrier is unwanted.
struct mpmc_hash_map_fenced_parallel_traits {
    static constexpr tracker_fence reader_fence = tracker_fence::full;
};

template <typename Key, typename Value, typename KeyTraits = mpmc_hash_map_key_traits<Key>,
          typename Allocator = mpmc_hash_map_allocator,
          typename ParallelTraits = mpmc_hash_map_parallel_traits,
          typename ReclaimTraits = mpmc_hash_map_reclaim_traits<Key, Value>,
          typename ImplTraits = mpmc_hash_map_impl_traits<Key, Value>>
struct mpmc_hash_map_traits {
    using key_traits = KeyTraits;
    using allocator = Allocator;
    using parallel_traits = ParallelTraits;
    using reclaim_traits = ReclaimTraits;
    using impl_traits = ImplTraits;
};

// A chain node and the segment of ten that holds it. A segment is aligned to
// its own power-of-two size, so a node finds its segment by masking its
// address.
template <typename Key, typename Value, unsigned Slots,
          typename ImplTraits = mpmc_hash_map_impl_traits<Key, Value>>
struct mpmc_hash_map_segment_traits {
    struct segment_value_type {
        // In a chain: the next node. On a free list: the next free node.
        // Atomic, as a reader may still walk a node that is being unlinked.
        std::atomic<segment_value_type*> next{nullptr};
        typename ImplTraits::key_slot key;
        typename ImplTraits::value_slot value;
    };
    static constexpr unsigned nodes_per_segment = 10;
    static constexpr std::size_t segment_bytes =
        std::bit_ceil(2 * sizeof(void*) + nodes_per_segment * sizeof(segment_value_type));

    struct alignas(segment_bytes) segment_type {
        lock::spin_lock_impl<unsigned long> lock;  // guards freeList and the free nodes' next
        // Read without the lock only to skip an empty segment.
        std::atomic<segment_value_type*> freeList{nullptr};
        segment_value_type nodes[nodes_per_segment];
    };
    static_assert(sizeof(segment_type) == segment_bytes);
};

template <typename Key, typename Value, typename Node, unsigned Slots,
          typename ImplTraits = mpmc_hash_map_impl_traits<Key, Value>>
struct mpmc_hash_map_bucket_traits {
    // word: bits 0-2 count (inline slots 0..count-1 in use), 3-5 present
    // (bit 3+i: slot i live; may stay set above count), 7 chained (set
    // while overflow is non-null; nothing reads it), 8 locked, 9-63 version,
    // raised by 512 on every change.
    // Invariant: a bucket has a chain only while its count is 3.
    struct alignas(64) bucket_type {
        std::atomic<std::uint64_t> word{0};
        std::atomic<Node*> overflow{nullptr};
        typename ImplTraits::key_slot keys[Slots];
        typename ImplTraits::value_slot values[Slots];
    };
};

template <typename Key, typename Value, typename Unique, typename Constants,
          typename Traits = mpmc_hash_map_traits<Key, Value>>
class alignas(128) mpmc_hash_map {
  public:
    using key_traits = typename Traits::key_traits;
    using allocator = typename Traits::allocator;
    using reclaim_traits = typename Traits::reclaim_traits;
    using impl_traits = typename Traits::impl_traits;
    using segment_traits = mpmc_hash_map_segment_traits<Key, Value, 3, impl_traits>;
    using segment_value_type = typename segment_traits::segment_value_type;
    using segment_type = typename segment_traits::segment_type;
    using bucket_type = typename mpmc_hash_map_bucket_traits<Key, Value, segment_value_type, 3,
                                                             impl_traits>::bucket_type;
    using tracker = _lf_thread_tracker_detail::lf_thread_tracker_impl<mpmc_hash_map>;

    static constexpr tracker_fence reader_fence = Traits::parallel_traits::reader_fence;

    static constexpr std::uint64_t count_mask = 7;
    static constexpr std::uint64_t chained_bit = 1u << 7;
    static constexpr std::uint64_t locked_bit = 1u << 8;
    static constexpr std::uint64_t version_step = 512;
    static constexpr std::uint64_t presentBit(unsigned slot) { return 8u << slot; }

    // The header of one table; never changed once published.
    struct table_type {
        std::uint64_t _mask;
        std::uint64_t _bucketCount;
        std::uint64_t _segmentCount;
        std::uint64_t _bytes;  // of the block; page-rounded when mapped
        bucket_type* _buckets;
        segment_type* _segments;
    };

    mpmc_hash_map() {
        _table.store(_newTable(Constants::initial_buckets), std::memory_order_relaxed);
    }

    // No other thread may use the map any more: no waiting.
    ~mpmc_hash_map() {
        table_type* table = _table.load(std::memory_order_relaxed);
        _releaseEntries(*table);
        _freeTable(table);
    }

    mpmc_hash_map(const mpmc_hash_map&) = delete;
    mpmc_hash_map& operator=(const mpmc_hash_map&) = delete;

    // Copies the value of `key` to `out`. Lock-free.
    bool find(const Key& key, Value& out) {
        const std::uint64_t hash = key_traits::hash(key);
        const std::uint64_t leave = tracker::enter(_self());
        lock::backoff retry;
        int result;
        while ((result = _search(_bucketOf(hash), key, out)) < 0) {
            retry.round();
        }
        tracker::leave(leave);
        return result != 0;
    }

    // True when inserted; false when the key was there, whose value then
    // stays as it was.
    bool insert(const Key& key, const Value& value) {
        const std::uint64_t hash = key_traits::hash(key);
        for (;;) {
            const locked_bucket held = _lockBucket(hash);
            bucket_type& bucket = *held.bucket;
            const std::uint64_t word = held.word;
            const unsigned count = word & count_mask;
            if (_containsLocked(bucket, count, key)) {
                // Release: unlocks; nothing changed, so no version step.
                bucket.word.store(word, std::memory_order_release);
                return false;
            }
            if (count < 3) {
                bucket.values[count].construct(value);
                bucket.keys[count].construct(key);
                // Release: publishes slot `count` together with the raised
                // count and version, and unlocks in the same store. Pairs
                // with the acquire load of `word` in _search() and with the
                // acquiring CAS of the next writer.
                bucket.word.store((word | presentBit(count)) + version_step + 1,
                                  std::memory_order_release);
                _count.fetch_add(1, std::memory_order_relaxed);
                return true;
            }
            if (segment_value_type* node = _takeNode(*held.table, hash)) {
                node->value.construct(value);
                node->key.construct(key);
                // Release: a stale reader may be on this node; see _unchanged().
                node->next.store(bucket.overflow.load(std::memory_order_relaxed),
                                 std::memory_order_release);
                // Release: a reader that finds the node through `overflow`
                // (acquire in _search) sees its fields.
                bucket.overflow.store(node, std::memory_order_release);
                // Release: pairs with the acquire load of `word` in _search().
                bucket.word.store((word | chained_bit) + version_step, std::memory_order_release);
                _count.fetch_add(1, std::memory_order_relaxed);
                return true;
            }
            _expand(bucket, word | locked_bit);
        }
    }

    // True when the key was there and is gone. Maps of word-sized keys and
    // values only (see the top).
    bool erase(const Key& key) {
        static_assert(impl_traits::erasable,
                      "erase refills slots in place while readers may copy them; it needs keys "
                      "and values that are single atomic words");
        const std::uint64_t hash = key_traits::hash(key);
        const locked_bucket held = _lockBucket(hash);
        bucket_type& bucket = *held.bucket;
        const std::uint64_t word = held.word;
        const unsigned count = word & count_mask;
        bool erased;
        if (count == 0) {
            // The chain is not searched: it exists only while count is 3.
            bucket.word.store(word, std::memory_order_release);  // unlocks, pairs as in insert
            erased = false;
        } else {
            erased =
                _eraseFromSlots(bucket, word, count, key) || _eraseFromChain(bucket, word, key);
        }
        if (erased) {
            _count.fetch_sub(1, std::memory_order_relaxed);
        }
        return erased;
    }

    // Replaces the table by an empty one of the initial size. Safe with
    // concurrent readers and writers: the old buckets are locked first, like
    // a resize does, so no writer can still be changing the old table.
    void clear() {
        _takeResizing();
        table_type* old = _table.load(std::memory_order_relaxed);
        _lockAll(*old);
        table_type* fresh = _newTable(Constants::initial_buckets);
        _publish(fresh);
        // Writers count after unlocking, so _count may still be taking
        // increments for entries of the old table: subtract those entries
        // instead of storing 0.
        _count.fetch_sub(_countEntries(*old), std::memory_order_relaxed);
        _releaseEntries(*old);
        _freeTable(old);
        // Release: pairs with the acquire CAS of the next holder.
        _resizing.store(0, std::memory_order_release);
    }

    // Returns a grown table to the initial size when the entries number no
    // more than the initial bucket count; otherwise changes nothing. (The
    // target is the larger of the initial count and count / 3 rounded up to
    // a power of two, taken only when it is not below the count.)
    void shrink() {
        _takeResizing();
        _resize(0);
        _resizing.store(0, std::memory_order_release);  // pairs as in clear()
    }

    // Calls fn(key, value) for every entry of the current table. For
    // owners tearing a map down: no insert, erase or resize may run at the
    // same time (lookups may), so every slot below a bucket's count is live.
    template <typename Fn>
    void forEach(Fn&& fn) const {
        // Acquire: pairs with the release publication of the table; the
        // caller's own synchronisation with the last writer does the rest.
        const table_type& table = *_table.load(std::memory_order_acquire);
        for (std::uint64_t b = 0; b < table._bucketCount; ++b) {
            const bucket_type& bucket = table._buckets[b];
            const std::uint64_t word = bucket.word.load(std::memory_order_acquire);
            for (unsigned i = 0; i < (word & count_mask); ++i) {
                fn(bucket.keys[i].read(), bucket.values[i].read());
            }
            for (auto* node = bucket.overflow.load(std::memory_order_acquire); node != nullptr;
                 node = node->next.load(std::memory_order_acquire)) {
                fn(node->key.read(), node->value.read());
            }
        }
    }

    // Entries, as counted after each change; may lag a change in progress.
    unsigned long size() const { return _count.load(std::memory_order_relaxed); }

    // Diagnostics: buckets of the current table; free overflow nodes of the
    // current table (exact when no writer runs); the word of `key`'s bucket.
    unsigned long bucketCount() {
        const std::uint64_t leave = tracker::enter(_self());
        unsigned long buckets = _currentTable()->_bucketCount;
        tracker::leave(leave);
        return buckets;
    }
    unsigned long freeNodeCount() {
        const std::uint64_t leave = tracker::enter(_self());
        const table_type& table = *_currentTable();
        unsigned long free = 0;
        for (std::uint64_t s = 0; s < table._segmentCount; ++s) {
            segment_type& segment = table._segments[s];
            segment.lock.lock();
            for (auto* node = segment.freeList.load(std::memory_order_relaxed); node != nullptr;
                 node = node->next.load(std::memory_order_relaxed)) {
                ++free;
            }
            segment.lock.unlock();
        }
        tracker::leave(leave);
        return free;
    }
    std::uint64_t bucketWord(const Key& key) {
        const std::uint64_t leave = tracker::enter(_self());
        std::uint64_t word = _bucketOf(key_traits::hash(key)).word.load(std::memory_order_acquire);
        tracker::leave(leave);
        return word;
    }

  private:
    struct locked_bucket {
        bucket_type* bucket;
        table_type* table;
        std::uint64_t word;  // as it was before locking, without the locked bit
    };

    unsigned long _self() const { return reinterpret_cast<unsigned long>(this); }

    // Inside a read section: the current table. Seq_cst, which costs a
    // plain load on x86: with the seq_cst publication in _publish() and the
    // tracker's seq_cst counter accesses it rules out that a reader sees the
    // old table while the writer sees the reader outside (the store->load
    // argument of thread_tracker.hpp). It is also an acquire load pairing
    // with that publication: the table's header and buckets are seen built.
    table_type* _currentTable() const { return _table.load(std::memory_order_seq_cst); }

    // Inside a read section: the bucket of `hash` in the current table.
    bucket_type& _bucketOf(std::uint64_t hash) const {
        table_type* table = _currentTable();
        return table->_buckets[hash & table->_mask];
    }

    // Seqlock-style validation. Every store a writer makes to storage that
    // readers can reach (slots, node fields, links) is a release store made
    // after it locked the bucket or stored a new word; every reader load of
    // such storage is an acquire load, which also keeps this later load of
    // `word` behind it. So a reader that read any writer's change has that
    // writer's earlier word store happen before this load, which then sees it
    // or a later word: relaxed is enough.
    static bool _unchanged(const bucket_type& bucket, std::uint64_t word) {
        return bucket.word.load(std::memory_order_relaxed) == word;
    }

    // One pass of a lookup: 1 hit, 0 miss, -1 retry.
    static int _search(const bucket_type& bucket, const Key& key, Value& out) {
        // Acquire: pairs with the release stores of `word` by writers; the
        // slots below count, as they were published, are visible.
        const std::uint64_t word = bucket.word.load(std::memory_order_acquire);
        const unsigned count = word & count_mask;
        for (unsigned i = 0; i < count; ++i) {
            if (key_traits::equal(bucket.keys[i].read(), key)) {
                if ((word & presentBit(i)) == 0) {
                    return _miss(bucket, word);
                }
                bucket.values[i].copyTo(out);
                return _unchanged(bucket, word) ? 1 : -1;
            }
        }
        // Acquire (here and on `next`): pairs with the release store that
        // linked the node, so its fields are visible.
        for (const segment_value_type* node = bucket.overflow.load(std::memory_order_acquire);
             node != nullptr; node = node->next.load(std::memory_order_acquire)) {
            if (key_traits::equal(node->key.read(), key)) {
                node->value.copyTo(out);
                return _unchanged(bucket, word) ? 1 : -1;
            }
            if (!_unchanged(bucket, word)) {
                return -1;
            }
        }
        return _miss(bucket, word);
    }

    // A miss is believed only on an unlocked, unchanged bucket. During a
    // resize every old bucket stays locked, so the lookup retries until it
    // finds the new table.
    static int _miss(const bucket_type& bucket, std::uint64_t word) {
        return (word & locked_bit) == 0 && _unchanged(bucket, word) ? 0 : -1;
    }

    // Locks the bucket of `hash` in the current table. The read section
    // ends as soon as the bucket is held: from then on the bucket lock keeps
    // the table alive, since a resize or clear must lock every bucket first.
    locked_bucket _lockBucket(std::uint64_t hash) {
        for (;;) {
            // Relaxed: a hint to stay away while a table is replaced; the
            // bucket lock below is what decides.
            while (_resizing.load(std::memory_order_relaxed) != 0) {
                system::hard_pause();
            }
            const std::uint64_t leave = tracker::enter(_self());
            table_type* table = _currentTable();
            bucket_type& bucket = table->_buckets[hash & table->_mask];
            std::uint64_t word = bucket.word.load(std::memory_order_relaxed);
            if ((word & locked_bit) != 0) {
                ::sched_yield();
                tracker::leave(leave);
                continue;
            }
            if (_table.load(std::memory_order_relaxed) != table ||
                // Acquire: pairs with the release store that last unlocked
                // the bucket; its slots and chain are seen as left.
                !bucket.word.compare_exchange_strong(word, word | locked_bit,
                                                     std::memory_order_acquire,
                                                     std::memory_order_relaxed)) {
                tracker::leave(leave);
                continue;
            }
            tracker::leave(leave);
            return {&bucket, table, word};
        }
    }

    // With the bucket locked: is `key` among the first `count` slots or on
    // the chain?
    static bool _containsLocked(const bucket_type& bucket, unsigned count, const Key& key) {
        for (unsigned i = 0; i < count; ++i) {
            if (key_traits::equal(bucket.keys[i].read(), key)) {
                return true;
            }
        }
        // Relaxed: the bucket lock's acquire ordered the chain's last change.
        for (auto* node = bucket.overflow.load(std::memory_order_relaxed); node != nullptr;
             node = node->next.load(std::memory_order_relaxed)) {
            if (key_traits::equal(node->key.read(), key)) {
                return true;
            }
        }
        return false;
    }

    // Erase of an inline entry, bucket locked. The slot is refilled from the
    // chain head, or from the last slot, so that slots 0..count-1 stay dense.
    bool _eraseFromSlots(bucket_type& bucket, std::uint64_t word, unsigned count, const Key& key) {
        unsigned i = 0;
        while (i < count && !key_traits::equal(bucket.keys[i].read(), key)) {
            ++i;
        }
        if (i == count) {
            return false;
        }
        // Readers lose the entry here: present bit cleared, version raised,
        // still locked.
        const std::uint64_t hidden = ((word | locked_bit) & ~presentBit(i)) + version_step;
        if ((hidden & locked_bit) == 0) {
            system::abort("mpmc_hash_map: erase lost the bucket lock");
        }
        // Relaxed: the release stores to the slots below carry it to readers.
        bucket.word.store(hidden, std::memory_order_relaxed);
        segment_value_type* head = bucket.overflow.load(std::memory_order_relaxed);
        if (head == nullptr) {
            if (i != count - 1) {
                bucket.keys[i].construct(bucket.keys[count - 1].read());
                bucket.values[i].construct(bucket.values[count - 1].read());
            }
            // Release: count lowered, version raised, unlocked; pairs with
            // the acquire loads of `word` in _search() and _lockBucket().
            bucket.word.store(word + version_step - 1, std::memory_order_release);
            return true;
        }
        bucket.keys[i].construct(head->key.read());
        bucket.values[i].construct(head->value.read());
        segment_value_type* rest = head->next.load(std::memory_order_relaxed);
        bucket.overflow.store(rest, std::memory_order_release);
        std::uint64_t next = word + 3 * version_step;
        if (rest == nullptr) {
            next &= ~chained_bit;
        }
        bucket.word.store(next, std::memory_order_release);  // pairs as above
        // Only after the new word: a reader still on the node must see the
        // word change before the node can be reused; see _freeNode().
        _freeNode(head);
        return true;
    }

    // Erase of a chained entry, bucket locked; unlocks in every case.
    bool _eraseFromChain(bucket_type& bucket, std::uint64_t word, const Key& key) {
        std::atomic<segment_value_type*>* link = &bucket.overflow;
        for (segment_value_type* node = link->load(std::memory_order_relaxed); node != nullptr;
             node = link->load(std::memory_order_relaxed)) {
            if (key_traits::equal(node->key.read(), key)) {
                // Release: a reader following the link sees the rest of the
                // chain as it was linked.
                link->store(node->next.load(std::memory_order_relaxed), std::memory_order_release);
                std::uint64_t next = word + version_step;
                if (bucket.overflow.load(std::memory_order_relaxed) == nullptr) {
                    next &= ~chained_bit;
                }
                bucket.word.store(next, std::memory_order_release);  // pairs as in insert
                _freeNode(node);  // after the word, as in _eraseFromSlots()
                return true;
            }
            link = &node->next;
        }
        bucket.word.store(word, std::memory_order_release);  // unlocks; nothing changed
        return false;
    }

    // Pops a free node: two sweeps over the segments from the one chosen by
    // the hash; a second sweep may find nodes that erasers returned.
    static segment_value_type* _takeNode(table_type& table, std::uint64_t hash) {
        const std::uint64_t segments = table._segmentCount;
        for (std::uint64_t step = 0; step < 2 * segments; ++step) {
            segment_type& segment = table._segments[(hash + step) % segments];
            // Relaxed: only a hint for skipping; re-read under the lock.
            if (segment.freeList.load(std::memory_order_relaxed) == nullptr) {
                continue;
            }
            segment.lock.lock();
            segment_value_type* node = segment.freeList.load(std::memory_order_relaxed);
            if (node != nullptr) {
                segment.freeList.store(node->next.load(std::memory_order_relaxed),
                                       std::memory_order_relaxed);
            }
            segment.lock.unlock();
            if (node != nullptr) {
                // A reader may still be on this node from its last chain. The
                // segment lock carried the eraser's word store to us, and our
                // release stores to the node carry it on to that reader.
                return node;
            }
        }
        return nullptr;
    }

    static segment_type& _segmentOf(segment_value_type* node) {
        auto address = reinterpret_cast<std::uintptr_t>(node);
        return *reinterpret_cast<segment_type*>(address & ~(segment_traits::segment_bytes - 1));
    }

    // Returns an unlinked node to its segment. Its `next` may still be read
    // by a reader that was on it: release, see _unchanged().
    static void _freeNode(segment_value_type* node) {
        node->key.destroy();
        node->value.destroy();
        segment_type& segment = _segmentOf(node);
        segment.lock.lock();
        node->next.store(segment.freeList.load(std::memory_order_relaxed),
                         std::memory_order_release);
        segment.freeList.store(node, std::memory_order_relaxed);
        segment.lock.unlock();
    }

    // Called with the bucket locked and no node anywhere: unlocks the
    // bucket, then grows the table or waits for the thread that does.
    bool _expand(bucket_type& bucket, std::uint64_t lockedWord) {
        std::uint64_t expected = 0;
        // Acquire: pairs with the release store of 0 by the last holder.
        const bool won = _resizing.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                                           std::memory_order_relaxed);
        // Release: unlocks without a version step, as nothing changed.
        bucket.word.store(lockedWord & ~locked_bit, std::memory_order_release);
        if (won) {
            _resize(_table.load(std::memory_order_relaxed)->_bucketCount *
                    Constants::growth_factor);
            _resizing.store(0, std::memory_order_release);  // pairs with the CAS above
        } else {
            // Acquire: pairs with the release store of 0 by the winner.
            lock::backoff wait;
            while (_resizing.load(std::memory_order_acquire) != 0) {
                wait.round();
            }
        }
        return true;
    }

    // Replaces the table by one of `buckets` buckets, or by a smaller one
    // when `buckets` is below the current count. Caller holds _resizing.
    void _resize(unsigned long buckets) {
        // Relaxed: only the holder of _resizing stores _table.
        table_type* old = _table.load(std::memory_order_relaxed);
        _lockAll(*old);
        if (buckets < old->_bucketCount) {
            buckets = _shrinkTarget(old->_bucketCount);
            if (buckets == 0) {
                for (std::uint64_t b = 0; b < old->_bucketCount; ++b) {
                    // Release: unlocks; nothing changed.
                    old->_buckets[b].word.fetch_and(~locked_bit, std::memory_order_release);
                }
                return;
            }
        }
        table_type* fresh = _newTable(buckets);
        while (!_rehash(*old, *fresh)) {
            buckets *= 2;
            _releaseEntries(*fresh);
            _freeTable(fresh);
            fresh = _newTable(buckets);
        }
        _publish(fresh);
        _releaseEntries(*old);
        _freeTable(old);
    }

    // Buckets of a shrunk table, or 0 when shrinking gains nothing.
    unsigned long _shrinkTarget(unsigned long current) const {
        const unsigned long count = _count.load(std::memory_order_relaxed);
        unsigned long target = std::bit_ceil(count / 3);
        if (count / 3 == 0 || target < Constants::initial_buckets) {
            target = Constants::initial_buckets;
        }
        return current <= target || target < count ? 0 : target;
    }

    // Publishes `fresh` and returns when no reader can still be in the table
    // it replaced.
    void _publish(table_type* fresh) {
        // Seq_cst: see _currentTable(), whose loads it pairs with; as a
        // release it makes the new table's contents visible to its finders.
        _table.store(fresh, std::memory_order_seq_cst);
        tracker::_waitInfo.wait(_self());
    }

    void _takeResizing() {
        lock::backoff wait;
        std::uint64_t expected = 0;
        // Acquire: pairs with the release store of 0 by the last holder.
        while (!_resizing.compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                                std::memory_order_relaxed)) {
            expected = 0;
            wait.round();
        }
    }

    // Locks every bucket of `table` in index order. They are never unlocked
    // when the table is replaced: it dies locked, and threads that meet its
    // buckets yield and then find the new table.
    static void _lockAll(table_type& table) {
        for (std::uint64_t b = 0; b < table._bucketCount; ++b) {
            std::atomic<std::uint64_t>& word = table._buckets[b].word;
            std::uint64_t seen = word.load(std::memory_order_relaxed);
            for (;;) {
                if ((seen & locked_bit) != 0) {
                    ::sched_yield();
                    seen = word.load(std::memory_order_relaxed);
                    continue;
                }
                // Acquire: pairs with the writer's unlocking release store,
                // so the rehash reads the bucket as that writer left it.
                if (word.compare_exchange_weak(seen, seen | locked_bit, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
                    break;
                }
            }
        }
    }

    // Copies every entry of the locked `old` table into the unpublished
    // `fresh` one. False when a full bucket found no free node.
    static bool _rehash(table_type& old, table_type& fresh) {
        for (std::uint64_t b = 0; b < old._bucketCount; ++b) {
            const bucket_type& bucket = old._buckets[b];
            const unsigned count = bucket.word.load(std::memory_order_relaxed) & count_mask;
            for (unsigned i = 0; i < count; ++i) {
                if (!_place(fresh, bucket.keys[i].read(), bucket.values[i].read())) {
                    return false;
                }
            }
            for (auto* node = bucket.overflow.load(std::memory_order_relaxed); node != nullptr;
                 node = node->next.load(std::memory_order_relaxed)) {
                if (!_place(fresh, node->key.read(), node->value.read())) {
                    return false;
                }
            }
        }
        return true;
    }

    // Insert into a table that no other thread can see yet: no locks on
    // buckets, no version step. Relaxed throughout; the publication of the
    // table orders it all.
    static bool _place(table_type& table, const Key& key, const Value& value) {
        const std::uint64_t hash = key_traits::hash(key);
        bucket_type& bucket = table._buckets[hash & table._mask];
        const std::uint64_t word = bucket.word.load(std::memory_order_relaxed);
        const unsigned count = word & count_mask;
        if (count < 3) {
            bucket.keys[count].construct(key);
            bucket.values[count].construct(value);
            bucket.word.store(word + 1 + presentBit(count), std::memory_order_relaxed);
            return true;
        }
        segment_value_type* node = _takeNode(table, hash);
        if (node == nullptr) {
            return false;
        }
        node->key.construct(key);
        node->value.construct(value);
        node->next.store(bucket.overflow.load(std::memory_order_relaxed),
                         std::memory_order_relaxed);
        bucket.overflow.store(node, std::memory_order_relaxed);
        bucket.word.store(word | chained_bit, std::memory_order_relaxed);
        return true;
    }

    // Entries of a table that no writer changes any more.
    static unsigned long _countEntries(const table_type& table) {
        unsigned long entries = 0;
        for (std::uint64_t b = 0; b < table._bucketCount; ++b) {
            const bucket_type& bucket = table._buckets[b];
            entries += bucket.word.load(std::memory_order_relaxed) & count_mask;
            for (auto* node = bucket.overflow.load(std::memory_order_relaxed); node != nullptr;
                 node = node->next.load(std::memory_order_relaxed)) {
                ++entries;
            }
        }
        return entries;
    }

    // Destroys the keys and values of a table no thread can reach: live
    // slots below each count, then every node that is not on a free list
    // (free nodes are stamped first).
    static void _releaseEntries(table_type& table) {
        if constexpr (reclaim_traits::release_needed) {
            for (std::uint64_t b = 0; b < table._bucketCount; ++b) {
                bucket_type& bucket = table._buckets[b];
                const std::uint64_t word = bucket.word.load(std::memory_order_relaxed);
                for (unsigned i = 0; i < (word & count_mask); ++i) {
                    if ((word & presentBit(i)) != 0) {
                        bucket.keys[i].destroy();
                        bucket.values[i].destroy();
                    }
                }
            }
            auto* const stamp = reinterpret_cast<segment_value_type*>(std::uintptr_t{15});
            for (std::uint64_t s = 0; s < table._segmentCount; ++s) {
                segment_type& segment = table._segments[s];
                for (auto* node = segment.freeList.load(std::memory_order_relaxed);
                     node != nullptr;) {
                    auto* next = node->next.load(std::memory_order_relaxed);
                    node->next.store(stamp, std::memory_order_relaxed);
                    node = next;
                }
                for (segment_value_type& node : segment.nodes) {
                    if (node.next.load(std::memory_order_relaxed) != stamp) {
                        node.key.destroy();
                        node.value.destroy();
                    }
                }
            }
        }
    }

    // Builds an empty table of `buckets` buckets (a power of two).
    table_type* _newTable(unsigned long buckets) {
        const unsigned long divisor = buckets >= 2048 ? 128 : buckets >= 9 ? buckets / 8 : 1;
        unsigned long segments = buckets / divisor;
        if (segments >= 16384) {
            segments = 16384;
        }
        unsigned long bytes = buckets * sizeof(bucket_type) + (segments + 1) * sizeof(segment_type);
        // Qualified: inside vlk::lockfree, `memory::` would not name vlk::memory.
        auto* table =
            static_cast<table_type*>(vlk::memory::aligned::allocate<128>(sizeof(table_type)));
        auto* block = static_cast<unsigned char*>(allocator::allocate(bytes));
        auto* bucketArray = reinterpret_cast<bucket_type*>(block);
        for (unsigned long b = 0; b < buckets; ++b) {
            ::new (static_cast<void*>(bucketArray + b)) bucket_type();
        }
        const std::uintptr_t align = segment_traits::segment_bytes;
        auto segmentStart =
            (reinterpret_cast<std::uintptr_t>(bucketArray + buckets) + align - 1) & ~(align - 1);
        auto* segmentArray = reinterpret_cast<segment_type*>(segmentStart);
        for (unsigned long s = 0; s < segments; ++s) {
            segment_type* segment = ::new (static_cast<void*>(segmentArray + s)) segment_type();
            // The free list runs from the last node down to node 0.
            for (unsigned n = 0; n < segment_traits::nodes_per_segment; ++n) {
                segment->nodes[n].next.store(n == 0 ? nullptr : &segment->nodes[n - 1],
                                             std::memory_order_relaxed);
            }
            segment->freeList.store(&segment->nodes[segment_traits::nodes_per_segment - 1],
                                    std::memory_order_relaxed);
        }
        *table = table_type{buckets - 1, buckets, segments, bytes, bucketArray, segmentArray};
        _tableBytes = bytes;
        _capacity = 3 * buckets + segment_traits::nodes_per_segment * segments;
        return table;
    }

    static void _freeTable(table_type* table) {
        allocator::deallocate(table->_buckets, table->_bytes);
        vlk::memory::aligned::deallocate(table);
    }

    // The current table. Loaded with seq_cst inside read sections; stored
    // with seq_cst, only by the holder of _resizing (and the constructor).
    std::atomic<table_type*> _table{nullptr};
    // Size of the current table's block and its inline plus node capacity.
    // Written with each table built, under _resizing; nothing reads them.
    std::uint64_t _tableBytes = 0;
    std::uint64_t _capacity = 0;
    // Entries; relaxed, a statistic that only a shrink consults. On its own
    // line, so writers' traffic stays off _table.
    alignas(128) std::atomic<std::uint64_t> _count{0};
    // 0 or 1: the right to replace the table, held through _resize, clear
    // and shrink. Taken by an acquiring CAS, given back by a release store.
    std::atomic<std::uint64_t> _resizing{0};
};

}  // namespace vlk::lockfree
