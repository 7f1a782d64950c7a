#include <vlk/system/fast_itoa.hpp>
#include <vlk/system/string_utils.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
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

TEST(StringUtils, Uchar2HexGivesTwoUpperCaseDigitsForEveryByte) {
    for (unsigned int byte = 0; byte < 256; ++byte) {
        char expected[3];
        std::snprintf(expected, sizeof expected, "%02X", byte);
        const vlk::base::cstring& entry = vlk::string_utils::uchar2hex[byte];
        ASSERT_EQ(entry.length, 2u) << byte;
        EXPECT_EQ(std::string(entry.data, 2), expected) << byte;
    }
}

TEST(StringUtils, IsRegexLooksForTheFourteenCharacters) {
    const std::string_view special = "$()*+.?[\\]^{|}";
    for (unsigned byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool expected = byte != 0 && special.find(c) != std::string_view::npos;
        EXPECT_EQ(su::isRegex(&c, 1), expected) << byte;  // false from 0x80 on
        EXPECT_EQ(su::isRegex(std::string(1, c)), expected) << byte;
    }
    EXPECT_TRUE(su::isRegex("01-0001."s));
    EXPECT_FALSE(su::isRegex("01-0001"s));
    EXPECT_FALSE(su::isRegex(""s));
    EXPECT_FALSE(su::isRegex(cstring{}));
    // The std::string form stops at a NUL, the others read the whole length.
    const std::string embedded("ab\0.", 4);
    EXPECT_FALSE(su::isRegex(embedded));
    EXPECT_TRUE(su::isRegex(view(embedded)));
    EXPECT_TRUE(su::isRegex(embedded.data(), embedded.size()));
}

TEST(StringUtils, IsTrueIsFourCharactersBeginningWithT) {
    const struct {
        const char* text;
        bool fallback, expected;
    } cases[] = {{"", true, true},      {"", false, false},     {"true", false, true},
                 {"tree", false, true}, {"false", true, false}, {"TRUE", true, false},
                 {"yes", true, false},  {"1", true, false},     {"t", true, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(su::isTrue(std::string(c.text), c.fallback), c.expected) << c.text;
        EXPECT_EQ(su::isTrue(view(c.text), c.fallback), c.expected) << c.text;
    }
}

TEST(StringUtils, SizeAsStringTruncatesInPowersOfAThousand) {
    const std::pair<unsigned long, const char*> cases[] = {
        // clang-format off
        {0, "0B"}, {999, "999B"}, {1000, "1KB"}, {1999, "1KB"}, {999999, "999KB"},
        {1000000, "1MB"}, {2500000000, "2GB"}, {1000000000000, "1TB"},
        {1000000000000000, "1PB"}, {5000000000000000000, "5000PB"},
        {18446744073709551615ul, "18446PB"},
        // clang-format on
    };
    for (const auto& [size, text] : cases) {
        EXPECT_EQ(su::sizeAsString(size), text) << size;
    }
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
        const bool compressed = su::compress_escapes(text);
        ASSERT_EQ(compressed, expected.has_value()) << input;
        if (compressed) {
            EXPECT_EQ(text.view(), *expected) << input;
        } else {
            EXPECT_EQ(text.length, input.size()) << input;
        }
    }
}

TEST(StringUtils, TokenizeStringSplitsAtCommasAndDropsEmptyTokens) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"", {}}, {"a", {"a"}}, {"a,,b", {"a", "b"}}, {",a,", {"a"}}, {"a;b", {"a;b"}}};
    for (const auto& [input, expected] : cases) {
        std::vector<std::string> tokens{"kept"};
        EXPECT_EQ(su::tokenize(std::string(input), tokens, ';'), expected.size()) << input;
        tokens.erase(tokens.begin());
        EXPECT_EQ(tokens, expected) << input;
    }
}

TEST(StringUtils, TokenizeViewSplitsAtTheDelimiterAndKeepsEmptyTokens) {
    const std::pair<const char*, std::vector<std::string_view>> cases[] = {
        {"", {}},          {"a", {"a"}},  {"a,b", {"a", "b"}}, {"a,,b", {"a", "", "b"}},
        {",a", {"", "a"}}, {"a,", {"a"}}, {",", {""}},         {"a;b", {"a;b"}}};
    for (const auto& [input, expected] : cases) {
        const std::string text(input);
        std::vector<cstring> tokens(1);
        EXPECT_EQ(su::tokenize(view(text), tokens, ','), expected.size()) << input;
        std::vector<std::string_view> views;
        for (auto it = tokens.begin() + 1; it != tokens.end(); ++it) {
            EXPECT_TRUE(it->data >= text.data() &&
                        it->data + it->length <= text.data() + text.size());
            views.push_back(it->view());
        }
        EXPECT_EQ(views, expected) << input;
    }
    std::vector<cstring> tokens;
    EXPECT_EQ(su::tokenize(cstring{"a;b", 3}, tokens, ';'), 2u);
}

}  // namespace
