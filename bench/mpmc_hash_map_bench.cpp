// Throughput of concurrent lookups: vlk's mpmc_hash_map against TBB's
// concurrent_hash_map and libcuckoo, on two threads, with 1 thousand and
// 1 million unsigned long keys, at 100% and at 90% finds (the rest split
// between inserts and erases of the same keys). items_per_second is the
// total over both threads, in wall-clock time.
//
// "vlk" uses the default asymmetric reader fence (a compiler barrier in the
// read section, membarrier on the writer side); "vlk_fenced" puts a full
// fence in every read section. Their difference is the reader's price of
// the full fence.
#include <vlk/containers/mpmc_hash_map.hpp>

#include <benchmark/benchmark.h>
#include <tbb/concurrent_hash_map.h>
#include <libcuckoo/cuckoohash_map.hh>

#include <memory>
#include <vector>

namespace {

using constants = vlk::lockfree::mpmc_hash_map_constants<16, 2, 8388608, true, false, false, false>;

template <typename ParallelTraits>
class vlk_adapter {
  public:
    bool find(unsigned long key, unsigned long& value) { return _map.find(key, value); }
    void insert(unsigned long key, unsigned long value) { _map.insert(key, value); }
    void erase(unsigned long key) { _map.erase(key); }

  private:
    struct unique {};
    vlk::lockfree::mpmc_hash_map<
        unsigned long, unsigned long, unique, constants,
        vlk::lockfree::mpmc_hash_map_traits<unsigned long, unsigned long,
                                            vlk::lockfree::mpmc_hash_map_key_traits<unsigned long>,
                                            vlk::lockfree::mpmc_hash_map_allocator, ParallelTraits>>
        _map;
};

class tbb_adapter {
  public:
    bool find(unsigned long key, unsigned long& value) {
        map_type::const_accessor entry;
        if (!_map.find(entry, key)) {
            return false;
        }
        value = entry->second;
        return true;
    }
    void insert(unsigned long key, unsigned long value) { _map.insert({key, value}); }
    void erase(unsigned long key) { _map.erase(key); }

  private:
    using map_type = tbb::concurrent_hash_map<unsigned long, unsigned long>;
    map_type _map;
};

class cuckoo_adapter {
  public:
    bool find(unsigned long key, unsigned long& value) { return _map.find(key, value); }
    void insert(unsigned long key, unsigned long value) { _map.insert(key, value); }
    void erase(unsigned long key) { _map.erase(key); }

  private:
    libcuckoo::cuckoohash_map<unsigned long, unsigned long> _map;
};

unsigned long mix(unsigned long x) {
    x += 0x9e3779b97f4a7c15ul;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ul;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebul;
    return x ^ (x >> 31);
}

// One map per benchmark, filled with all keys before the threads start.
template <typename Map>
struct fixture {
    static inline std::unique_ptr<Map> map;
    static inline std::vector<unsigned long> keys;

    static void setUp(const benchmark::State& state) {
        map = std::make_unique<Map>();
        keys.resize(static_cast<std::size_t>(state.range(0)));
        for (std::size_t i = 0; i < keys.size(); ++i) {
            keys[i] = mix(i);
            map->insert(keys[i], i);
        }
    }
    static void tearDown(const benchmark::State&) {
        map.reset();
        keys = {};
    }
};

template <typename Map>
void BM_Find(benchmark::State& state) {
    Map& map = *fixture<Map>::map;
    const std::vector<unsigned long>& keys = fixture<Map>::keys;
    const unsigned long findPercent = static_cast<unsigned long>(state.range(1));
    unsigned long random = mix(static_cast<unsigned long>(state.thread_index()) + 1);
    unsigned long value = 0, hits = 0;
    for (auto _ : state) {
        random = random * 6364136223846793005ul + 1442695040888963407ul;
        // Multiply-shift maps the high bits onto the key count without a division.
        const unsigned long key = keys[((random >> 32) * keys.size()) >> 32];
        const unsigned long choice = (random >> 40) % 100;
        if (choice < findPercent) {
            hits += map.find(key, value);
        } else if (choice % 2 == 0) {
            map.insert(key, value);
        } else {
            map.erase(key);
        }
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

template <typename Map>
void registerFind(const char* name) {
    benchmark::RegisterBenchmark(name, BM_Find<Map>)
        ->ArgNames({"keys", "find%"})
        ->ArgsProduct({{1000, 1000000}, {100, 90}})
        ->Threads(2)
        ->UseRealTime()
        ->Setup(fixture<Map>::setUp)
        ->Teardown(fixture<Map>::tearDown);
}

const bool registered = [] {
    registerFind<vlk_adapter<vlk::lockfree::mpmc_hash_map_parallel_traits>>("vlk");
    registerFind<vlk_adapter<vlk::lockfree::mpmc_hash_map_fenced_parallel_traits>>("vlk_fenced");
    registerFind<tbb_adapter>("tbb");
    registerFind<cuckoo_adapter>("libcuckoo");
    return true;
}();

}  // namespace
