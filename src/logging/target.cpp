#include <vlk/logging/target.hpp>

#include <vector>

#include <vlk/system/string_utils.hpp>

namespace vlk {
namespace {

// A level and every more severe one: "warning" (0x10) gives 0xF0.
std::uint32_t levelAndAbove(log_level level) {
    auto bit = static_cast<std::uint32_t>(level);
    if (bit == 0 || (bit & (bit - 1)) != 0 || bit > 0x80) {
        return 0;
    }
    return ~(bit - 1) & 0xFF;
}

std::vector<std::string> commaTokens(const std::string& text) {
    std::vector<std::string> tokens;
    string_utils::tokenize(text, tokens, ',');
    return tokens;
}

// Adds to `set` every row that each comma-separated identifier or pattern of
// `key` names; tokens that name nothing are ignored.
void addRows(target_config& config, const char* key, error_set& set) {
    const std::string& text = config[key].text();
    if (text.empty()) {
        return;
    }
    for (const std::string& token : commaTokens(text)) {
        error_manager::findErrors(token, set);
    }
}

base::cstring view(const std::string& text) {
    return {text.data(), text.size()};
}

}  // namespace

void velk_logger::logger::_commonInit(target_config& config) {
    _levels = levelAndAbove(getLogLevel(view(config["Level"].text())));
    const std::string& levels = config["Levels"].text();
    if (!levels.empty()) {
        for (const std::string& token : commaTokens(levels)) {
            _levels |= static_cast<std::uint32_t>(getLogLevel(view(token)));
        }
    }
    addRows(config, "IncludeErrors", _includeErrors);
    addRows(config, "ExcludeErrors", _excludeErrors);
    addRows(config, "FatalErrors", _fatalErrors);
}

bool velk_logger::logger::_accepts(const error_id& id) const {
    if (!_excludeErrors.empty() && _excludeErrors.contains(id)) {
        return false;
    }
    if ((id.level & _levels) != 0) {
        return true;
    }
    return !_includeErrors.empty() && _includeErrors.contains(id);
}

std::string errorSetText(const error_set& set) {
    std::string text;
    for (const auto& entry : set) {
        if (!text.empty()) {
            text += ',';
        }
        appendErrorId(text, entry.key);
    }
    return text;
}

void logging_info::describe(velk_logger::logger& from) {
    target = &from;
    levels = getLogLevelString(static_cast<log_level>(from._levels));
    includeErrors = errorSetText(from._includeErrors);
    excludeErrors = errorSetText(from._excludeErrors);
}

}  // namespace vlk
