#include <vlk/containers/intrusive_pointer.hpp>
#include <vlk/containers/mpmc_hash_map.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "../concurrency.hpp"

namespace {

using namespace vlk::lockfree;
using constants16 = mpmc_hash_map_constants<16, 2, 8388608, true, false, false, false>;
using constants1024 = mpmc_hash_map_constants<1024, 2, 8388608, true, false, false, false>;

struct word_tag {};
using word_map = mpmc_hash_map<unsigned long, unsigned long, word_tag, constants16>;

constexpr unsigned long kScale = 4 * vlk_test::stress_scale;

// The registry's value type: the toolkit's intrusive pointer, whose copy
// counts the new reference before the old one is dropped.
std::atomic<long> g_liveObjects{0};

struct counted_object {
    explicit counted_object(unsigned long v) : value(v) { ++g_liveObjects; }
    ~counted_object() { --g_liveObjects; }

    std::atomic<std::int32_t> _refCount{0};
    unsigned long value;
};

using counted = vlk::base::intrusive_pointer<counted_object>;

struct string_tag {};
using string_map = mpmc_hash_map<std::string, counted, string_tag, constants1024>;

// 16 buckets and 8 segments of 10 nodes: one bucket holds 3 + 80 entries.
// Keys that are multiples of the stride share bucket 0; with stride 64 they
// still share it at 32 and 64 buckets, so the resize doubles twice more.
// Shrinking returns to 16 buckets only once the entries fit there.
TEST(MpmcHashMap, AFullBucketWithNoFreeNodeGrowsTheTableAndShrinkUndoesIt) {
    struct row {
        unsigned long stride, bucketsAfter84th;
    };
    for (row r : {row{16, 32}, row{64, 128}}) {
        SCOPED_TRACE(r.stride);
        word_map map;
        for (unsigned long i = 0; i < 83; ++i) {
            ASSERT_TRUE(map.insert(i * r.stride, i));
        }
        EXPECT_EQ(map.bucketCount(), 16u);

        ASSERT_TRUE(map.insert(83 * r.stride, 83));
        map.shrink();  // 84 entries: nothing to gain
        EXPECT_EQ(map.bucketCount(), r.bucketsAfter84th);
        EXPECT_EQ(map.size(), 84u);
        unsigned long value = 0;
        for (unsigned long i = 0; i < 84; ++i) {
            EXPECT_TRUE(map.find(i * r.stride, value) && value == i) << i;
        }
        for (unsigned long i = 10; i < 84; ++i) {
            ASSERT_TRUE(map.erase(i * r.stride));
        }
        map.shrink();
        EXPECT_EQ(map.bucketCount(), 16u);
        EXPECT_TRUE(map.find(9 * r.stride, value) && value == 9);
    }
}

// Bucket 0 holds 0, 16 and 32 in its slots and 64 (the head), 48 in its chain.
TEST(MpmcHashMap, InsertKeepsAPresentKeyAndEraseRefillsSlotsFromTheChain) {
    word_map map;
    unsigned long value = 0;
    EXPECT_TRUE(map.insert(5, 50));
    EXPECT_FALSE(map.insert(5, 99));
    for (unsigned long key : {0, 16, 32, 48, 64}) {
        ASSERT_TRUE(map.insert(key, key + 1));
    }
    std::map<unsigned long, unsigned long> seen;  // forEach: slots and chained nodes once each
    map.forEach(
        [&](unsigned long key, unsigned long v) { EXPECT_TRUE(seen.emplace(key, v).second); });
    EXPECT_EQ(seen, (std::map<unsigned long, unsigned long>{
                        {0, 1}, {5, 50}, {16, 17}, {32, 33}, {48, 49}, {64, 65}}));
    ASSERT_TRUE(map.find(5, value));  // the misses below leave `value` alone
    const unsigned long freeBefore = map.freeNodeCount();
    // Erasing 0 moves the chain head into its slot; then the last chained
    // entry goes, and without a chain the last slot fills each hole.
    const std::pair<unsigned long, unsigned long> steps[] = {{80, 0}, {0, 1}, {48, 2}, {64, 2}};
    for (const auto& [key, freed] : steps) {
        EXPECT_EQ(map.erase(key), key != 80) << key;  // 80: absent from slots and chain
        EXPECT_FALSE(map.find(key, value)) << key;
        EXPECT_EQ(map.freeNodeCount(), freeBefore + freed) << key;
    }
    EXPECT_EQ(value, 50u);
    EXPECT_TRUE(map.find(32, value));
    EXPECT_EQ(map.size(), 3u);  // 5, 16 and 32
}

// Tables are replaced thousands of times, by growth and by clear, under
// readers: no reader may touch a table after it is freed (which the
// sanitizers would report), and a value found is always the one stored.
TEST(MpmcHashMap, ClearedAndGrownTablesOutliveTheirReaders) {
    word_map map;
    std::atomic<bool> running{true};
    vlk_test::onThreads(3, [&](unsigned t) {
        if (t == 0) {
            for (unsigned long round = 0; round < 20 * kScale; ++round) {
                for (unsigned long key = 0; key < 300; ++key) {
                    map.insert(key, key);  // grows 16 -> 128 buckets
                }
                map.clear();
            }
            running.store(false);
            return;
        }
        unsigned long value = 0;
        for (unsigned long key = 0; running.load(std::memory_order_relaxed);
             key = (key + 1) % 300) {
            if (map.find(key, value)) {
                ASSERT_EQ(value, key);
            }
        }
    });
    EXPECT_EQ(map.bucketCount(), 16u);
    EXPECT_EQ(map.size(), 0u);
}

// --- Stress: concurrent writers and readers through many growths ---------

unsigned long scramble(unsigned long x) {  // a bijection, so keys stay distinct
    x += 0x9e3779b97f4a7c15ul;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ul;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebul;
    return x ^ (x >> 31);
}

// Key and value of entry `id`; every value names its id.
struct word_entries {
    using map = word_map;
    static constexpr bool erases = true;
    static unsigned long key(unsigned long id) { return scramble(id); }
    static unsigned long value(unsigned long id) { return id; }
    static unsigned long idOf(unsigned long value) { return value; }
};
struct string_entries {  // the registry's kind of map, which has no erase
    using map = string_map;
    static constexpr bool erases = false;
    static std::string key(unsigned long id) { return "pattern-" + std::to_string(id); }
    static counted value(unsigned long id) { return counted(new counted_object(id)); }
    static unsigned long idOf(const counted& value) { return value->value; }
};

struct stress_size {
    unsigned long stableKeys, ownKeys, operations, minBuckets;
};

// Each thread owns a key range and keeps a model of it: since no one else
// changes its keys, every insert, erase and find of its own keys must agree
// with the model. Stable keys are present throughout, so no find of them may
// miss. Keys of other threads, when found, must carry their own value. At
// the end the map holds exactly what the models say. The finds, three in
// five operations, keep readers inside the old table whenever one is
// replaced.
template <typename Entries>
void stress(const stress_size& size) {
    constexpr unsigned kThreads = 4;
    typename Entries::map map;
    for (unsigned long id = 0; id < size.stableKeys; ++id) {
        map.insert(Entries::key(id), Entries::value(id));
    }
    auto ownId = [](unsigned t, unsigned long i) { return (t + 1ul) << 32 | i; };
    std::vector<std::vector<char>> models(kThreads, std::vector<char>(size.ownKeys, 0));
    vlk_test::onThreads(kThreads, [&](unsigned t) {
        decltype(Entries::value(0)) out{};
        std::mt19937_64 random(t);
        std::vector<char>& model = models[t];
        for (unsigned long n = 0; n < size.operations; ++n) {
            const unsigned long i = random() % size.ownKeys, id = ownId(t, i);
            switch (random() % 5) {
                case 0:
                    ASSERT_EQ(map.insert(Entries::key(id), Entries::value(id)), !model[i]);
                    model[i] = 1;
                    break;
                case 1:
                    if constexpr (Entries::erases) {
                        ASSERT_EQ(map.erase(Entries::key(id)), model[i] == 1);
                        model[i] = 0;
                        break;
                    }
                    [[fallthrough]];
                case 2:
                    ASSERT_EQ(map.find(Entries::key(id), out), model[i] == 1);
                    ASSERT_TRUE(!model[i] || Entries::idOf(out) == id);
                    break;
                case 3: {
                    const unsigned long stable = random() % size.stableKeys;
                    ASSERT_TRUE(map.find(Entries::key(stable), out)) << "missed a stable key";
                    ASSERT_EQ(Entries::idOf(out), stable);
                    break;
                }
                default: {
                    const unsigned long other = ownId(random() % kThreads, i);
                    if (map.find(Entries::key(other), out)) {
                        ASSERT_EQ(Entries::idOf(out), other);
                    }
                }
            }
        }
    });
    unsigned long expected = size.stableKeys;
    decltype(Entries::value(0)) out{};
    for (unsigned t = 0; t < kThreads; ++t) {
        for (unsigned long i = 0; i < size.ownKeys; ++i) {
            ASSERT_EQ(map.find(Entries::key(ownId(t, i)), out), models[t][i] == 1);
            expected += models[t][i];
        }
    }
    EXPECT_EQ(map.size(), expected);
    EXPECT_GE(map.bucketCount(), size.minBuckets) << "too few growths to exercise the resize";
    map.clear();  // releases the map's copies before the destructor could
}

TEST(MpmcHashMap, StressWordMapAgreesWithASequentialModel) {
    stress<word_entries>({500 * kScale, 1000 * kScale, 20000 * kScale, 16u << 5});
}

TEST(MpmcHashMap, StressStringMapAgreesWithASequentialModel) {
    const long liveBefore = g_liveObjects.load();
    stress<string_entries>({300 * kScale, 1500 * kScale, 6000 * kScale, 1024u << 1});
    EXPECT_EQ(g_liveObjects.load(), liveBefore);  // every reference released exactly once
}

}  // namespace
