// The table shared by `base::hash_map` and `base::hash_set`.
//
// A table is one block: a header line, an array of cache-line-aligned buckets
// that hold a few entries inline, and a pool of overflow nodes cut into
// segments, each with its own free list. An entry goes to its bucket's first
// free inline slot; when they are all taken it goes to a node pushed at the
// head of the bucket's chain. The node comes from the segment chosen by the
// hash, or the next one with a free node, wrapping around. Only when no
// segment has a free node does the table grow, to twice the buckets; the
// load of the table plays no part.
//
// Iteration visits buckets upward, each bucket's inline slots upward, then
// its chain from the head (the newest entry). Growth moves each old bucket's
// slots, then its chain from the head, so a chain that stays together is
// reversed. Reports print this order, so these rules are behaviour, not
// detail: change them and every report changes.
//
// Single-threaded: readers may share a table only while nobody inserts.
// There is no erase. Running out of memory ends the process.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

#include <vlk/system/abort.hpp>
#include <vlk/system/allocate.hpp>
#include <vlk/system/host.hpp>

namespace vlk::base {

// Hash and equality of a key. The default uses std::hash and ==; a key type
// may specialise it, as the catalogue's identifiers do.
template <typename Key>
struct hash_map_key_traits {
    static std::uint64_t hash(const Key& key) { return std::hash<Key>{}(key); }
    static bool equal(const Key& a, const Key& b) { return a == b; }
};

template <typename Key>
struct hash_set_key_traits : hash_map_key_traits<Key> {};

// First bucket count and growth factor.
template <unsigned long InitialBuckets, unsigned long GrowthFactor>
struct hash_map_constants {
    static_assert((InitialBuckets & (InitialBuckets - 1)) == 0, "bucket counts are powers of two");
    static_assert(GrowthFactor >= 2 && (GrowthFactor & (GrowthFactor - 1)) == 0);
    static constexpr unsigned long initial_buckets = InitialBuckets;
    static constexpr unsigned long growth_factor = GrowthFactor;
};

template <unsigned long InitialBuckets, unsigned long GrowthFactor>
struct hash_set_constants : hash_map_constants<InitialBuckets, GrowthFactor> {};

// Allocation policy tags. Tables are always one block from the heap; the
// parameters only name the type.
template <bool Mapped, unsigned long Chunk>
struct hash_map_allocator {};
template <bool Mapped, unsigned long Chunk>
struct hash_set_allocator {};

template <typename Key, typename Value, typename KeyTraits = hash_map_key_traits<Key>,
          typename Allocator = hash_map_allocator<false, 65536>>
struct hash_map_traits {
    using key_type = Key;
    using mapped_type = Value;
    using key_traits = KeyTraits;
};

template <typename Key, typename KeyTraits = hash_set_key_traits<Key>,
          typename Allocator = hash_set_allocator<false, 65536>>
struct hash_set_traits {
    using key_type = Key;
    using key_traits = KeyTraits;
};

namespace _hash_detail {

// Marks a free node while a table is torn down; no node lives at address 15.
inline constexpr std::uintptr_t free_node_mark = 15;

inline constexpr unsigned long min_buckets = 8;
inline constexpr unsigned long buckets_per_segment = 128;
inline constexpr unsigned long min_segments = 8;
inline constexpr unsigned long max_segments = 16384;

inline unsigned long segmentCountFor(unsigned long buckets) {
    return std::clamp(buckets / buckets_per_segment, min_segments, max_segments);
}

// A table over `Layout`, which gives the entry type, the slot and node
// counts, the bits of the bucket's state word, and how an entry hashes and
// matches. See hash_map.hpp and hash_set.hpp.
template <typename Layout, typename Constants>
class hash_table {
  public:
    using key_type = typename Layout::key_type;
    using entry = typename Layout::entry;

    static constexpr unsigned slots = Layout::slots;
    static constexpr unsigned nodes_per_segment = Layout::nodes_per_segment;
    // Whether each entry's 64-bit hash is stored beside it and compared
    // before the key. A bucket keeps its hashes in one array ahead of its
    // entries, so that small keys pack the bucket into one line.
    static constexpr bool keeps_hash = Layout::keeps_hash;

    template <unsigned Count>
    struct kept_hashes {
        std::uint64_t hash[Count];
    };
    struct no_hashes {};
    template <unsigned Count>
    using hashes = std::conditional_t<keeps_hash, kept_hashes<Count>, no_hashes>;

    struct node {
        node* next;
        [[no_unique_address]] hashes<1> kept;
        alignas(entry) unsigned char storage[sizeof(entry)];

        entry* get() { return std::launder(reinterpret_cast<entry*>(storage)); }
    };

    // state: count of used slots in the bits of Layout::count_mask, one flag
    // per used slot from Layout::flag_shift, Layout::overflow_bit while the
    // chain is non-empty, and a version counted from Layout::version_shift.
    // Invariant: a chain exists only while every slot is used.
    struct alignas(64) bucket {
        std::uint32_t state;
        node* overflow;
        [[no_unique_address]] hashes<slots> kept;
        alignas(entry) unsigned char storage[slots][sizeof(entry)];

        unsigned count() const { return state & Layout::count_mask; }
        entry* slot(unsigned i) { return std::launder(reinterpret_cast<entry*>(storage[i])); }
    };

    struct segment {
        std::uint64_t reserved;
        node* free;
        node nodes[nodes_per_segment];
    };

    // The header at the start of a table's block, on a 128-byte boundary; the
    // word before it holds the raw pointer of the block.
    struct table_data {
        std::uint64_t mask;
        std::uint64_t bucket_count;
        std::uint64_t segment_count;
        std::uint64_t bytes;
        bucket* buckets;
        segment* segments;
        // One bit per bucket, set when the bucket takes its first entry. Walks
        // over the table (iteration, growth, teardown) follow it instead of
        // reading every bucket, so pages of empty buckets are never touched.
        std::uint64_t* used;
        // Two bits per segment, in pairs of words: word 2w holds, for the
        // segments from 64w on, a bit set while the segment has a free
        // node; word 2w + 1 a bit set once its free list is linked. The
        // node search reads the first instead of the segments' heads, so a
        // search that passes many used-up segments is a scan of one word.
        std::uint64_t* free_segments;

        // The first used bucket at or after `from`, or `bucket_count`.
        std::uint64_t nextUsed(std::uint64_t from) const {
            return nextSet(used, bucket_count, from);
        }

        void markUsed(std::uint64_t index) { used[index / 64] |= std::uint64_t{1} << (index % 64); }
        bool isUsed(std::uint64_t index) const {
            return (used[index / 64] & (std::uint64_t{1} << (index % 64))) != 0;
        }

        // The first segment with a free node in the order the node search
        // tries them: `from`, `from` + 1, ... wrapping around; or
        // `segment_count` when every segment is used up.
        std::uint64_t nextWithFreeNode(std::uint64_t from) const {
            const std::uint64_t found = nextSet(free_segments, segment_count, from, 2);
            if (found != segment_count || from == 0) {
                return found;
            }
            const std::uint64_t wrapped = nextSet(free_segments, from, 0, 2);
            return wrapped < from ? wrapped : segment_count;
        }

        std::uint64_t& segmentWord(std::uint64_t index, unsigned which) const {
            return free_segments[index / 64 * 2 + which];
        }
        bool segmentBit(std::uint64_t index, unsigned which) const {
            return ((segmentWord(index, which) >> (index % 64)) & 1) != 0;
        }
        void setSegmentBit(std::uint64_t index, unsigned which, bool value) const {
            const std::uint64_t bit = std::uint64_t{1} << (index % 64);
            segmentWord(index, which) =
                value ? segmentWord(index, which) | bit : segmentWord(index, which) & ~bit;
        }

        // The first set bit at or after `from` of the `count` bits held in
        // the words `bits[0]`, `bits[stride]`, `bits[2 * stride]` ..., or
        // `count`.
        static std::uint64_t nextSet(const std::uint64_t* bits, std::uint64_t count,
                                     std::uint64_t from, std::uint64_t stride = 1) {
            const std::uint64_t words = (count + 63) / 64;
            std::uint64_t word = from / 64;
            if (word >= words) {
                return count;
            }
            std::uint64_t pending = bits[word * stride] & (~std::uint64_t{0} << (from % 64));
            while (pending == 0) {
                if (++word == words) {
                    return count;
                }
                pending = bits[word * stride];
            }
            return std::min(count,
                            word * 64 + static_cast<std::uint64_t>(std::countr_zero(pending)));
        }
    };
    static_assert(sizeof(table_data) <= 64);

    // Figures that tests and diagnostics read; nothing else depends on them.
    struct statistics {
        std::uint64_t bucket_count = 0;
        std::uint64_t segment_count = 0;
        std::uint64_t used_buckets = 0;
        std::uint64_t used_nodes = 0;
        std::uint64_t total_nodes = 0;
    };

    class iterator {
      public:
        iterator() = default;

        entry& operator*() const {
            return _node != nullptr ? *_node->get() : *_bucket().slot(_slot);
        }
        entry* operator->() const { return &**this; }

        iterator& operator++() {
            if (_node != nullptr) {
                _node = _node->next;
                if (_node == nullptr) {
                    _seek(_bucketIndex + 1);
                }
                return *this;
            }
            bucket& b = _bucket();
            if (++_slot >= b.count() || _slot >= slots) {
                _slot = slots;
                _node = b.overflow;
                if (_node == nullptr) {
                    _seek(_bucketIndex + 1);
                }
            }
            return *this;
        }

        friend bool operator==(const iterator&, const iterator&) = default;

      private:
        friend class hash_table;

        explicit iterator(const hash_table* container) : _container(container) { _seek(0); }

        bucket& _bucket() const { return _container->_table->buckets[_bucketIndex]; }

        // Moves to the first used bucket at or after `from`, or to the end,
        // which is the all-zero position.
        void _seek(std::uint64_t from) {
            const table_data* table = _container->_table;
            const std::uint64_t next = table->nextUsed(from);
            if (next == table->bucket_count) {
                *this = iterator();
                return;
            }
            _bucketIndex = next;
            _slot = 0;
            _node = nullptr;
        }

        const hash_table* _container = nullptr;
        std::uint64_t _bucketIndex = 0;
        unsigned _slot = 0;
        node* _node = nullptr;
    };

    hash_table() = default;
    hash_table(const hash_table&) = delete;
    hash_table& operator=(const hash_table&) = delete;
    hash_table(hash_table&& other) noexcept { _swap(other); }
    hash_table& operator=(hash_table&& other) noexcept {
        hash_table(std::move(other))._swap(*this);
        return *this;
    }
    ~hash_table() {
        if (_table != nullptr) {
            _size = 0;
            _freeTable(_table);
        }
    }

    std::uint64_t size() const { return _size; }
    bool empty() const { return _size == 0; }
    std::uint64_t capacity() const { return _capacity; }
    std::uint64_t bytes() const { return _bytes; }
    const table_data* table() const { return _table; }

    iterator begin() const {
        if (_table == nullptr || _size == 0 || _table->bucket_count == 0) {
            return end();
        }
        return iterator(this);
    }
    iterator end() const { return iterator(); }

    entry* findEntry(const key_type& key) const {
        if (_table == nullptr) {
            return nullptr;
        }
        const std::uint64_t hash = Layout::hashKey(key);
        return _find(_bucketOf(_table, hash), key, hash);
    }

    // Adds an entry built from `args` unless the key is present. Returns the
    // entry under the key and whether it was added.
    template <typename... Args>
    std::pair<entry*, bool> emplace(const key_type& key, Args&&... args) {
        if (_table == nullptr) {
            _install(_createTable(Constants::initial_buckets));
        }
        const std::uint64_t hash = Layout::hashKey(key);
        for (;;) {
            bucket& b = _bucketOf(_table, hash);
            // A bucket that never took an entry is not read: its page may
            // still be untouched, and reading it first would cost a second
            // fault when the entry is written.
            const bool used = _table->isUsed(hash & _table->mask);
            if (entry* found = used ? _find(b, key, hash) : nullptr) {
                return {found, false};
            }
            const unsigned count = used ? b.count() : 0;
            if (count < slots) {
                entry* e = Layout::construct(b.storage[count], key, std::forward<Args>(args)...);
                _keepHash(b.kept, count, hash);
                if (count == 0) {
                    _table->markUsed(hash & _table->mask);
                }
                b.state += 1 | (1u << (Layout::flag_shift + count)) | Layout::version_one;
                ++_size;
                return {e, true};
            }
            if (node* n = _takeNode(_table, hash)) {
                entry* e = Layout::construct(n->storage, key, std::forward<Args>(args)...);
                _keepHash(n->kept, 0, hash);
                _pushChain(b, n);
                b.state += Layout::version_one;
                ++_size;
                return {e, true};
            }
            _grow();
        }
    }

    statistics stats() const {
        statistics s;
        if (_table == nullptr) {
            return s;
        }
        s.bucket_count = _table->bucket_count;
        s.segment_count = _table->segment_count;
        s.total_nodes = _table->segment_count * nodes_per_segment;
        std::uint64_t inlined = 0;
        for (std::uint64_t i = _table->nextUsed(0); i < _table->bucket_count;
             i = _table->nextUsed(i + 1)) {
            ++s.used_buckets;
            inlined += _table->buckets[i].count();
        }
        s.used_nodes = _size - inlined;
        return s;
    }

    // Destroys the entries of `table` and frees its block. Chains are not
    // walked: a node in use is told from a free one by marking the free lists.
    static void _freeTable(table_data* table) {
        if (table == nullptr) {
            return;
        }
        for (std::uint64_t i = table->nextUsed(0); i < table->bucket_count;
             i = table->nextUsed(i + 1)) {
            bucket& b = table->buckets[i];
            for (unsigned s = 0; s < b.count(); ++s) {
                if ((b.state & (1u << (Layout::flag_shift + s))) != 0) {
                    b.slot(s)->~entry();
                }
            }
            b.state = 0;
            b.overflow = nullptr;
        }
        for (std::uint64_t i = 0; i < table->segment_count; ++i) {
            if (!table->segmentBit(i, linked)) {
                continue;  // never taken from: holds no entry
            }
            segment& seg = table->segments[i];
            for (node* n = seg.free; n != nullptr;) {
                node* next = n->next;
                n->next = reinterpret_cast<node*>(free_node_mark);
                n = next;
            }
            for (node& n : seg.nodes) {
                if (reinterpret_cast<std::uintptr_t>(n.next) != free_node_mark) {
                    n.get()->~entry();
                }
            }
        }
        memory::aligned::deallocate(table);
    }

  protected:
    // Frees the table and leaves the container empty, ready to be filled again.
    void _reset() {
        table_data* table = std::exchange(_table, nullptr);
        _size = 0;
        _bytes = 0;
        _capacity = 0;
        _freeTable(table);
    }

  private:
    static bucket& _bucketOf(const table_data* table, std::uint64_t hash) {
        return table->buckets[hash & table->mask];
    }

    template <typename Kept>
    static void _keepHash(Kept& kept, unsigned i, std::uint64_t hash) {
        if constexpr (keeps_hash) {
            kept.hash[i] = hash;
        }
    }

    // The entry's hash: the kept one, or worked out again from its key.
    template <typename Kept>
    static std::uint64_t _hashOf(const Kept& kept, unsigned i, const entry& e) {
        if constexpr (keeps_hash) {
            return kept.hash[i];
        } else {
            return Layout::hashKey(e.key);
        }
    }

    template <typename Kept>
    static bool _matches(const Kept& kept, unsigned i, const entry& e, const key_type& key,
                         std::uint64_t hash) {
        if constexpr (keeps_hash) {
            if (kept.hash[i] != hash) {
                return false;
            }
        }
        return Layout::key_traits::equal(e.key, key);
    }

    static entry* _find(bucket& b, const key_type& key, std::uint64_t hash) {
        const unsigned count = b.count();
        for (unsigned i = 0; i < count; ++i) {
            if (_matches(b.kept, i, *b.slot(i), key, hash)) {
                return b.slot(i);
            }
        }
        for (node* n = b.overflow; n != nullptr; n = n->next) {
            if (_matches(n->kept, 0, *n->get(), key, hash)) {
                return n->get();
            }
        }
        return nullptr;
    }

    // Pops a free node from the segment the hash selects or, failing that,
    // from the next segment that has one, wrapping around.
    static node* _takeNode(table_data* table, std::uint64_t hash) {
        const std::uint64_t index = table->nextWithFreeNode(hash & (table->segment_count - 1));
        if (index == table->segment_count) {
            return nullptr;
        }
        segment& seg = table->segments[index];
        if (!table->segmentBit(index, linked)) {
            _linkSegment(seg);
            table->setSegmentBit(index, linked, true);
        }
        node* n = seg.free;
        seg.free = n->next;
        if (seg.free == nullptr) {
            table->setSegmentBit(index, has_free, false);
        }
        return n;
    }

    static void _pushChain(bucket& b, node* n) {
        n->next = b.overflow;
        b.overflow = n;
        b.state |= Layout::overflow_bit;
    }

    static table_data* _createTable(std::uint64_t bucketCount) {
        const std::uint64_t segmentCount = segmentCountFor(bucketCount);
        const std::uint64_t usedWords = (bucketCount + 63) / 64;
        const std::uint64_t freeWords = (segmentCount + 63) / 64 * 2;
        const std::uint64_t bytes =
            (64 + bucketCount * sizeof(bucket) + (segmentCount + 1) * sizeof(segment) +
             (usedWords + freeWords) * sizeof(std::uint64_t) + system::pageMask()) &
            ~system::pageMask();
        // Zeroed storage: every bucket starts empty. Untouched buckets of a
        // large table stay untouched pages.
        auto* table = static_cast<table_data*>(memory::aligned::callocate<128>(bytes));
        table->mask = bucketCount - 1;
        table->bucket_count = bucketCount;
        table->segment_count = segmentCount;
        table->bytes = bytes;
        table->buckets = reinterpret_cast<bucket*>(reinterpret_cast<char*>(table) + 64);
        // The pool starts at the first multiple of the segment size behind the
        // buckets; the spare segment in `bytes` pays for the rounding.
        const auto bucketsEnd = reinterpret_cast<std::uintptr_t>(table->buckets + bucketCount);
        const std::uintptr_t poolStart =
            (bucketsEnd + sizeof(segment) - 1) / sizeof(segment) * sizeof(segment);
        table->segments = reinterpret_cast<segment*>(poolStart);
        table->used = reinterpret_cast<std::uint64_t*>(table->segments + segmentCount);
        table->free_segments = table->used + usedWords;
        // Every segment starts with all its nodes free, but its free list is
        // linked only when the node search first takes from it
        // (_linkSegment); until then only its bit says so, and its pages are
        // not touched. A table that chains few entries, such as a search's
        // result, so leaves most of its pool unwritten.
        for (std::uint64_t i = 0; i < segmentCount; ++i) {
            table->setSegmentBit(i, has_free, true);
        }
        return table;
    }

    // The two bits of a segment (table_data::free_segments).
    static constexpr unsigned has_free = 0;
    static constexpr unsigned linked = 1;

    // Links every node of a zeroed segment into its free list. Node 0 ends
    // the list and the last node heads it, as if each had been pushed in
    // turn.
    static void _linkSegment(segment& seg) {
        node* head = nullptr;
        for (node& n : seg.nodes) {
            n.next = head;
            head = &n;
        }
        seg.free = head;
    }

    void _install(table_data* table) {
        _table = table;
        _bytes = table->bytes;
        _capacity = table->bucket_count * slots + table->segment_count * nodes_per_segment;
    }

    // Places a moved entry in a new table: the next free slot of its bucket,
    // else a node at the head of the chain. The version does not move.
    static void _rehashEntry(table_data* table, std::uint64_t hash, entry&& e) {
        bucket& b = _bucketOf(table, hash);
        const unsigned count = table->isUsed(hash & table->mask) ? b.count() : 0;
        if (count < slots) {
            new (b.storage[count]) entry(std::move(e));
            _keepHash(b.kept, count, hash);
            b.state += 1 | (1u << (Layout::flag_shift + count));
            if (count == 0) {
                table->markUsed(hash & table->mask);
            }
            return;
        }
        // The new pool is never smaller than the old one, which held every
        // chained entry, so a node is always there.
        node* n = _takeNode(table, hash);
        new (n->storage) entry(std::move(e));
        _keepHash(n->kept, 0, hash);
        _pushChain(b, n);
    }

    void _grow() {
        table_data* old = _table;
        table_data* table = _createTable(
            std::max<std::uint64_t>(old->bucket_count * Constants::growth_factor, min_buckets));
        for (std::uint64_t i = old->nextUsed(0); i < old->bucket_count; i = old->nextUsed(i + 1)) {
            bucket& b = old->buckets[i];
            for (unsigned s = 0; s < b.count(); ++s) {
                if ((b.state & (1u << (Layout::flag_shift + s))) != 0) {
                    _rehashEntry(table, _hashOf(b.kept, s, *b.slot(s)), std::move(*b.slot(s)));
                }
            }
            for (node* n = b.overflow; n != nullptr; n = n->next) {
                _rehashEntry(table, _hashOf(n->kept, 0, *n->get()), std::move(*n->get()));
            }
        }
        _install(table);
        _freeTable(old);
    }

    void _swap(hash_table& other) noexcept {
        std::swap(_table, other._table);
        std::swap(_bytes, other._bytes);
        std::swap(_capacity, other._capacity);
        std::swap(_size, other._size);
    }

    table_data* _table = nullptr;
    std::uint64_t _bytes = 0;     // the table's block, in whole pages
    std::uint64_t _capacity = 0;  // slots plus nodes; informative only
    std::uint64_t _size = 0;
};

}  // namespace _hash_detail
}  // namespace vlk::base
