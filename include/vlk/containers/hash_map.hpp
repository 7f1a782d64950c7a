// Single-threaded hash map with cache-line buckets of three inline entries
// and an overflow pool in the same block (see hash_table.hpp for placement,
// growth and iteration order).
//
// `insert` never replaces: a present key keeps its stored key and value.
// Keys and values are owned and destroyed with the table. The hash of an
// entry is worked out again from its key whenever it is needed.
#pragma once

#include <vlk/containers/hash_table.hpp>

namespace vlk::base {
namespace _hash_detail {

template <typename Traits>
struct map_layout {
    using key_type = typename Traits::key_type;
    using mapped_type = typename Traits::mapped_type;
    using key_traits = typename Traits::key_traits;

    struct entry {
        key_type key;
        mapped_type value;
    };

    static constexpr unsigned slots = 3;
    static constexpr unsigned nodes_per_segment = 10;
    // No hash is kept: it is worked out again from the key.
    static constexpr bool keeps_hash = false;
    // state: bits 0-2 count, 3-5 slot flags, 7 overflow, 8-31 version.
    static constexpr std::uint32_t count_mask = 0x7;
    static constexpr unsigned flag_shift = 3;
    static constexpr std::uint32_t overflow_bit = 1u << 7;
    static constexpr std::uint32_t version_one = 1u << 8;

    static std::uint64_t hashKey(const key_type& key) { return key_traits::hash(key); }
    template <typename... Args>
    static entry* construct(void* where, const key_type& key, Args&&... args) {
        return new (where) entry{key, mapped_type(std::forward<Args>(args)...)};
    }
};

}  // namespace _hash_detail

template <typename Key, typename Value, typename Constants = hash_map_constants<4096, 2>,
          typename Traits = hash_map_traits<Key, Value>>
class hash_map : public _hash_detail::hash_table<_hash_detail::map_layout<Traits>, Constants> {
  public:
    using key_type = Key;
    using mapped_type = Value;

    // Adds (key, value) unless the key is present; true when it was added.
    template <typename V>
    bool insert(const Key& key, V&& value) {
        return this->emplace(key, std::forward<V>(value)).second;
    }

    // The value under `key`, or null.
    Value* find(const Key& key) const {
        auto* e = this->findEntry(key);
        return e != nullptr ? &e->value : nullptr;
    }
};

}  // namespace vlk::base
