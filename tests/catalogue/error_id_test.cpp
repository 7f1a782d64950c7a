#include <vlk/catalogue/error_id.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

using vlk::error_id;
using vlk::log_level;

std::string render(std::uint8_t category, std::uint16_t code) {
    std::string text;
    vlk::appendErrorId(text, error_id{0, category, code});
    return text;
}

TEST(ErrorId, RendersPaddedCodesAndTheFiveDigitForm) {
    EXPECT_EQ(render(0x0A, 9999), "0A-9999");
    EXPECT_EQ(render(0x00, 10000), "00B10000");
    EXPECT_EQ(render(0xFF, 65535), "FFB65535");
    // A spread of categories and codes agrees with printf's view of the rule.
    char expected[32];
    for (unsigned category = 0; category < 256; category += 17) {
        for (unsigned code = 0; code < 65536; code += 7) {
            if (code < 10000) {
                std::snprintf(expected, sizeof expected, "%02X-%04u", category, code);
            } else {
                std::snprintf(expected, sizeof expected, "%02XB%u", category, code);
            }
            ASSERT_EQ(render(static_cast<std::uint8_t>(category), static_cast<std::uint16_t>(code)),
                      expected);
        }
    }
}

TEST(LogLevel, NamesJoinEverySetBitFromTheLowest) {
    EXPECT_EQ(vlk::getLogLevelString(log_level::none), "none");
    EXPECT_EQ(vlk::getLogLevelString(log_level::info | log_level::error), "info,error");
    EXPECT_EQ(vlk::getLogLevelString(static_cast<log_level>(0x03)), "developer,trace");
    EXPECT_EQ(vlk::getLogLevelString(static_cast<log_level>(0xFF)),
              "developer,trace,stats,info,warning,error,critical,emergency");
    EXPECT_EQ(vlk::logLevelName(0x80).view(), "emergency");
    EXPECT_EQ(vlk::logLevelName(0x01).view(), "developer");
}

// Short texts, upper case and other letters are none.
TEST(LogLevel, ParsingLooksAtTheFirstLettersOnly) {
    const std::pair<const char*, log_level> cases[] = {
        // clang-format off
        {"critical", log_level::critical}, {"cxxx", log_level::critical},
        {"info", log_level::info}, {"stats", log_level::stats}, {"trace", log_level::trace},
        {"warning", log_level::warning}, {"developer", log_level::developer},
        {"devx", log_level::developer}, {"debug", log_level::info}, {"dxxx", log_level::info},
        {"error", log_level::error}, {"emergency", log_level::emergency},
        {"exxx", log_level::emergency}, {"err", log_level::none}, {"", log_level::none},
        {"Error", log_level::none}, {"INFO", log_level::none}, {"fatal", log_level::none},
        // clang-format on
    };
    for (const auto& [text, level] : cases) {
        EXPECT_EQ(vlk::getLogLevel(vlk::base::cstring{text, std::strlen(text)}), level) << text;
    }
}

}  // namespace
