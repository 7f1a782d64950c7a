#include <vlk/system/string_utils.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace su = vlk::string_utils;
using vlk::base::cstring;
using namespace std::string_literals;

cstring view(const std::string& text) {
    return {text.data(), text.size()};
}

// Every byte: its two upper-case hexadecimal digits, and whether isRegex
// takes it for one of the fourteen special characters (none from 0x80 on).
TEST(StringUtils, EveryByteHasItsHexDigitsAndRegexMark) {
    const std::string_view special = "$()*+.?[\\]^{|}";
    for (unsigned byte = 0; byte < 256; ++byte) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02X", byte);
        EXPECT_EQ(su::uchar2hex[byte].view(), hex) << byte;
        const char c = static_cast<char>(byte);
        const bool expected = byte != 0 && special.find(c) != std::string_view::npos;
        EXPECT_EQ(su::isRegex(&c, 1), expected) << byte;
        EXPECT_EQ(su::isRegex(std::string(1, c)), expected) << byte;
    }
    // The std::string form stops at a NUL, the others read the whole length.
    const std::string embedded("ab\0.", 4);
    EXPECT_FALSE(su::isRegex(embedded));
    EXPECT_TRUE(su::isRegex(view(embedded)));
    EXPECT_FALSE(su::isRegex(cstring{}));
}

// An empty text takes the fallback, any other only a lower-case 't' first;
// sizes go in truncated powers of a thousand.
TEST(StringUtils, IsTrueAndSizeAsString) {
    EXPECT_TRUE(su::isTrue(std::string(), true));
    EXPECT_FALSE(su::isTrue(view(""), false));
    EXPECT_TRUE(su::isTrue(std::string("tree"), false));
    EXPECT_FALSE(su::isTrue(view("TRUE"), true));
    EXPECT_EQ(su::sizeAsString(1999), "1KB");
    EXPECT_EQ(su::sizeAsString(~0ul), "18446PB");
}

TEST(StringUtils, CompressEscapesRewritesInPlace) {
    // nullopt: refused, with the length unchanged.
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        // clang-format off
        {"", ""}, {R"(\a\b\f\n\r\t)", "\a\b\f\n\r\t"}, {R"(\101)", "A"},
        {R"(x\0101y)", "x\b1y"}, {R"(\777\400)", "\xff\0"s}, {R"(\x41\x4a\xfF)", "AJ\xff"},
        {R"(\\ \" \v \8 \X)", R"(\ " v 8 X)"},
        {R"(\x4)", std::nullopt}, {R"(\x4g)", std::nullopt}, {R"(\x)", std::nullopt},
        {R"(abc\)", std::nullopt}, {R"(\12)", std::nullopt}, {R"(\18x)", std::nullopt},
        // clang-format on
    };
    for (const auto& [input, expected] : cases) {
        std::string storage = input;
        cstring text = view(storage);
        ASSERT_EQ(su::compress_escapes(text), expected.has_value()) << input;
        if (expected) {
            EXPECT_EQ(text.view(), *expected) << input;
        } else {
            EXPECT_EQ(text.length, input.size()) << input;
        }
    }
}

// The std::string form splits at commas whatever the delimiter and drops
// empty tokens; the view form splits at the delimiter and keeps them, but
// for one behind a trailing delimiter. Both append to what is there.
TEST(StringUtils, TokenizeAppendsTokens) {
    const struct {
        std::string text;
        std::vector<std::string> copies;
        std::vector<std::string_view> views;
    } cases[] = {{"", {}, {}},
                 {"a", {"a"}, {"a"}},
                 {"a,,b", {"a", "b"}, {"a", "", "b"}},
                 {",a,", {"a"}, {"", "a"}},
                 {",", {}, {""}},
                 {"a;b", {"a;b"}, {"a;b"}}};
    for (const auto& c : cases) {
        std::vector<std::string> copies{"kept"};
        EXPECT_EQ(su::tokenize(c.text, copies, ';'), c.copies.size()) << c.text;
        EXPECT_EQ(std::vector(copies.begin() + 1, copies.end()), c.copies) << c.text;
        std::vector<cstring> tokens(1);
        EXPECT_EQ(su::tokenize(view(c.text), tokens, ','), c.views.size()) << c.text;
        std::vector<std::string_view> views;
        for (auto it = tokens.begin() + 1; it != tokens.end(); ++it) {
            views.push_back(it->view());
        }
        EXPECT_EQ(views, c.views) << c.text;
    }
}

}  // namespace
