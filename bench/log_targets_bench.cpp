// Records per second through each of the logger's targets, two producer
// threads logging as fast as they can until everything is written and
// flushed, against spdlog's asynchronous logger (thread pool, blocking
// overflow policy) in the same run:
//
//   file                  against spdlog's rotating file sink, both starting
//                         a new file every 32 MiB
//   gzip                  zlib's default level, against the same rotating
//                         file sink (spdlog has no compressing sink)
//   console on /dev/null  against spdlog's rotating file sink, and spdlog's
//                         own stdout sink on /dev/null for reference (it
//                         flushes after every line)
//   syslog                against spdlog's syslog sink; both call syslog(3),
//                         and without a daemon on /dev/log both drop every
//                         line inside the C library
//
// Both sides write the same record lines. Files go to a scratch directory,
// and after each benchmark they must hold exactly the records logged.
#include <syslog.h>

#include <cstdint>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>

#include "logger_bench_support.hpp"

namespace {

using namespace vlk_bench;

constexpr int k_producers = 2;
constexpr std::int64_t k_records = 1'000'000;
// A syslog(3) call without a daemon still tries to connect each time.
constexpr std::int64_t k_syslogRecords = 200'000;
// Both file sides start a new file at this size.
constexpr std::size_t k_rotationBytes = 32u << 20;

struct spdlog_rotating_file {
    using side = spdlog_side;
    static constexpr const char* name = "spdlog_rotating_file";
    static constexpr bool counted = true;
    static constexpr bool toStdout = false;
    static bool open(const std::string& directory) {
        return side::open([&directory] {
            // Enough files that none is deleted, so all lines stay countable.
            return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(directory + "/spdlog.log",
                                                                          k_rotationBytes, 16);
        });
    }
};

// Our file names keep their usual form, with the directory in front.
struct velk_rotating_file {
    using side = velk_side;
    static constexpr const char* name = "velk_file";
    static constexpr bool counted = true;
    static constexpr bool toStdout = false;
    static bool open(const std::string& directory) {
        return side::open({{"Protocol", "file"},
                           {"RotationThreshold", std::to_string(k_rotationBytes)},
                           {"FileName", directory + "/velk-%Y-%m-%dT%H:%M:%S-%n.log"}});
    }
};

// The threshold counts compressed bytes here, so these files do not rotate.
struct velk_gzip {
    using side = velk_side;
    static constexpr const char* name = "velk_gzip";
    static constexpr bool counted = true;
    static constexpr bool toStdout = false;
    static bool open(const std::string& directory) {
        return side::open({{"Protocol", "gzip"},
                           {"RotationThreshold", std::to_string(k_rotationBytes)},
                           {"FileName", directory + "/velk-%Y-%m-%dT%H:%M:%S-%n.log.gz"}});
    }
};

struct spdlog_stdout_null {
    using side = spdlog_side;
    static constexpr const char* name = "spdlog_stdout_to_null";
    static constexpr bool counted = false;
    static constexpr bool toStdout = true;
    static bool open(const std::string&) {
        return side::open([] { return std::make_shared<spdlog::sinks::stdout_sink_mt>(); });
    }
};

struct velk_syslog {
    using side = velk_side;
    static constexpr const char* name = "velk_syslog";
    static constexpr bool counted = false;
    static constexpr bool toStdout = false;
    static bool open(const std::string&) {
        return side::open({{"Protocol", "syslog"},
                           {"Ident", "vlk-bench"},
                           {"Options", "LOG_PID"},
                           {"Facility", "LOG_USER"}});
    }
};

struct spdlog_syslog {
    using side = spdlog_side;
    static constexpr const char* name = "spdlog_syslog";
    static constexpr bool counted = false;
    static constexpr bool toStdout = false;
    static bool open(const std::string&) {
        // Formatting on: the whole record line goes to syslog, as ours does.
        return side::open([] {
            return std::make_shared<spdlog::sinks::syslog_sink_mt>("vlk-bench", LOG_PID, LOG_USER,
                                                                   true);
        });
    }
};

bool registerAll() {
    const std::string versusFile = std::string("vs:") + spdlog_rotating_file::name;
    registerThroughput<spdlog_rotating_file>("target", "baseline", k_producers, k_records);
    registerThroughput<velk_rotating_file>("target", versusFile, k_producers, k_records);
    registerThroughput<velk_gzip>("target", versusFile, k_producers, k_records);
    registerThroughput<velk_console_null>("target", versusFile, k_producers, k_records);
    registerThroughput<spdlog_stdout_null>("target", "baseline", k_producers, k_records);
    registerThroughput<velk_syslog>("target", std::string("vs:") + spdlog_syslog::name, k_producers,
                                    k_syslogRecords);
    registerThroughput<spdlog_syslog>("target", "baseline", k_producers, k_syslogRecords);
    return true;
}

const bool g_registered = registerAll();

}  // namespace
