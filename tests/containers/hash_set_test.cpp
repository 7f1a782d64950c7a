#include <vlk/containers/hash_set.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

struct identity_traits {
    static std::uint64_t hash(unsigned long key) { return key; }
    static bool equal(unsigned long a, unsigned long b) { return a == b; }
};

using set_type = vlk::base::hash_set<unsigned long, vlk::base::hash_set_constants<4096, 2>,
                                     vlk::base::hash_set_traits<unsigned long, identity_traits>>;

std::vector<unsigned long> keysInOrder(const set_type& set) {
    std::vector<unsigned long> keys;
    for (const auto& e : set) {
        keys.push_back(e.key);
    }
    return keys;
}

TEST(HashSet, FourSlotsThenNewestFirst) {
    set_type set;
    for (unsigned long i = 1; i <= 6; ++i) {
        EXPECT_TRUE(set.insert(9 + i * 4096));
    }
    EXPECT_FALSE(set.insert(9 + 3 * 4096));
    std::vector<unsigned long> expected;
    for (unsigned long i : {1, 2, 3, 4, 6, 5}) {
        expected.push_back(9 + i * 4096);
    }
    EXPECT_EQ(keysInOrder(set), expected);
    EXPECT_EQ(set.capacity(), 16608u);
}

TEST(HashSet, PoolOfSevenNodeSegmentsGrowsWhenExhausted) {
    set_type set;
    constexpr unsigned long nodes = 32 * 7;
    for (unsigned long i = 0; i < 4 + nodes; ++i) {
        set.insert(i * 4096);
    }
    EXPECT_EQ(set.table()->bucket_count, 4096u);
    set.insert((4 + nodes) * 4096);
    EXPECT_EQ(set.table()->bucket_count, 8192u);
    for (unsigned long i = 0; i <= 4 + nodes; ++i) {
        EXPECT_TRUE(set.contains(i * 4096)) << i;
    }
    EXPECT_FALSE(set.contains(1));
}

TEST(HashSet, TerminateFreesAndAllowsRefilling) {
    set_type set;
    set.terminate();  // no table yet: nothing to do
    EXPECT_EQ(set.table(), nullptr);
    set.insert(1);
    set.insert(2);
    set.terminate();
    EXPECT_EQ(set.table(), nullptr);
    EXPECT_EQ(set.size(), 0u);
    EXPECT_FALSE(set.contains(1));
    set.insert(2);
    EXPECT_TRUE(set.contains(2));
    EXPECT_EQ(keysInOrder(set), std::vector<unsigned long>{2});
}

}  // namespace
