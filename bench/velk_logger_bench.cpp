// The logger against spdlog's asynchronous logger (thread pool, blocking
// overflow policy), in the same run, on two measures.
//
// call_latency: what one log call costs its caller. Each producer thread
// logs in rounds of 1000 calls, each call timed alone with the time stamp
// counter; between rounds both sides are drained, so the logging thread
// keeps up and each round starts from an empty queue. The counters are the
// 50th, 99th and 99.9th percentiles over all calls of all producers, in
// nanoseconds; timer_ns is the clock's own cost, which every sample
// includes; faults_per_1k_calls counts the page faults of the whole process
// during the kept rounds, a usual cause of the slowest calls. Two shapes: a
// row with an int, an int and a string, and a row with one string of 50
// characters. The goal is a fifth of spdlog's p50 and p99.9.
//
// throughput: 4 million records from one thread, until both sides have
// written and flushed them all. The goal is at least spdlog's rate.
//
// Each side writes its lines to a file in a scratch directory; after each
// benchmark the files must hold exactly the records logged.
#include <sys/resource.h>

#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "logger_bench_support.hpp"

namespace {

using namespace vlk_bench;

constexpr int k_roundCalls = 1000;
constexpr int k_rounds = 300;
constexpr int k_warmRounds = 20;

// The cost of reading the counter twice, the floor of every sample.
double timerNanoseconds() {
    std::vector<std::uint64_t> samples(1000);
    for (auto& sample : samples) {
        const std::uint64_t start = vlk::system::time::ticks();
        sample = vlk::system::time::ticks() - start;
    }
    return quantile(samples, 0.5);
}

long minorFaults() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

template <typename Destination, typename Shape>
void callLatency(benchmark::State& state) {
    using side = typename Destination::side;
    if (!g_failure.empty()) {
        state.SkipWithError(g_failure.c_str());
        return;
    }
    const auto producers = static_cast<int>(state.range(0));
    std::vector<std::vector<std::uint64_t>> samples(static_cast<std::size_t>(producers));
    for (auto& mine : samples) {
        // Written once here, so that the pages of the samples are not
        // counted among the faults of the calls.
        mine.resize(static_cast<std::size_t>(k_roundCalls * (state.max_iterations + 1)));
        mine.clear();
    }
    std::uint64_t rounds = 0;
    long faults = 0;
    {
        crew team(producers, [&samples](int who) {
            auto& mine = samples[static_cast<std::size_t>(who)];
            for (int call = 0; call < k_roundCalls; ++call) {
                const std::uint64_t start = vlk::system::time::ticks();
                Shape::template log<side>(call, who);
                mine.push_back(vlk::system::time::ticks() - start);
            }
        });
        // Rounds that are not kept: a thread's first call sets up its
        // per-thread state on either side, and the next ones bring the
        // allocators and queues to the sizes they keep.
        for (int warm = 0; warm < k_warmRounds; ++warm) {
            team.round();
            side::drain();
        }
        for (auto& mine : samples) {
            mine.clear();
        }
        faults = minorFaults();
        for (auto _ : state) {
            team.round();
            state.PauseTiming();
            side::drain();
            state.ResumeTiming();
        }
        faults = minorFaults() - faults;
        rounds = state.iterations() + k_warmRounds;
    }
    std::vector<std::uint64_t> all;
    for (const auto& mine : samples) {
        all.insert(all.end(), mine.begin(), mine.end());
    }
    state.counters["p50_ns"] = quantile(all, 0.5);
    state.counters["p90_ns"] = quantile(all, 0.9);
    state.counters["p99_ns"] = quantile(all, 0.99);
    state.counters["p99.9_ns"] = quantile(all, 0.999);
    state.counters["timer_ns"] = timerNanoseconds();
    state.counters["faults_per_1k_calls"] =
        1000.0 * static_cast<double>(faults) / static_cast<double>(all.size());
    stopAndCount<Destination>(state, rounds * k_roundCalls * static_cast<std::uint64_t>(producers));
}

template <typename Destination, typename Shape>
void registerLatency(const std::string& versus) {
    const std::string name =
        std::string("call_latency/") + Shape::name + "/" + Destination::name + "/" + versus;
    benchmark::RegisterBenchmark(name.c_str(), callLatency<Destination, Shape>)
        ->Setup(setUp<Destination>)
        ->Teardown(tearDown<Destination>)
        ->ArgName("producers")
        ->Arg(1)
        ->Arg(2)
        ->Iterations(k_rounds)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

template <typename Ours, typename Baseline>
bool registerAll() {
    const std::string versus = std::string("vs:") + Baseline::name;
    registerLatency<Ours, int_int_string>(versus);
    registerLatency<Baseline, int_int_string>("baseline");
    registerLatency<Ours, string50>(versus);
    registerLatency<Baseline, string50>("baseline");
    registerThroughput<Ours>("throughput", versus, 1, 4'000'000);
    registerThroughput<Baseline>("throughput", "baseline", 1, 4'000'000);
    return true;
}

const bool g_registered = registerAll<velk_file, spdlog_file>();

}  // namespace
