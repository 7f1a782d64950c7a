#include <vlk/catalogue/error_manager.hpp>

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <string>
#include <vector>

#include <vlk/catalogue/errors.hpp>
#include <vlk/regex/regex.hpp>

namespace {

using vlk::error_id;
using vlk::error_manager;
using vlk::error_map;
using vlk::error_set;

std::vector<std::string> idsInOrder(const error_map& map) {
    std::vector<std::string> ids;
    for (const auto& row : map) {
        std::string id;
        vlk::appendErrorId(id, row.key);
        ids.push_back(id);
    }
    return ids;
}

error_map everything() {
    error_map all;
    error_manager::findErrors(".", all);
    return all;
}

TEST(Catalogue, HoldsEveryRowInOneGrownTable) {
    const error_map all = everything();
    ASSERT_EQ(all.size(), 1006u);
    const auto stats = all.stats();
    EXPECT_EQ(stats.bucket_count, 8192u);
    EXPECT_EQ(stats.used_buckets, 167u);
    EXPECT_EQ(stats.used_nodes, 624u);
    EXPECT_EQ(stats.total_nodes, 640u);
}

TEST(Catalogue, RowsHaveTheirLevels) {
    std::array<int, 8> perLevel{};
    for (const auto& row : everything()) {
        ASSERT_EQ(std::popcount(row.key.level), 1) << int(row.key.category) << "-" << row.key.code;
        ++perLevel[std::countr_zero(row.key.level)];
    }
    // developer, trace, stats, info, warning, error, critical, emergency
    EXPECT_EQ(perLevel, (std::array<int, 8>{317, 33, 23, 175, 203, 102, 103, 50}));
}

TEST(Catalogue, DefaultActionsAndRowObjects) {
    int defaults = 0;
    for (const auto& row : everything()) {
        defaults += row.value.action == "No recommended action available.";
    }
    EXPECT_EQ(defaults, 876);

    // Row objects carry their identifier and fragments; 0xFF survives the char.
    EXPECT_EQ(vlk::errors::EFF0001.category, 0xFF);
    EXPECT_EQ(vlk::errors::E000041.level, 0x80);
    EXPECT_EQ(vlk::errors::E000041.fragments[0],
              "VELK encountered a fatal condition and is exiting: ");
    EXPECT_EQ(vlk::errors::E000046.fragments.size(), 5u);
    EXPECT_EQ(vlk::errors::E300004.fragments.size(), 1u);
    EXPECT_EQ(vlk::errors::E122001.fragments[1], "] publish command not entitled for ");
    EXPECT_EQ(vlk::errors::E000000.level, 0x01);  // a bare row
}

TEST(Catalogue, SearchTrimsItsOwnCopyAndMatchesAnywhere) {
    for (const std::string pattern : {"01-0001", " 01-0001\t", "\n01-0001  "}) {
        error_map found;
        EXPECT_TRUE(error_manager::findErrors(pattern, found)) << pattern;
        ASSERT_EQ(found.size(), 1u) << pattern;
        EXPECT_EQ(idsInOrder(found)[0], "01-0001");
    }
    for (const std::string pattern : {"", "   ", "\t"}) {
        error_map found;
        EXPECT_TRUE(error_manager::findErrors(pattern, found));
        EXPECT_EQ(found.size(), 1006u);
    }
    error_map ff;
    error_manager::findErrors("^FF-", ff);
    EXPECT_EQ(ff.size(), 12u);
    error_map zeros;
    error_manager::findErrors("00-", zeros);
    EXPECT_EQ(zeros.size(), 59u);
    // "B" is a hex digit of categories 0B, 1B and 2B; the five-digit form
    // "<cc>B<nnnnn>" occurs in no row.
    error_map b;
    error_manager::findErrors("B", b);
    EXPECT_EQ(b.size(), 1u + 6u + 4u);
    // Levels and texts are not searched; lower-case hex is not folded here.
    for (const std::string pattern : {"[0-9A-F]{2}B", "info", "inFo", "ff-0001", "uncatalogued"}) {
        error_map none;
        EXPECT_FALSE(error_manager::findErrors(pattern, none)) << pattern;
        EXPECT_EQ(none.size(), 0u);
    }
}

TEST(Catalogue, InvalidPatternFindsNothing) {
    for (const std::string pattern : {"(", "[", "*", "\\", "a{2,1}"}) {
        error_map map;
        EXPECT_FALSE(error_manager::findErrors(pattern, map)) << pattern;
        error_set set;
        EXPECT_FALSE(error_manager::findErrors(pattern, set)) << pattern;
    }
}

TEST(Catalogue, ResultsAccumulateWithoutDuplicates) {
    error_map map;
    error_manager::findErrors("^01-000", map);
    EXPECT_EQ(map.size(), 9u);
    EXPECT_TRUE(error_manager::findErrors("^01-00", map));
    EXPECT_EQ(map.size(), 25u);
    // A map that already holds rows answers true with no new hit.
    EXPECT_TRUE(error_manager::findErrors("zz", map));
    EXPECT_EQ(map.size(), 25u);

    error_set set;
    EXPECT_TRUE(error_manager::findErrors("^01-", set));
    EXPECT_TRUE(error_manager::findErrors("-0001$", set));
    EXPECT_EQ(set.size(), 25u + 47u);
    EXPECT_TRUE(set.contains(error_id{0, 0x1D, 1}));
}

TEST(Catalogue, ErrorInfoIgnoresTheLevelAndHasFallbacks) {
    const auto known = error_manager::errorInfo(error_id{0, 0x00, 41});
    EXPECT_EQ(known.description, "VELK encountered a fatal error and is exiting.");
    EXPECT_EQ(known.action, "No recommended action available.");
    const auto unknown = error_manager::errorInfo(error_id{0x20, 0x7F, 1});
    EXPECT_EQ(unknown.description, "No description found.");
    EXPECT_EQ(unknown.action, "No recommended action.");
}

TEST(Catalogue, FindErrorTellsUnknownFromMalformed) {
    const error_id untouched{0x55, 0x66, 0x7777};

    error_id id = untouched;
    EXPECT_TRUE(error_manager::findError(" 1d-0001 ", id));
    EXPECT_EQ(id.category, 0x1D);
    EXPECT_EQ(id.code, 1);
    EXPECT_EQ(id.level, vlk::errors::E1D0001.level);

    for (const std::string text : {"abc", "", "01-00001", "12345678"}) {
        id = untouched;
        EXPECT_TRUE(error_manager::findError(text, id)) << text;
        EXPECT_EQ(id.level, untouched.level);
        EXPECT_EQ(id.code, untouched.code);
    }
    for (const std::string text : {"zz-9999", "7F-0001"}) {
        id = untouched;
        EXPECT_FALSE(error_manager::findError(text, id)) << text;
        EXPECT_EQ(id.code, untouched.code);
    }
    // The separator is never read, and a six-character text has none.
    for (const std::string text : {"010001", "01x0001", "1-0001"}) {
        id = untouched;
        EXPECT_TRUE(error_manager::findError(text, id)) << text;
        EXPECT_EQ(id.code, 1) << text;
    }
}

TEST(Catalogue, ToErrorIdReadsOnlyBothEnds) {
    error_id id{};
    EXPECT_TRUE(vlk::_error_manager_detail::toErrorId("zz-9999", id));
    EXPECT_EQ(id.category, 0);
    EXPECT_EQ(id.code, 9999);
    EXPECT_TRUE(vlk::_error_manager_detail::toErrorId("fF-0100", id));
    EXPECT_EQ(id.category, 0xFF);
    EXPECT_EQ(id.code, 100);
    id = error_id{};
    EXPECT_FALSE(vlk::_error_manager_detail::toErrorId("01-01", id));
    EXPECT_FALSE(vlk::_error_manager_detail::toErrorId("01-00001", id));
    EXPECT_EQ(id.code, 0);
    // Six characters are read as two and four, whatever they are.
    EXPECT_TRUE(vlk::_error_manager_detail::toErrorId("01-001", id));
    EXPECT_EQ(id.code, 0xFFFF);  // strtoul("-001") wraps, and the low bits stay
}

TEST(Catalogue, FirstRegistrationWins) {
    error_manager::registerError(error_id{0x80, 0x00, 2}, "other", "other action");
    const auto info = error_manager::errorInfo(error_id{0, 0x00, 2});
    EXPECT_EQ(info.description, "A message containing the VELK instance name.");
    error_id id{};
    error_manager::findError("00-0002", id);
    EXPECT_EQ(id.level, 0x08);
    error_map all;
    error_manager::findErrors(".", all);
    EXPECT_EQ(all.size(), 1006u);
}

TEST(Catalogue, ShutdownEmptiesTheCatalogueForGood) {
    // Run in a child so that the rest of this binary keeps its catalogue.
    EXPECT_EXIT(
        {
            if (error_manager::shutdown() != 1 || error_manager::shutdown() != 0) {
                std::exit(2);
            }
            error_map none;
            if (error_manager::findErrors(".", none)) {
                std::exit(3);
            }
            error_manager::init();
            std::exit(error_manager::findErrors(".", none) ? 4 : 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Regex, InitKeepsTheFirstPattern) {
    vlk::regex expression(std::string("^01-"));
    ASSERT_NE(expression._code, nullptr);
    pcre* first = expression._code;
    expression.init(std::string("^02-"));
    EXPECT_EQ(expression._code, first);
    int vector[16];
    EXPECT_GE(pcre_exec(expression._code, expression._extra, "01-0001", 7, 0, 0, vector, 16), 0);
    EXPECT_LT(pcre_exec(expression._code, expression._extra, "02-0001", 7, 0, 0, vector, 16), 0);

    vlk::regex invalid(std::string("("));
    EXPECT_EQ(invalid._code, nullptr);
    EXPECT_EQ(invalid._extra, nullptr);
    invalid.init(std::string("x"));
    EXPECT_NE(invalid._code, nullptr);
}

TEST(Regex, ViewsCompileUpToTheirLengthOrFirstNul) {
    // Lengths around the on-stack copy: both must compile the whole view.
    for (std::size_t length : {127u, 128u, 5000u}) {
        std::string text(length, 'A');
        text.append("tail-not-in-view");
        vlk::regex expression(vlk::base::cstring{text.data(), length});
        ASSERT_NE(expression._code, nullptr) << length;
        const std::string subject(length, 'A');
        int vector[16];
        EXPECT_EQ(pcre_exec(expression._code, expression._extra, subject.data(),
                            static_cast<int>(subject.size()), 0, 0, vector, 16),
                  1)
            << length;
        EXPECT_LT(pcre_exec(expression._code, expression._extra, subject.data(),
                            static_cast<int>(length - 1), 0, 0, vector, 16),
                  0)
            << length;
    }
    const char withNul[] = {'0', '1', '\0', '(', '('};
    vlk::regex expression(vlk::base::cstring{withNul, sizeof withNul});
    ASSERT_NE(expression._code, nullptr);  // "((" was never compiled
    int vector[16];
    EXPECT_GE(pcre_exec(expression._code, expression._extra, "01-0001", 7, 0, 0, vector, 16), 0);
}

}  // namespace
