#include <vlk/containers/mpmc_queue.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vlk/system/mmap.hpp>

#include "../concurrency.hpp"

namespace {

using vlk::mmap_stats;
using vlk::lockfree::mpmc_queue;
using vlk::lockfree::mpmc_queue_traits;

// Four slots per block: a lane changes blocks every 32 tickets.
using small_block_queue = mpmc_queue<mpmc_queue_traits<std::string, 4, 8, true, true>>;

// Mappings and unmappings since the counter was made.
struct mapping_counter {
    std::uint64_t mapped = mmap_stats::mappedCount(), unmapped = mmap_stats::unmappedCount();
    std::pair<std::uint64_t, std::uint64_t> delta() const {
        return {mmap_stats::mappedCount() - mapped, mmap_stats::unmappedCount() - unmapped};
    }
};

// Record `n`, on the heap: one left behind in the queue leaks.
std::string record(std::uint64_t n) {
    return std::string(32, '.') + std::to_string(n);
}

void putRange(small_block_queue& queue, std::uint64_t from, std::uint64_t to) {
    for (std::uint64_t n = from; n < to; ++n) {
        queue.put(record(n));
    }
}

// Takes `count` records and checks they come in ticket order from `from`.
void expectRange(small_block_queue& queue, std::uint64_t from, std::uint64_t count) {
    std::string value;
    for (std::uint64_t i = 0; i < count; ++i) {
        ASSERT_TRUE(queue.get(value));
        ASSERT_EQ(value, record(from + i));
    }
}

TEST(MpmcQueue, EmptiedBlocksGoToTheTwoSparesAndBeyondThemAreUnmapped) {
    // Every step acts on all 8 lanes alike: 32 tickets are one block each.
    mapping_counter counter;
    small_block_queue queue;
    const struct {
        const char* what;
        void (*step)(small_block_queue&);
        std::pair<std::uint64_t, std::uint64_t> total;
    } steps[] = {
        {"first blocks mapped", [](auto& q) { putRange(q, 0, 32); }, {8, 0}},
        {"emptied blocks kept as spares", [](auto& q) { expectRange(q, 0, 32); }, {8, 0}},
        {"spares reused", [](auto& q) { putRange(q, 32, 64); }, {8, 0}},
        {"no spare: new blocks", [](auto& q) { putRange(q, 64, 96); }, {16, 0}},
        {"spares refilled", [](auto& q) { expectRange(q, 32, 32); }, {16, 0}},
        {"second spare kept", [](auto& q) { expectRange(q, 64, 32); }, {16, 0}},
        {"both spares reused", [](auto& q) { putRange(q, 96, 160); }, {16, 0}},
        {"spares gone: new blocks", [](auto& q) { putRange(q, 160, 192); }, {24, 0}},
        {"third emptied: unmapped", [](auto& q) { expectRange(q, 96, 96); }, {24, 8}},
        {"a spare reused", [](auto& q) { putRange(q, 192, 200); }, {24, 8}},
        {"clear drops the records, unmaps all", [](auto& q) { q.clear(); }, {24, 24}},
        {"cleared: from ticket 0 again",
         [](auto& q) {
             putRange(q, 0, 8);
             expectRange(q, 0, 8);
         },
         {32, 24}},
    };
    for (const auto& s : steps) {
        s.step(queue);
        EXPECT_EQ(counter.delta(), s.total) << s.what;
    }
    std::string value;
    EXPECT_FALSE(queue.get(value));
}

// --- Stress: more threads than the machine has cores, on purpose, so that
// a thread is preempted in the middle of its ticket. Checked against the
// sequential model: every record arrives exactly once, intact, and each
// consumer sees each producer's records in the order they were put.

#if defined(__SANITIZE_ADDRESS__)
constexpr std::uint64_t stress_records_per_producer = 250'000;
#else
constexpr std::uint64_t stress_records_per_producer = 100'000 * vlk_test::stress_scale;
#endif

// The size of the logger's record; the check word shows a torn move.
struct stress_record {
    std::uint64_t producer = 0;
    std::uint64_t sequence = 0;
    std::uint64_t payload[4] = {};
    std::uint64_t check = 0;
};

// Four producers, two consumers; returns the count of faults seen.
template <unsigned long EntriesPerBlock>
std::uint64_t stressFaults(std::uint64_t perProducer) {
    using queue_type = mpmc_queue<mpmc_queue_traits<stress_record, EntriesPerBlock, 8, true, true>>;
    constexpr unsigned producers = 4, consumers = 2;
    auto queue = std::make_unique<queue_type>();
    const std::uint64_t total = producers * perProducer;
    std::vector<std::atomic<std::uint8_t>> arrivals(total);
    std::atomic<std::uint64_t> taken{0}, faults{0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(200);
    vlk_test::onThreads(producers + consumers, [&](unsigned p) {
        if (p < producers) {
            for (std::uint64_t s = 0; s < perProducer; ++s) {
                queue->put({p, s, {}, p * perProducer + s});
            }
        } else {
            std::vector<std::uint64_t> next(producers, 0);  // lowest sequence still allowed
            stress_record r;
            while (taken.load() < total && std::chrono::steady_clock::now() < deadline) {
                if (!queue->get(r)) {
                    std::this_thread::yield();
                    continue;
                }
                taken.fetch_add(1);
                const std::uint64_t id = r.producer * perProducer + r.sequence;
                if (r.producer >= producers || r.sequence >= perProducer || r.check != id ||
                    r.sequence < next[r.producer] || arrivals[id].fetch_add(1) != 0) {
                    faults.fetch_add(1);
                    continue;
                }
                next[r.producer] = r.sequence + 1;
            }
        }
    });
    return faults.load() + (total - taken.load());
}

// Blocks of 1024 slots, and of four, with which every lane hands a block over
// every 32 tickets, so the block lock, the spare and the unmapping run all
// the time.
TEST(MpmcQueueStress, ProducersAndConsumersDeliverEveryRecordOnceInOrderWithoutLeaks) {
    mapping_counter counter;
    EXPECT_EQ(stressFaults<1024>(stress_records_per_producer), 0u) << "1024-slot blocks";
    EXPECT_EQ(stressFaults<4>(stress_records_per_producer / 4), 0u) << "4-slot blocks";
    EXPECT_EQ(counter.delta().first, counter.delta().second);
}

}  // namespace
