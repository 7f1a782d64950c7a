#include <vlk/catalogue/error_id.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using vlk::log_level;

TEST(LogLevel, NamesJoinEverySetBitFromTheLowest) {
    const std::pair<unsigned, const char*> rows[] = {
        {0x00, "none"},
        {0xFF, "developer,trace,stats,info,warning,error,critical,emergency"},
    };
    for (const auto& [bits, names] : rows) {
        EXPECT_EQ(vlk::getLogLevelString(static_cast<log_level>(bits)), names);
    }
}

// Short texts, upper case and other letters are none. The names info,
// warning, developer and emergency are read in the target's level tests.
TEST(LogLevel, ParsingLooksAtTheFirstLettersOnly) {
    const std::pair<const char*, log_level> cases[] = {
        // clang-format off
        {"critical", log_level::critical}, {"cxxx", log_level::critical},
        {"stats", log_level::stats}, {"trace", log_level::trace}, {"devx", log_level::developer},
        {"debug", log_level::info}, {"dxxx", log_level::info}, {"error", log_level::error},
        {"exxx", log_level::emergency}, {"err", log_level::none}, {"", log_level::none},
        {"Error", log_level::none}, {"INFO", log_level::none}, {"fatal", log_level::none},
        // clang-format on
    };
    for (const auto& [text, level] : cases) {
        EXPECT_EQ(vlk::getLogLevel(vlk::base::cstring{text, std::strlen(text)}), level) << text;
    }
}

}  // namespace
