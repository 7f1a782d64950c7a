// vlk::lockfree::mpmc_queue against moodycamel::ConcurrentQueue and
// xenium::ramalhete_queue (epoch-based reclamation, 1024 entries per node).
//
// Throughput/<queue>/P/C: P producers put 2^20 values in all while C
// consumers take them; items per second over the whole hand-over, thread
// start included (a few threads against a million items). Consumers that
// find the queue empty yield, the same for every queue, since the machine
// may have fewer cores than threads.
// Burst/<queue>: one thread puts 10 million values, then takes them all; the
// counters give nanoseconds per put and per get.
//
// Values are 8 bytes for vlk and moodycamel; xenium's queue holds only
// pointers or values smaller than one, so it carries 32-bit values, which
// still take one 8-byte entry each.
#include <vlk/containers/mpmc_queue.hpp>

#include <benchmark/benchmark.h>
#include <concurrentqueue.h>
#include <xenium/ramalhete_queue.hpp>
#include <xenium/reclamation/generic_epoch_based.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

namespace {

struct vlk_queue {
    vlk::lockfree::mpmc_queue<vlk::lockfree::mpmc_queue_traits<std::uint64_t, 1024, 8, true, true>>
        queue;
    void put(std::uint64_t value) { queue.put(std::move(value)); }
    bool get(std::uint64_t& value) { return queue.get(value); }
};

struct moodycamel_queue {
    moodycamel::ConcurrentQueue<std::uint64_t> queue;
    void put(std::uint64_t value) { queue.enqueue(value); }
    bool get(std::uint64_t& value) { return queue.try_dequeue(value); }
};

struct xenium_queue {
    xenium::ramalhete_queue<std::uint32_t,
                            xenium::policy::reclaimer<xenium::reclamation::new_epoch_based<>>,
                            xenium::policy::entries_per_node<1024>>
        queue;
    // Zero is the queue's empty mark, so values travel plus one.
    void put(std::uint64_t value) { queue.push(static_cast<std::uint32_t>(value + 1)); }
    bool get(std::uint64_t& value) {
        std::uint32_t raw = 0;
        if (!queue.try_pop(raw)) {
            return false;
        }
        value = raw - 1;
        return true;
    }
};

constexpr std::uint64_t k_throughputItems = 1 << 20;
constexpr std::uint64_t k_burstItems = 10'000'000;

template <class Queue>
void throughput(benchmark::State& state) {
    const auto producers = static_cast<unsigned>(state.range(0));
    const auto consumers = static_cast<unsigned>(state.range(1));
    const std::uint64_t perProducer = k_throughputItems / producers;
    const std::uint64_t total = perProducer * producers;
    auto queue = std::make_unique<Queue>();
    std::uint64_t checksum = 0;
    for (auto _ : state) {
        std::atomic<std::uint64_t> taken{0};
        std::atomic<std::uint64_t> sum{0};
        std::latch start(producers + consumers);
        std::vector<std::thread> threads;
        for (unsigned p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                start.arrive_and_wait();
                for (std::uint64_t i = 0; i < perProducer; ++i) {
                    queue->put(p * perProducer + i);
                }
            });
        }
        for (unsigned c = 0; c < consumers; ++c) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                std::uint64_t value = 0, local = 0;
                while (taken.load(std::memory_order_relaxed) < total) {
                    if (queue->get(value)) {
                        local += value;
                        taken.fetch_add(1, std::memory_order_relaxed);
                    } else {
                        std::this_thread::yield();
                    }
                }
                sum.fetch_add(local);
            });
        }
        for (std::thread& t : threads) {
            t.join();
        }
        checksum += sum.load();
    }
    benchmark::DoNotOptimize(checksum);
    if (checksum != state.iterations() * (total * (total - 1) / 2)) {
        state.SkipWithError("values lost or duplicated");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * total));
}

template <class Queue>
void burst(benchmark::State& state) {
    using clock = std::chrono::steady_clock;
    auto queue = std::make_unique<Queue>();
    double putSeconds = 0, getSeconds = 0;
    for (auto _ : state) {
        const auto started = clock::now();
        for (std::uint64_t i = 0; i < k_burstItems; ++i) {
            queue->put(i);
        }
        const auto filled = clock::now();
        std::uint64_t value = 0, taken = 0;
        while (queue->get(value)) {
            ++taken;
        }
        putSeconds += std::chrono::duration<double>(filled - started).count();
        getSeconds += std::chrono::duration<double>(clock::now() - filled).count();
        if (taken != k_burstItems) {
            state.SkipWithError("values lost or duplicated");
            break;
        }
    }
    const double items = double(state.iterations()) * double(k_burstItems);
    state.counters["put_ns"] = putSeconds * 1e9 / items;
    state.counters["get_ns"] = getSeconds * 1e9 / items;
    state.SetItemsProcessed(static_cast<std::int64_t>(items));
}

void throughputArguments(benchmark::internal::Benchmark* b) {
    b->ArgNames({"producers", "consumers"})->Args({1, 1})->Args({2, 2});
    b->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
}

BENCHMARK(throughput<vlk_queue>)->Name("Throughput/vlk")->Apply(throughputArguments);
BENCHMARK(throughput<moodycamel_queue>)->Name("Throughput/moodycamel")->Apply(throughputArguments);
BENCHMARK(throughput<xenium_queue>)->Name("Throughput/xenium")->Apply(throughputArguments);

BENCHMARK(burst<vlk_queue>)->Name("Burst/vlk")->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(burst<moodycamel_queue>)
    ->Name("Burst/moodycamel")
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(burst<xenium_queue>)->Name("Burst/xenium")->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
