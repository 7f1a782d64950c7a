// Single-threaded hash set with one-cache-line buckets of four inline keys
// and an overflow pool in the same block (see hash_table.hpp for placement,
// growth and iteration order).
//
// Each slot keeps the key's 64-bit hash and compares hashes before keys. A
// bucket holds its state, its chain head, its four hashes and then its four
// keys, so that with keys of 4 bytes (the catalogue's identifiers) it fills
// exactly one 64-byte line. `terminate` frees the table; the set may be filled again after it.
#pragma once

#include <vlk/containers/hash_table.hpp>

namespace vlk::base {
namespace _hash_detail {

template <typename Traits>
struct set_layout {
    using key_type = typename Traits::key_type;
    using key_traits = typename Traits::key_traits;

    struct entry {
        key_type key;
    };

    static constexpr unsigned slots = 4;
    static constexpr unsigned nodes_per_segment = 7;
    // Each slot's hash sits in the bucket's hash array, ahead of the keys.
    static constexpr bool keeps_hash = true;
    // state: bits 0-5 count, 6-9 slot flags, 12 overflow, 13-31 version.
    static constexpr std::uint32_t count_mask = 0x3F;
    static constexpr unsigned flag_shift = 6;
    static constexpr std::uint32_t overflow_bit = 1u << 12;
    static constexpr std::uint32_t version_one = 1u << 13;

    static std::uint64_t hashKey(const key_type& key) { return key_traits::hash(key); }
    static entry* construct(void* where, const key_type& key) { return new (where) entry{key}; }
};

}  // namespace _hash_detail

template <typename Key, typename Constants = hash_set_constants<4096, 2>,
          typename Traits = hash_set_traits<Key>>
class hash_set : public _hash_detail::hash_table<_hash_detail::set_layout<Traits>, Constants> {
  public:
    using key_type = Key;

    // Adds `key` unless it is present; true when it was added.
    bool insert(const Key& key) { return this->emplace(key).second; }

    // The stored key equal to `key`, or null.
    const Key* find(const Key& key) const {
        if (this->empty()) {
            return nullptr;
        }
        auto* e = this->findEntry(key);
        return e != nullptr ? &e->key : nullptr;
    }

    bool contains(const Key& key) const { return find(key) != nullptr; }

    // Frees the table; the set is empty and may be filled again.
    void terminate() { this->_reset(); }
};

}  // namespace vlk::base
