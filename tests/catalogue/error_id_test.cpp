#include <vlk/catalogue/error_id.hpp>

#include <gtest/gtest.h>

#include <cstdio>
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
    EXPECT_EQ(render(0x01, 7), "01-0007");
    EXPECT_EQ(render(0x01, 42), "01-0042");
    EXPECT_EQ(render(0x15, 310), "15-0310");
    EXPECT_EQ(render(0x12, 2005), "12-2005");
    EXPECT_EQ(render(0x01, 12345), "01B12345");
    EXPECT_EQ(render(0xFF, 0), "FF-0000");
    EXPECT_EQ(render(0x0A, 9999), "0A-9999");
    EXPECT_EQ(render(0x00, 10000), "00B10000");
    EXPECT_EQ(render(0xFF, 65535), "FFB65535");

    // Every category and code agrees with printf's view of the same rule.
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

TEST(ErrorId, IdentityIgnoresTheLevel) {
    EXPECT_EQ((error_id{0x01, 0x12, 5}), (error_id{0x80, 0x12, 5}));
    EXPECT_NE((error_id{0x01, 0x12, 5}), (error_id{0x01, 0x30, 5}));
    EXPECT_NE((error_id{0x01, 0x12, 5}), (error_id{0x01, 0x12, 6}));
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

TEST(LogLevel, ParsingLooksAtTheFirstLettersOnly) {
    auto level = [](const char* text) {
        return vlk::getLogLevel(vlk::base::cstring{text, std::char_traits<char>::length(text)});
    };
    EXPECT_EQ(level("critical"), log_level::critical);
    EXPECT_EQ(level("cxxx"), log_level::critical);
    EXPECT_EQ(level("info"), log_level::info);
    EXPECT_EQ(level("stats"), log_level::stats);
    EXPECT_EQ(level("trace"), log_level::trace);
    EXPECT_EQ(level("warning"), log_level::warning);
    EXPECT_EQ(level("developer"), log_level::developer);
    EXPECT_EQ(level("devx"), log_level::developer);
    EXPECT_EQ(level("debug"), log_level::info);
    EXPECT_EQ(level("dxxx"), log_level::info);
    EXPECT_EQ(level("error"), log_level::error);
    EXPECT_EQ(level("emergency"), log_level::emergency);
    EXPECT_EQ(level("exxx"), log_level::emergency);
    // Short texts, upper case and other letters are none.
    EXPECT_EQ(level("err"), log_level::none);
    EXPECT_EQ(level(""), log_level::none);
    EXPECT_EQ(level("Error"), log_level::none);
    EXPECT_EQ(level("INFO"), log_level::none);
    EXPECT_EQ(level("none"), log_level::none);
    EXPECT_EQ(level("fatal"), log_level::none);
}

}  // namespace
