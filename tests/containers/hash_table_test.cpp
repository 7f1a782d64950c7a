#include <vlk/containers/hash_map.hpp>
#include <vlk/containers/hash_set.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

// Keys hash to themselves, so a test chooses buckets and segments directly.
struct identity_traits {
    static std::uint64_t hash(unsigned long key) { return key; }
    static bool equal(unsigned long a, unsigned long b) { return a == b; }
};

using map_type =
    vlk::base::hash_map<unsigned long, int, vlk::base::hash_map_constants<4096, 2>,
                        vlk::base::hash_map_traits<unsigned long, int, identity_traits>>;
using set_type = vlk::base::hash_set<unsigned long, vlk::base::hash_set_constants<4096, 2>,
                                     vlk::base::hash_set_traits<unsigned long, identity_traits>>;

// The order rules and the growth trigger hold for the map (three slots,
// segments of ten nodes) and the set (four slots, segments of seven) alike.
template <typename Table>
class HashTable : public testing::Test {
  protected:
    static constexpr unsigned long buckets = 4096, slots = Table::slots;
    static constexpr unsigned long nodes = 32 * Table::nodes_per_segment;  // the first pool

    // Key number `i` of bucket `bucket` in a table of `count` buckets.
    static unsigned long key(unsigned long bucket, unsigned long i, unsigned long count = buckets) {
        return bucket + i * count;
    }
    std::vector<unsigned long> keysInOrder(unsigned long bucketMask = ~0ul) const {
        std::vector<unsigned long> keys;
        for (const auto& e : table) {
            if (bucketMask == ~0ul || (e.key & bucketMask) == 5) {
                keys.push_back(e.key);
            }
        }
        return keys;
    }
    unsigned long bucketCount() const { return table.table()->bucket_count; }

    Table table;
};
using tables = testing::Types<map_type, set_type>;
TYPED_TEST_SUITE(HashTable, tables);

TYPED_TEST(HashTable, BucketsIterateUpwardAndAChainNewestFirst) {
    EXPECT_EQ(this->table.begin(), this->table.end());
    for (unsigned long key : {900ul, 3ul, 4095ul, 0ul}) {
        this->table.emplace(key);
    }
    for (unsigned long i = 1; i <= this->slots + 3; ++i) {  // bucket 5: slots, then a chain
        EXPECT_TRUE(this->table.emplace(this->key(5, i)).second);
    }
    const auto again = this->table.emplace(this->key(5, 2));
    EXPECT_FALSE(again.second);
    EXPECT_EQ(again.first, this->table.findEntry(this->key(5, 2)));
    std::vector<unsigned long> expected{0, 3};
    for (unsigned long i = 1; i <= this->slots; ++i) {
        expected.push_back(this->key(5, i));
    }
    for (unsigned long i = this->slots + 3; i > this->slots; --i) {
        expected.push_back(this->key(5, i));
    }
    expected.insert(expected.end(), {900, 4095});
    EXPECT_EQ(this->keysInOrder(), expected);
}

// Bucket 5 chains three nodes, with keys that stay in bucket 5 once the
// table doubles. Bucket 31 takes its nodes from segment 31, the last; once
// they are used the search wraps to segment 0 and on, and the table grows
// only when the whole pool is used. Growth reverses bucket 5's chain.
TYPED_TEST(HashTable, GrowsOnlyWhenThePoolIsExhaustedAndReversesAChain) {
    const unsigned long slots = this->slots, nodes = this->nodes, grown = 2 * this->buckets;
    std::vector<unsigned long> bucket5;  // the slots, then the chain oldest first
    for (unsigned long i = 1; i <= slots + 3; ++i) {
        bucket5.push_back(this->key(5, i, grown));
        this->table.emplace(bucket5.back());
    }
    for (unsigned long i = 0; i < slots + nodes - 3; ++i) {  // bucket 31: the rest of the pool
        this->table.emplace(this->key(31, i));
    }
    EXPECT_EQ(this->table.stats().used_nodes, nodes);
    for (unsigned long i = 0; i < slots; ++i) {  // bucket 1's own slots need no node
        this->table.emplace(this->key(1, i));
    }
    EXPECT_EQ(this->bucketCount(), this->buckets);
    this->table.emplace(this->key(1, slots));  // the next key that needs a node doubles it
    EXPECT_EQ(this->bucketCount(), grown);
    EXPECT_EQ(this->table.size(), 3 * slots + nodes + 1);
    for (unsigned long i = 0; i < slots + nodes - 3; ++i) {
        EXPECT_NE(this->table.findEntry(this->key(31, i)), nullptr) << i;
    }
    EXPECT_EQ(this->keysInOrder(grown - 1), bucket5);
}

// Under the sanitizers a value destroyed twice or never shows as an error.
TEST(HashMap, KeepsAPresentKeysValueAcrossGrowthAndMove) {
    vlk::base::hash_map<std::string, std::string, vlk::base::hash_map_constants<16, 2>> map;
    for (unsigned long i = 0; i < 2000; ++i) {
        ASSERT_TRUE(
            map.insert("key-" + std::to_string(i), std::string(40, 'a') + std::to_string(i)));
    }
    EXPECT_FALSE(map.insert("key-7", std::string("other")));
    EXPECT_GT(map.table()->bucket_count, 16u);
    auto moved(std::move(map));
    EXPECT_EQ(map.size(), 0u);
    EXPECT_EQ(*moved.find("key-7"), std::string(40, 'a') + "7");
    EXPECT_EQ(moved.find("key-2000"), nullptr);
}

TEST(HashSet, TerminateFreesAndAllowsRefilling) {
    set_type set;
    set.terminate();  // no table yet: nothing to do
    set.insert(1);
    set.insert(2);
    set.terminate();
    EXPECT_EQ(set.size(), 0u);
    EXPECT_FALSE(set.contains(1));
    set.insert(2);
    EXPECT_TRUE(set.contains(2));
}

}  // namespace
