#include <vlk/containers/hash_map.hpp>

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

constexpr unsigned long first_buckets = 4096;
constexpr unsigned long first_nodes = 32 * 10;

std::vector<unsigned long> keysInOrder(const map_type& map) {
    std::vector<unsigned long> keys;
    for (const auto& e : map) {
        keys.push_back(e.key);
    }
    return keys;
}

// Key number `i` of bucket `bucket` in a table of `buckets` buckets.
unsigned long keyIn(unsigned long bucket, unsigned long i, unsigned long buckets) {
    return bucket + i * buckets;
}

TEST(HashMap, FirstInsertMakesTheWholeTableAndAPresentKeyKeepsItsValue) {
    map_type map;
    EXPECT_EQ(map.table(), nullptr);
    EXPECT_EQ(map.find(7), nullptr);
    EXPECT_EQ(map.begin(), map.end());
    EXPECT_TRUE(map.insert(5, 1));
    EXPECT_FALSE(map.insert(5, 2));
    ASSERT_NE(map.table(), nullptr);
    EXPECT_EQ(map.table()->bucket_count, first_buckets);
    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(*map.find(5), 1);

    map_type moved(std::move(map));
    EXPECT_EQ(map.size(), 0u);
    EXPECT_EQ(map.table(), nullptr);
    EXPECT_EQ(*moved.find(5), 1);
}

TEST(HashMap, BucketsIterateUpwardAndAChainNewestFirst) {
    map_type map;
    for (unsigned long key : {900ul, 3ul, 4095ul, 0ul}) {
        map.insert(key, 0);
    }
    for (unsigned long i = 1; i <= 6; ++i) {  // bucket 5: three slots, then a chain
        map.insert(keyIn(5, i, first_buckets), static_cast<int>(i));
    }
    std::vector<unsigned long> expected{0, 3};
    for (unsigned long i : {1, 2, 3, 6, 5, 4}) {
        expected.push_back(keyIn(5, i, first_buckets));
    }
    expected.insert(expected.end(), {900, 4095});
    EXPECT_EQ(keysInOrder(map), expected);
}

TEST(HashMap, GrowsOnlyWhenThePoolIsExhausted) {
    map_type map;
    // One bucket's three slots and every node of the pool.
    for (unsigned long i = 0; i < 3 + first_nodes; ++i) {
        map.insert(keyIn(0, i, first_buckets), 0);
    }
    EXPECT_EQ(map.table()->bucket_count, first_buckets);
    EXPECT_EQ(map.stats().used_nodes, first_nodes);

    // A key whose own bucket has a free slot needs no node: no growth.
    map.insert(1, 0);
    EXPECT_EQ(map.table()->bucket_count, first_buckets);

    // The next key that needs a node doubles the table.
    for (unsigned long i = 1; i <= 2; ++i) {
        map.insert(keyIn(1, i, first_buckets), 0);
    }
    EXPECT_EQ(map.table()->bucket_count, first_buckets);
    map.insert(keyIn(1, 3, first_buckets), 0);
    EXPECT_EQ(map.table()->bucket_count, 2 * first_buckets);
    EXPECT_EQ(map.size(), 3 + first_nodes + 4);
    for (unsigned long i = 0; i < 3 + first_nodes; ++i) {
        EXPECT_NE(map.find(keyIn(0, i, first_buckets)), nullptr) << i;
    }
}

TEST(HashMap, GrowthReversesAChainThatStaysTogether) {
    map_type map;
    // Six keys that share bucket 5 in the first and in the grown table.
    for (unsigned long i = 1; i <= 6; ++i) {
        map.insert(keyIn(5, i, 2 * first_buckets), static_cast<int>(i));
    }
    // Use up the rest of the pool in another bucket, then need one node more.
    for (unsigned long i = 0; i < 3 + first_nodes - 3 + 1; ++i) {
        map.insert(keyIn(7, i, 2 * first_buckets), 0);
    }
    ASSERT_EQ(map.table()->bucket_count, 2 * first_buckets);

    std::vector<std::pair<unsigned long, int>> bucket5, expected;
    for (const auto& e : map) {
        if (e.key % (2 * first_buckets) == 5) {
            bucket5.emplace_back(e.key, e.value);
        }
    }
    for (int i = 1; i <= 6; ++i) {
        expected.emplace_back(keyIn(5, i, 2 * first_buckets), i);
    }
    EXPECT_EQ(bucket5, expected);
}

// Bucket 31 takes its nodes from segment 31, the last; once its ten are
// used the search wraps to segment 0 instead of growing the table.
TEST(HashMap, NodeSearchWrapsToTheFirstSegment) {
    map_type map;
    for (unsigned long i = 0; i < 3 + 10 + 1; ++i) {
        map.insert(keyIn(31, i, first_buckets), static_cast<int>(i));
    }
    EXPECT_EQ(map.table()->bucket_count, first_buckets);
    EXPECT_EQ(map.table()->segments[31].free, nullptr);
    EXPECT_EQ(*map.find(keyIn(31, 13, first_buckets)), 13);
}

// Counts live instances, to check that a table destroys what it holds once.
struct counted {
    static inline int live = 0;
    std::string text;
    explicit counted(std::string t) : text(std::move(t)) { ++live; }
    counted(const counted& other) : text(other.text) { ++live; }
    counted(counted&& other) noexcept : text(std::move(other.text)) { ++live; }
    ~counted() { --live; }
};

TEST(HashMap, DestroysEveryValueOnceAcrossGrowth) {
    counted::live = 0;
    {
        vlk::base::hash_map<unsigned long, counted, vlk::base::hash_map_constants<16, 2>,
                            vlk::base::hash_map_traits<unsigned long, counted, identity_traits>>
            map;
        for (unsigned long i = 0; i < 2000; ++i) {
            map.insert(i * 3, counted(std::string(40, 'a') + std::to_string(i)));
        }
        EXPECT_GT(map.table()->bucket_count, 16u);
        EXPECT_EQ(counted::live, 2000);
        EXPECT_EQ(map.find(300)->text, std::string(40, 'a') + "100");
    }
    EXPECT_EQ(counted::live, 0);
}

TEST(HashMap, WorksWithStringKeysAndTheDefaultHash) {
    vlk::base::hash_map<std::string, unsigned long> map;
    for (unsigned long i = 0; i < 20000; ++i) {
        ASSERT_TRUE(map.insert("key-" + std::to_string(i), i));
    }
    for (unsigned long i = 0; i < 20000; i += 7) {
        ASSERT_EQ(*map.find("key-" + std::to_string(i)), i);
    }
    EXPECT_EQ(map.find("key-20000"), nullptr);
}

}  // namespace
