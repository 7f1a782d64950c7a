#include <vlk/catalogue/error_id.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using vlk::error_id;
using vlk::log_level;

// Codes below 10000 are zero-padded to four digits; longer ones take the B form.
TEST(ErrorId, RendersPaddedCodesAndTheFiveDigitForm) {
    const struct {
        std::uint8_t category;
        std::uint16_t code;
        const char* text;
    } rows[] = {{0x0A, 9999, "0A-9999"}, {0x01, 1, "01-0001"},      {0xC3, 42, "C3-0042"},
                {0x1D, 305, "1D-0305"},  {0x00, 10000, "00B10000"}, {0xFF, 65535, "FFB65535"}};
    for (const auto& r : rows) {
        std::string text;
        vlk::appendErrorId(text, error_id{0, r.category, r.code});
        EXPECT_EQ(text, r.text);
    }
}

TEST(LogLevel, NamesJoinEverySetBitFromTheLowest) {
    const std::pair<unsigned, const char*> rows[] = {
        {0x00, "none"},
        {0x28, "info,error"},
        {0x03, "developer,trace"},
        {0xFF, "developer,trace,stats,info,warning,error,critical,emergency"},
    };
    for (const auto& [bits, names] : rows) {
        EXPECT_EQ(vlk::getLogLevelString(static_cast<log_level>(bits)), names);
    }
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
