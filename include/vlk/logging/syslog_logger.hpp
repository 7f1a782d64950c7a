// The syslog target: each accepted record line is one syslog(3) call.
//
// It has no buffer and no file of its own. `init` opens the process-wide
// syslog connection with the configured identity, options and facility and
// always succeeds; `shutdown` closes it; rotate and flush have nothing to do.
// The priority comes from the row's level (developer and trace debug, stats
// and info info, then warning, error, critical and emergency; never alert or
// notice); the facility comes from openlog alone. Only the logging thread
// calls `log`. openlog and closelog act on state of the whole process, so two
// syslog targets share whichever identity was opened last.
//
// Keys, besides the common ones: "Ident" (default: the program name, empty
// before the host probe), "Options" (LOG_* option names joined by ",", exact
// and untrimmed; default LOG_PID, which a given value replaces) and
// "Facility" (LOG_USER or LOG_LOCAL0 to LOG_LOCAL7, default LOG_USER). An
// unknown name is ignored without a word.
//
// `bytesWritten` counts only lines whose level byte is not one level (none
// of the catalogue's rows): they are dropped, and counted, instead of sent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <vlk/logging/target.hpp>

namespace vlk {

namespace _syslog_logger_detail {

class syslog_logger_impl : public velk_logger::logger {
  public:
    // Frees `_ident` and does not call closelog: `shutdown` comes first, as
    // openlog keeps a pointer into `_ident`.
    ~syslog_logger_impl() override = default;

    bool init() override;
    void shutdown() override;
    void log(const error_id& id, const char* line, unsigned long length) override;
    void rotate() override {}
    void flush() override {}
    bool getSyslogLoggerInfo(syslog_logging_info& info) override;

    std::string _ident;           // must not change between init and shutdown
    std::uint32_t _options = 1;   // LOG_PID
    std::uint32_t _facility = 8;  // LOG_USER
    std::uint64_t _bytesWritten = 0;
};

}  // namespace _syslog_logger_detail

struct syslog_logger {
    // Builds a syslog target from "Ident", "Options", "Facility" and the
    // common keys; opens nothing.
    static base::shared_pointer<velk_logger::logger> factory(target_config& config);
    // Appends a sentence for each name in "Options" or "Facility" that the
    // factory would ignore.
    static void checkConfig(const target_config& config, std::vector<std::string>& problems);
};

}  // namespace vlk
