// What a queued record costs in memory, and whether the memory comes back.
//
// One target that holds the logging thread in its first log() until told to
// go on, so that everything logged meanwhile stays queued: a stalled disk,
// a full pipe. The producer then logs `records` records of 100 bytes of
// text (the row's fragment, 62 characters and the line feed) and the
// process's resident set is read from /proc/self/statm before, at the peak
// and once the target is released and the queue has drained.
//
// Counters: bytes_per_record, the growth of the resident set over the
// records queued; goal_bytes, twice the text rounded up to 128 bytes plus
// one queue slot; vs_goal, the first over the second (at most 1 meets the
// goal); after_drain_MB, the resident set left above the start once the
// queue is empty; and, with a queue limit set, the records dropped.
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>

#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/errors.hpp>
#include <vlk/logging/internal/velk_logger_impl.hpp>
#include <vlk/logging/target.hpp>
#include <vlk/logging/velk_logger.hpp>

namespace {

const auto& g_row = vlk::errors::E190009;  // info: "The VELK console executed a command: " text

std::atomic<bool> g_released{false};
std::atomic<std::uint64_t> g_delivered{0};

// Takes every record; the first one waits until the benchmark releases it.
class stalled_target : public vlk::velk_logger::logger {
  public:
    bool init() override { return true; }
    void shutdown() override {}
    void log(const vlk::error_id&, const char*, unsigned long) override {
        while (!g_released.load(std::memory_order_acquire)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        g_delivered.fetch_add(1, std::memory_order_relaxed);
    }
    void rotate() override {}
    void flush() override {}
};

vlk::base::shared_pointer<vlk::velk_logger::logger> stalledFactory(vlk::target_config& config) {
    auto* target = new stalled_target;
    target->_commonInit(config);
    return vlk::base::shared_pointer<vlk::velk_logger::logger>(target);
}

double residentBytes() {
    unsigned long size = 0;
    unsigned long resident = 0;
    if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(file, "%lu %lu", &size, &resident) != 2) {
            resident = 0;
        }
        std::fclose(file);
    }
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

void queuedMemory(benchmark::State& state) {
    const auto records = static_cast<std::uint64_t>(state.range(0));
    const auto limit = static_cast<std::uint64_t>(state.range(1));
    const std::string text(62, 'q');
    const std::uint64_t textBytes = g_row.fragments[0].size() + text.size() + 1;
    double start = 0;
    double peak = 0;
    double after = 0;
    for (auto _ : state) {
        g_released.store(false);
        g_delivered.store(0);
        vlk::error_manager::init();
        vlk::velk_logger::init();
        vlk::velk_logger::setQueueLimit(limit);
        vlk::velk_logger::addTargetFactory("stalled", stalledFactory);
        vlk::target_config config;
        config["Protocol"] = vlk::friendly_value("stalled");
        config["Level"] = vlk::friendly_value("info");
        vlk::velk_logger::addTarget(config);
        vlk::velk_logger::start();
        start = residentBytes();
        for (std::uint64_t i = 0; i < records; ++i) {
            vlk::velk_logger::log(
                vlk::velk_error_stream2<std::string, std::string>(g_row, g_row.fragments[0], text));
        }
        peak = residentBytes();
        g_released.store(true, std::memory_order_release);
        vlk::velk_logger::flush();
        vlk::velk_logger::flush();
        after = residentBytes();
        vlk::velk_logger::shutdown();
        vlk::velk_logger::terminate();
    }
    const double goal = 2.0 * static_cast<double>((textBytes + 127) / 128 * 128) +
                        sizeof(vlk::_velk_logger_detail::fast_log_message);
    const double perRecord = (peak - start) / static_cast<double>(records);
    state.counters["text_bytes"] = static_cast<double>(textBytes);
    state.counters["bytes_per_record"] = perRecord;
    state.counters["goal_bytes"] = goal;
    state.counters["vs_goal"] = perRecord / goal;
    state.counters["peak_MB"] = (peak - start) / 1048576.0;
    state.counters["after_drain_MB"] = (after - start) / 1048576.0;
    state.counters["delivered"] = static_cast<double>(g_delivered.load());
}

BENCHMARK(queuedMemory)
    ->ArgNames({"records", "limit"})
    ->Args({1'000'000, 0})
    ->Args({1'000'000, 64 << 20})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
