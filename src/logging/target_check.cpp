// velk_logger::checkTargetConfig: what a target's configuration asks for
// that addTarget would quietly read otherwise.
#include <algorithm>
#include <array>
#include <string_view>

#include <vlk/logging/file_logger.hpp>
#include <vlk/logging/internal/velk_logger_impl.hpp>
#include <vlk/logging/syslog_logger.hpp>
#include <vlk/logging/target.hpp>
#include <vlk/logging/velk_logger.hpp>
#include <vlk/regex/regex.hpp>
#include <vlk/system/string_utils.hpp>

namespace vlk {
namespace {

using checker = void (*)(const target_config&, std::vector<std::string>&);

// The protocols of this library, the keys each reads beside the common
// ones, and the check of those keys' values.
struct protocol_keys {
    std::string_view protocol;
    std::array<std::string_view, 3> keys;
    checker check;
};

constexpr std::array<protocol_keys, 5> builtIn{{
    {"file", {"RotationThreshold", "FileName"}, file_logger::checkConfig},
    {"gzip", {"RotationThreshold", "FileName"}, file_logger::checkConfig},
    {"stdout", {}, nullptr},
    {"stderr", {}, nullptr},
    {"syslog", {"Ident", "Options", "Facility"}, syslog_logger::checkConfig},
}};

constexpr std::array<std::string_view, 6> commonKeys{
    "Protocol", "Level", "Levels", "IncludeErrors", "ExcludeErrors", "FatalErrors"};

const std::array<std::string_view, 9> levelNames{
    "none", "developer", "trace", "stats", "info", "warning", "error", "critical", "emergency"};

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

std::vector<std::string> commaTokens(const std::string& text) {
    std::vector<std::string> tokens;
    string_utils::tokenize(text, tokens, ',');
    return tokens;
}

// getLogLevel reads little more than the first letter: "errant" is error,
// "debug" info, "loud" nothing. Only the exact names pass here.
void checkLevel(const char* key, const std::string& name, std::vector<std::string>& problems) {
    if (std::find(levelNames.begin(), levelNames.end(), name) != levelNames.end()) {
        return;
    }
    const log_level read = getLogLevel({name.data(), name.size()});
    problems.push_back(quoted(key) + ": " + quoted(name) +
                       " is not a level name (none, developer, trace, stats, info, warning, "
                       "error, critical, emergency); it is read as " +
                       (read == log_level::none ? std::string("no level at all")
                                                : quoted(getLogLevelString(read))));
}

void checkRows(const char* key, const std::string& text, std::vector<std::string>& problems) {
    for (const std::string& token : commaTokens(text)) {
        error_set rows;
        if (error_manager::findErrors(token, rows)) {
            continue;
        }
        const std::string_view blanks = " \t\r\n";
        const auto first = token.find_first_not_of(blanks);
        const std::string pattern =
            first == std::string::npos
                ? std::string()
                : token.substr(first, token.find_last_not_of(blanks) - first + 1);
        const regex compiled(pattern);
        problems.push_back(
            quoted(key) + ": the pattern " + quoted(token) +
            (compiled._code == nullptr ? " does not compile" : " names no row of the catalogue") +
            "; it is ignored");
    }
}

}  // namespace

std::vector<std::string> velk_logger::checkTargetConfig(const target_config& config) {
    std::vector<std::string> problems;
    const auto protocol = config.find("Protocol");
    const std::string name = protocol == config.end() ? std::string() : protocol->second.text();
    const auto known =
        std::find_if(builtIn.begin(), builtIn.end(),
                     [&](const protocol_keys& entry) { return entry.protocol == name; });
    bool offered = known != builtIn.end();
    if (const auto* impl = _implementation(); impl != nullptr) {
        offered = impl->_targetFactories.contains(name);
    }
    if (name.empty()) {
        problems.push_back("\"Protocol\" is missing or empty: the target is left out");
    } else if (!offered) {
        problems.push_back("\"Protocol\": " + quoted(name) +
                           " is offered by no target factory: the target is left out");
    }

    for (const auto& [key, value] : config) {
        const bool common =
            std::find(commonKeys.begin(), commonKeys.end(), key) != commonKeys.end();
        const bool own = known != builtIn.end() && std::find(known->keys.begin(), known->keys.end(),
                                                             key) != known->keys.end();
        // A protocol the program registered may read keys of its own.
        if (!common && !own && (known != builtIn.end() || !offered)) {
            problems.push_back(quoted(key) + " is not a key of " +
                               (offered ? "the " + quoted(name) + " target" : "any target") +
                               "; it is ignored");
        }
    }

    const auto text = [&](const char* key) -> const std::string& {
        static const std::string none;
        const auto found = config.find(key);
        return found == config.end() ? none : found->second.text();
    };
    if (!text("Level").empty()) {
        checkLevel("Level", text("Level"), problems);
    }
    for (const std::string& token : commaTokens(text("Levels"))) {
        checkLevel("Levels", token, problems);
    }
    for (const char* key : {"IncludeErrors", "ExcludeErrors", "FatalErrors"}) {
        checkRows(key, text(key), problems);
    }
    if (known != builtIn.end() && known->check != nullptr) {
        known->check(config, problems);
    }
    return problems;
}

}  // namespace vlk
