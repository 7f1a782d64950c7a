// Log targets: their configuration, their shared base class and filter, and
// the records through which they report their state.
//
// A target is configured with a `target_config`, a map of strings read with
// defaults. Reading is allowed to change the map: the readers subscript it,
// so a key that was absent is present, empty, afterwards. A factory builds a
// target from its map and opens nothing; `init()` opens what the target needs.
//
// Every target's `log` starts with the shared filter `_accepts`: a row named
// in "ExcludeErrors" is refused, then a row whose level is in `_levels` or
// that "IncludeErrors" names is accepted. Configuration runs on one thread
// before logging starts; the filter runs on the logging thread, when the
// target's sets are read-only. Nothing here reports a bad value: an unknown
// level adds nothing, a pattern without a match names no row.
#pragma once

#include <cstdint>
#include <string>

#include <vlk/catalogue/error_id.hpp>
#include <vlk/catalogue/error_manager.hpp>
#include <vlk/logging/target_config.hpp>
#include <vlk/logging/velk_logger.hpp>

namespace vlk {

// The base of every target.
class velk_logger::logger {
  public:
    logger() = default;
    logger(const logger&) = delete;
    logger& operator=(const logger&) = delete;
    virtual ~logger() = default;

    // Opens what the target needs; false means it cannot work.
    virtual bool init() = 0;
    virtual void shutdown() = 0;
    // Writes one record line; the filter comes first.
    virtual void log(const error_id& id, const char* line, unsigned long length) = 0;
    virtual void rotate() = 0;
    virtual void flush() = 0;

    // Each target answers true to the one that describes it and fills it.
    virtual bool getFileLoggerInfo(file_logging_info&) { return false; }
    virtual bool getConsoleLoggerInfo(console_logging_info&) { return false; }
    virtual bool getSyslogLoggerInfo(syslog_logging_info&) { return false; }

    // Reads "Level", "Levels", "IncludeErrors", "ExcludeErrors" and
    // "FatalErrors"; called by each factory after its own keys.
    void _commonInit(target_config& config);

    // The shared filter: exclusion beats everything, then the level mask,
    // then the rows named for inclusion.
    bool _accepts(const error_id& id) const;

    std::uint32_t _levels = 0;  // log_level bits this target takes
    error_set _includeErrors;   // rows taken whatever their level
    error_set _excludeErrors;   // rows refused whatever their level
    error_set _fatalErrors;     // rows that end the process when logged
};

// What a target reports of itself.
struct logging_info {
    velk_logger::logger* target = nullptr;
    std::string levels;         // getLogLevelString of the mask
    std::string includeErrors;  // identifiers joined by ",", in set order
    std::string excludeErrors;

    // Fills the four fields from `target`.
    void describe(velk_logger::logger& from);
};

struct file_logging_info : logging_info {
    std::uint64_t bytesWritten = 0;
    std::string fileNamePattern;
    std::string fileName;
    std::uint64_t rotationThreshold = 0;
    std::uint64_t rotationCount = 0;
};

struct console_logging_info : logging_info {
    std::uint64_t bytesWritten = 0;
    std::uint32_t useStderr = 0;  // 0 for standard output
};

struct syslog_logging_info : logging_info {
    std::uint64_t bytesWritten = 0;
    std::string ident;
    std::uint32_t options = 0;
    std::uint32_t facility = 0;
};

// The identifiers of a set in its iteration order, joined by ",".
std::string errorSetText(const error_set& set);

}  // namespace vlk
