// What the logger benchmarks share: the logger and spdlog set up to write
// the same record lines to the same kind of place, the two message shapes
// on both, a crew of producer threads that log in rounds, a per-call clock,
// and a count of the lines that reached the files.
//
// Both sides write "<time> [<thread>] <level>: <identifier> <text>". spdlog
// runs as an async_logger on a thread pool of one worker and 8192 slots, its
// usual asynchronous set-up, with the blocking overflow policy, so that it
// drops nothing either; the caller formats the text, the worker the line.
//
// The logger is a process singleton, so one benchmark owns it at a time:
// the set-up hook makes the scratch directory and opens one side with one
// destination, the benchmark body stops the side once it has measured (so
// that everything is written and closed and can be counted), and the
// tear-down hook ends the side and removes the directory.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/errors.hpp>
#include <vlk/logging/velk_logger.hpp>
#include <vlk/system/clock.hpp>

namespace vlk_bench {

// ---- The messages ----------------------------------------------------------

// Row 23-0024 (info): "A bookmark subscription was paused: " int ", " int
// ", " text.
inline const auto& g_pairRow = vlk::errors::E230024;
// Row 19-0009 (info): "The VELK console executed a command: " text.
inline const auto& g_textRow = vlk::errors::E190009;

inline const std::string& topic() {
    static const std::string text = "orders/eu-west/alpha";
    return text;
}
inline const std::string& command() {
    static const std::string text = "sow_delete topic=orders/eu-west filter=/qty>100 ok";
    return text;
}

// ---- The two sides ---------------------------------------------------------

// Our logger with one target; configuration is a list of keys.
struct velk_side {
    using keys = std::initializer_list<std::pair<const char*, std::string>>;

    // False if the logger would not start or refused the target.
    static bool open(keys given) {
        vlk::error_manager::init();  // "ExcludeErrors" looks rows up there
        vlk::velk_logger::init();
        vlk::target_config config;
        for (const auto& [key, value] : given) {
            config[key] = vlk::friendly_value(value);
        }
        config["Level"] = vlk::friendly_value("info");
        // Each new thread logs a record about itself; kept out so that the
        // files hold exactly the records that the benchmark logged.
        config["ExcludeErrors"] = vlk::friendly_value("00-0027");
        vlk::velk_logger::addTarget(config);
        // With no target the level mask is empty after start().
        return vlk::velk_logger::start() && vlk::velk_logger::willLog(g_pairRow);
    }
    // Two flushes: the pass that ends the second began after the first had
    // returned, so everything logged before is in the target and flushed.
    static void drain() {
        vlk::velk_logger::flush();
        vlk::velk_logger::flush();
    }
    // Last drain, thread joined, targets closed.
    static void stop() { vlk::velk_logger::shutdown(); }
    static void close() {
        vlk::velk_logger::shutdown();
        vlk::velk_logger::terminate();
    }

    static void logPair(int first, int second, const std::string& text) {
        vlk::velk_logger::log(
            vlk::velk_error_stream6<std::string, int, std::string, int, std::string, std::string>(
                g_pairRow, g_pairRow.fragments[0], first, g_pairRow.fragments[1], second,
                g_pairRow.fragments[2], text));
    }
    static void logText(const std::string& text) {
        vlk::velk_logger::log(vlk::velk_error_stream2<std::string, std::string>(
            g_textRow, g_textRow.fragments[0], text));
    }
};

// spdlog's asynchronous logger over one sink.
struct spdlog_side {
    static inline std::shared_ptr<spdlog::details::thread_pool> pool;
    static inline std::shared_ptr<spdlog::sinks::sink> sink;
    static inline std::shared_ptr<spdlog::async_logger> logger;
    // The same text as the logger's rows, with the identifier in front, so
    // that both lines carry the same bytes apart from the time stamp and
    // the thread number.
    static inline std::string pairFormat;
    static inline std::string textFormat;

    static bool open(const std::function<std::shared_ptr<spdlog::sinks::sink>()>& makeSink) {
        pairFormat = "23-0024 " + g_pairRow.fragments[0] + "{}" + g_pairRow.fragments[1] + "{}" +
                     g_pairRow.fragments[2] + "{}";
        textFormat = "19-0009 " + g_textRow.fragments[0] + "{}";
        try {
            pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
            sink = makeSink();
            logger = std::make_shared<spdlog::async_logger>("bench", sink, pool,
                                                            spdlog::async_overflow_policy::block);
            logger->set_pattern("%Y-%m-%dT%H:%M:%S.%f%z [%t] %l: %v");
            logger->set_level(spdlog::level::info);
        } catch (const spdlog::spdlog_ex&) {
            close();
            return false;
        }
        return true;
    }
    // The flush request queues behind every record; once the queue is empty
    // the worker has taken it, and the sink's own flush, under the sink's
    // mutex, waits for the worker to finish it.
    static void drain() {
        logger->flush();
        while (pool->queue_size() != 0) {
            std::this_thread::yield();
        }
        sink->flush();
    }
    // The pool's destructor queues a stop behind every record and joins its
    // worker; the sink closes its file with the last reference.
    static void stop() {
        logger.reset();
        pool.reset();
        sink.reset();
    }
    static void close() { stop(); }

    static void logPair(int first, int second, const std::string& text) {
        logger->info(fmt::runtime(pairFormat), first, second, text);
    }
    static void logText(const std::string& text) { logger->info(fmt::runtime(textFormat), text); }
};

// Message shapes, each logged the same way on either side.
struct int_int_string {
    static constexpr const char* name = "int_int_string";
    template <typename Side>
    static void log(int call, int producer) {
        Side::logPair(call, producer, topic());
    }
};
struct string50 {
    static constexpr const char* name = "string50";
    template <typename Side>
    static void log(int, int) {
        Side::logText(command());
    }
};

// ---- Where the lines go ----------------------------------------------------

// Standard output sent to /dev/null while a console destination is measured.
// Whatever the reporter has buffered goes out first.
class stdout_to_null {
  public:
    void redirect() {
        std::cout.flush();
        std::fflush(stdout);
        _saved = ::dup(STDOUT_FILENO);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    void restore() {
        if (_saved < 0) {
            return;
        }
        std::cout.flush();
        std::fflush(stdout);
        ::dup2(_saved, STDOUT_FILENO);
        ::close(_saved);
        _saved = -1;
    }

  private:
    int _saved = -1;
};

// A destination names its side, how the side is opened, whether its lines
// land in files of the scratch directory (and can be counted), and whether
// it writes to standard output.
struct velk_file {
    using side = velk_side;
    static constexpr const char* name = "velk_file";
    static constexpr bool counted = true;
    static constexpr bool toStdout = false;
    static bool open(const std::string& directory) {
        return side::open({{"Protocol", "file"}, {"FileName", directory + "/velk.log"}});
    }
};
struct velk_console_null {
    using side = velk_side;
    static constexpr const char* name = "velk_console_to_null";
    static constexpr bool counted = false;
    static constexpr bool toStdout = true;
    static bool open(const std::string&) { return side::open({{"Protocol", "stdout"}}); }
};
struct spdlog_file {
    using side = spdlog_side;
    static constexpr const char* name = "spdlog_async_block_file";
    static constexpr bool counted = true;
    static constexpr bool toStdout = false;
    static bool open(const std::string& directory) {
        return side::open([&directory] {
            return std::make_shared<spdlog::sinks::basic_file_sink_mt>(directory + "/spdlog.log",
                                                                       true);
        });
    }
};

// ---- Set-up and tear-down --------------------------------------------------

inline std::string g_scratch;  // this benchmark's directory
inline std::string g_failure;  // why the set-up failed, or empty
inline stdout_to_null g_stdout;

template <typename Destination>
void setUp(const benchmark::State&) {
    g_failure.clear();
    char pattern[] = "/tmp/vlk-logger-bench-XXXXXX";
    g_scratch = ::mkdtemp(pattern) != nullptr ? pattern : "";
    if (Destination::toStdout) {
        g_stdout.redirect();
    }
    if (g_scratch.empty() || !Destination::open(g_scratch)) {
        g_failure = std::string(Destination::name) + " could not be opened";
    }
}

template <typename Destination>
void tearDown(const benchmark::State&) {
    Destination::side::close();
    g_stdout.restore();
    if (!g_scratch.empty()) {
        std::filesystem::remove_all(g_scratch);
        g_scratch.clear();
    }
}

// Lines in all files of `directory`. gzread passes a plain file through as
// it is and reads a compressed one up to its last flush, so one reader
// serves every file target. Unreadable: the largest value.
inline std::uint64_t countLines(const std::string& directory) {
    std::uint64_t lines = 0;
    std::vector<char> buffer(1 << 20);
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        gzFile file = ::gzopen(entry.path().c_str(), "rb");
        if (file == nullptr) {
            return UINT64_MAX;
        }
        int got = 0;
        while ((got = ::gzread(file, buffer.data(), static_cast<unsigned>(buffer.size()))) > 0) {
            lines +=
                static_cast<std::uint64_t>(std::count(buffer.data(), buffer.data() + got, '\n'));
        }
        ::gzclose(file);
        if (got < 0) {
            return UINT64_MAX;
        }
    }
    return lines;
}

// Stops the side, so that its files are complete and closed, and checks
// that they hold `expected` lines.
template <typename Destination>
void stopAndCount(benchmark::State& state, std::uint64_t expected) {
    Destination::side::stop();
    if (!Destination::counted) {
        return;
    }
    const std::uint64_t lines = countLines(g_scratch);
    if (lines != expected) {
        state.SkipWithError(("expected " + std::to_string(expected) +
                             " lines in the files, found " + std::to_string(lines))
                                .c_str());
    }
}

// ---- Threads and clocks ----------------------------------------------------

// `producers` threads, the caller being the first, that run `work(index)`
// together once per round. The others are started once and wait at a
// barrier between rounds, so that no thread is created inside a
// measurement and each keeps its logger record for the whole run.
class crew {
  public:
    crew(int producers, std::function<void(int)> work)
        : _work(std::move(work)), _start(producers), _done(producers) {
        for (int index = 1; index < producers; ++index) {
            _threads.emplace_back([this, index] {
                for (;;) {
                    _start.arrive_and_wait();
                    // The barrier orders the store in the destructor before
                    // this load.
                    if (_stopping.load(std::memory_order_relaxed)) {
                        return;
                    }
                    _work(index);
                    _done.arrive_and_wait();
                }
            });
        }
    }
    crew(const crew&) = delete;
    crew& operator=(const crew&) = delete;
    ~crew() {
        _stopping.store(true, std::memory_order_relaxed);
        _start.arrive_and_wait();
        for (auto& thread : _threads) {
            thread.join();
        }
    }

    void round() {
        _start.arrive_and_wait();
        _work(0);
        _done.arrive_and_wait();
    }

  private:
    std::function<void(int)> _work;
    std::barrier<> _start;
    std::barrier<> _done;
    std::atomic<bool> _stopping{false};
    std::vector<std::thread> _threads;
};

// Nanoseconds per tick of the time stamp counter, measured once against
// steady_clock. The counter is invariant on the machines this runs on
// (constant_tsc), so one factor holds for the whole run.
inline double nanosecondsPerTick() {
    static const double factor = [] {
        const auto wallStart = std::chrono::steady_clock::now();
        const std::uint64_t tickStart = vlk::system::time::ticks();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const std::uint64_t tickEnd = vlk::system::time::ticks();
        const auto wallEnd = std::chrono::steady_clock::now();
        return std::chrono::duration<double, std::nano>(wallEnd - wallStart).count() /
               static_cast<double>(tickEnd - tickStart);
    }();
    return factor;
}

// The `fraction` quantile of `samples` (reordered), in nanoseconds.
inline double quantile(std::vector<std::uint64_t>& samples, double fraction) {
    const auto at = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(at),
                     samples.end());
    return static_cast<double>(samples[at]) * nanosecondsPerTick();
}

// ---- Throughput ------------------------------------------------------------

// Records per second: `producers` threads (first argument) log `records`
// (second argument) between them as fast as they can, and the clock stops
// when the side has written and flushed them all. One iteration.
template <typename Destination>
void throughput(benchmark::State& state) {
    using side = typename Destination::side;
    if (!g_failure.empty()) {
        state.SkipWithError(g_failure.c_str());
        return;
    }
    const auto producers = static_cast<int>(state.range(0));
    const auto each =
        static_cast<std::uint64_t>(state.range(1)) / static_cast<std::uint64_t>(producers);
    double seconds = 0;
    {
        crew team(producers, [each](int who) {
            for (std::uint64_t call = 0; call < each; ++call) {
                int_int_string::log<side>(static_cast<int>(call), who);
            }
        });
        for (auto _ : state) {
            const auto start = std::chrono::steady_clock::now();
            team.round();
            side::drain();
            seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            state.SetIterationTime(seconds);
        }
    }
    const std::uint64_t records = each * static_cast<std::uint64_t>(producers);
    state.counters["records_per_second"] = static_cast<double>(records) / seconds;
    stopAndCount<Destination>(state, records);
}

// Registers the throughput of `Destination`, named after the baseline that
// it is compared with (or marked as the baseline itself).
template <typename Destination>
void registerThroughput(const std::string& group, const std::string& versus, int producers,
                        std::int64_t records) {
    const std::string name = group + "/" + Destination::name + "/" + versus;
    benchmark::RegisterBenchmark(name.c_str(), throughput<Destination>)
        ->Setup(setUp<Destination>)
        ->Teardown(tearDown<Destination>)
        ->ArgNames({"producers", "records"})
        ->Args({producers, records})
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace vlk_bench
