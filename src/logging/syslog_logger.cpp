#include <vlk/logging/syslog_logger.hpp>

#include <syslog.h>

#include <string_view>
#include <vector>

#include <vlk/system/host.hpp>
#include <vlk/system/string_utils.hpp>

namespace vlk {
namespace _syslog_logger_detail {
namespace {

static_assert(LOG_PID == 1 && LOG_USER == 8, "the members' initial values are glibc's");

struct named_value {
    std::string_view name;
    std::uint32_t value;
};

constexpr named_value option_names[] = {
    {"LOG_CONS", LOG_CONS},     {"LOG_NDELAY", LOG_NDELAY}, {"LOG_NOWAIT", LOG_NOWAIT},
    {"LOG_ODELAY", LOG_ODELAY}, {"LOG_PERROR", LOG_PERROR}, {"LOG_PID", LOG_PID},
};

constexpr named_value facility_names[] = {
    {"LOG_USER", LOG_USER},     {"LOG_LOCAL0", LOG_LOCAL0}, {"LOG_LOCAL1", LOG_LOCAL1},
    {"LOG_LOCAL2", LOG_LOCAL2}, {"LOG_LOCAL3", LOG_LOCAL3}, {"LOG_LOCAL4", LOG_LOCAL4},
    {"LOG_LOCAL5", LOG_LOCAL5}, {"LOG_LOCAL6", LOG_LOCAL6}, {"LOG_LOCAL7", LOG_LOCAL7},
};

// The value of `name`, compared exactly, or `fallback` when no entry has it.
template <std::size_t N>
std::uint32_t valueOf(const named_value (&table)[N], std::string_view name,
                      std::uint32_t fallback) {
    for (const named_value& entry : table) {
        if (entry.name == name) {
            return entry.value;
        }
    }
    return fallback;
}

// Option bits of a comma-separated list; unknown names add nothing, so a
// list of only unknown names gives 0.
std::uint32_t parseOptions(const std::string& text) {
    std::vector<std::string> tokens;
    string_utils::tokenize(text, tokens, ',');
    std::uint32_t options = 0;
    for (const std::string& token : tokens) {
        options |= valueOf(option_names, token, 0);
    }
    return options;
}

constexpr std::uint8_t bit(log_level level) {
    return static_cast<std::uint8_t>(level);
}

// The priority of a level byte, or -1 when the byte is not one level.
int priorityOf(std::uint8_t level) {
    switch (level) {
        case bit(log_level::none):
        case bit(log_level::developer):
        case bit(log_level::trace):
            return LOG_DEBUG;
        case bit(log_level::stats):
        case bit(log_level::info):
            return LOG_INFO;
        case bit(log_level::warning):
            return LOG_WARNING;
        case bit(log_level::error):
            return LOG_ERR;
        case bit(log_level::critical):
            return LOG_CRIT;
        case bit(log_level::emergency):
            return LOG_EMERG;
        default:
            return -1;
    }
}

}  // namespace

bool syslog_logger_impl::init() {
    openlog(_ident.c_str(), static_cast<int>(_options), static_cast<int>(_facility));
    return true;
}

void syslog_logger_impl::shutdown() {
    closelog();
}

void syslog_logger_impl::log(const error_id& id, const char* line, unsigned long length) {
    if (!_accepts(id)) {
        return;
    }
    const int priority = priorityOf(id.level);
    if (priority < 0) {
        _bytesWritten += length;
        return;
    }
    // The line is data, never a format, and need not end in a NUL; its
    // length is cut to the int that a precision takes.
    ::syslog(priority, "%.*s", static_cast<int>(length), line);
}

bool syslog_logger_impl::getSyslogLoggerInfo(syslog_logging_info& info) {
    info.describe(*this);
    info.bytesWritten = _bytesWritten;
    info.ident = _ident;
    info.options = _options;
    info.facility = _facility;
    return true;
}

}  // namespace _syslog_logger_detail

base::shared_pointer<velk_logger::logger> syslog_logger::factory(target_config& config) {
    using _syslog_logger_detail::facility_names;
    auto* target = new _syslog_logger_detail::syslog_logger_impl();
    target->_ident = config["Ident"].valueOr(system::programName());
    const std::string& options = config["Options"].text();
    if (!options.empty()) {
        target->_options = _syslog_logger_detail::parseOptions(options);
    }
    const std::string& facility = config["Facility"].text();
    if (!facility.empty()) {
        target->_facility = _syslog_logger_detail::valueOf(facility_names, facility, LOG_USER);
    }
    target->_commonInit(config);
    return base::shared_pointer<velk_logger::logger>(target);
}

}  // namespace vlk

namespace vlk {

void syslog_logger::checkConfig(const target_config& config, std::vector<std::string>& problems) {
    using namespace _syslog_logger_detail;
    const auto unknown = [&](const char* key, std::string_view name, auto& table) {
        if (valueOf(table, name, 0) == 0) {
            problems.push_back("\"" + std::string(key) + "\": \"" + std::string(name) +
                               "\" is not a name it knows (LOG_PID, LOG_USER, LOG_LOCAL0 and the "
                               "like, exactly); it is ignored");
        }
    };
    if (const auto options = config.find("Options"); options != config.end()) {
        std::vector<std::string> tokens;
        string_utils::tokenize(options->second.text(), tokens, ',');
        for (const std::string& token : tokens) {
            unknown("Options", token, option_names);
        }
    }
    if (const auto facility = config.find("Facility");
        facility != config.end() && !facility->second.text().empty()) {
        unknown("Facility", facility->second.text(), facility_names);
    }
}

}  // namespace vlk
