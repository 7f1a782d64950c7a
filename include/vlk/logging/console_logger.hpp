// The console target: record lines to standard output or standard error.
//
// Protocol "stderr" writes to std::cerr, any other value to std::cout. Lines
// are written as they come, with no flush of their own (the logging thread
// flushes at the end of each pass) and no lock: only the logging thread
// writes, and other writers of the same stream are not coordinated with it.
// A failed write leaves the stream's state set and is counted all the same:
// `bytesWritten` is what was handed over.
#pragma once

#include <cstdint>
#include <ostream>

#include <vlk/logging/target.hpp>

namespace vlk {

namespace _console_logger_detail {

class console_logger_impl : public velk_logger::logger {
  public:
    explicit console_logger_impl(std::ostream* stream) : _stream(stream) {}

    bool init() override { return true; }
    void shutdown() override;
    void log(const error_id& id, const char* line, unsigned long length) override;
    void rotate() override {}
    void flush() override;
    bool getConsoleLoggerInfo(console_logging_info& info) override;

    std::ostream* _stream;  // not owned
    std::uint64_t _bytesWritten = 0;
};

}  // namespace _console_logger_detail

struct console_logger {
    // Builds a console target from "Protocol" and the common keys.
    static base::shared_pointer<velk_logger::logger> factory(target_config& config);
};

}  // namespace vlk
