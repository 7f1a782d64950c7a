// The catalogue's rows, search and reports are checked byte for byte through
// velkmsg (cli_test); here is what only the library shows.
#include <vlk/catalogue/error_manager.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vlk/catalogue/errors.hpp>

namespace {

using vlk::error_id;
using vlk::error_manager;
using vlk::error_map;

// Identifiers and levels show in the golden reports; the split into
// fragments here and in the logger's fatal mapping record (00-0046).
TEST(Catalogue, RowObjectsCarryTheirFragments) {
    EXPECT_EQ(vlk::errors::E300004.fragments.size(), 1u);
    EXPECT_EQ(vlk::errors::E122001.fragments[1], "] publish command not entitled for ");
}

// velkmsg folds hex letters, the search does not; an invalid pattern finds
// nothing (velkmsg's test and a target's row lists run more of them). "zz"
// adds no hit, but the rows held make it true.
TEST(Catalogue, SearchFoldsNothingAndAddsToWhatTheResultHolds) {
    error_map map;
    for (const std::string pattern : {"ff-0001", "[0-9A-F]{2}B", "("}) {
        EXPECT_FALSE(error_manager::findErrors(pattern, map)) << pattern;
    }
    for (const auto& [pattern, size] : {std::pair("^01-000", 9u), {"^01-00", 25u}, {"zz", 25u}}) {
        EXPECT_TRUE(error_manager::findErrors(pattern, map)) << pattern;
        EXPECT_EQ(map.size(), size) << pattern;
    }
}

// A pattern without syntax is searched for, not compiled: it must find the
// rows PCRE finds, in the same order. A NUL ends the pattern for PCRE.
TEST(Catalogue, PlainPatternsFindWhatTheirExpressionFinds) {
    const auto keys = [](const std::string& pattern) {
        error_map map;
        error_manager::findErrors(pattern, map);
        std::vector<error_id> ids;
        for (const auto& row : map) {
            ids.push_back(row.key);
        }
        return ids;
    };
    for (const std::string plain : {"", "0", "1-00", "01-0001", "01-00011", "1]", "zz"}) {
        EXPECT_EQ(keys(plain), keys("(?:" + plain + ")")) << plain;
    }
    EXPECT_EQ(keys(" -0001\t"), keys("(?:-0001)"));
    EXPECT_EQ(keys(std::string("1-00\0zz", 7)), keys("1-00"));
}

// Rows are looked up whatever the level, as first registered; unknown ones
// have fallbacks.
TEST(Catalogue, ErrorInfoIgnoresTheLevelKeepsTheFirstRegistrationAndHasFallbacks) {
    error_manager::registerError(error_id{0x80, 0x00, 2}, "other", "other action");
    const auto known = error_manager::errorInfo(error_id{0x20, 0x00, 2});
    EXPECT_EQ(known.description, "A message containing the VELK instance name.");
    EXPECT_EQ(known.action, "No recommended action available.");
    error_id id{};
    error_manager::findError("00-0002", id);
    EXPECT_EQ(id.level, 0x08);
    const auto unknown = error_manager::errorInfo(error_id{0x20, 0x7F, 1});
    EXPECT_EQ(unknown.description, "No description found.");
    EXPECT_EQ(unknown.action, "No recommended action.");
}

// Six or seven trimmed characters: two hex digits at the start, four decimal
// ones at the end, the middle never read.
TEST(Catalogue, FindErrorTellsUnknownFromMalformed) {
    const error_id untouched{0x55, 0x66, 0x7777};
    const error_id id0101{vlk::errors::E010001.level, 0x01, 1};
    const struct {
        std::string text;
        bool result;
        error_id id;
    } cases[] = {
        {" 1d-0001 ", true, {vlk::errors::E1D0001.level, 0x1D, 1}},
        {"010001", true, id0101},
        {"01x0001", true, id0101},
        {"1-0001", true, id0101},
        {"abc", true, untouched},  // no identifier at all
        {"", true, untouched},
        {"01-00001", true, untouched},
        {"12345678", true, untouched},
        {"zz-9999", false, untouched},  // 00-9999: well formed, not registered
        {"7F-0001", false, untouched},
        {"01-001", false, untouched},  // strtoul("-001") wraps to code 65535
    };
    for (const auto& c : cases) {
        error_id id = untouched;
        EXPECT_EQ(error_manager::findError(c.text, id), c.result) << c.text;
        EXPECT_EQ(std::pair(id, id.level), std::pair(c.id, c.id.level)) << c.text;
    }
}

// In a child, so that the rest of this binary keeps its catalogue.
TEST(Catalogue, ShutdownEmptiesTheCatalogueForGood) {
    EXPECT_EXIT(
        {
            error_map none;
            const bool emptied = error_manager::shutdown() == 1 && error_manager::shutdown() == 0 &&
                                 !error_manager::findErrors(".", none);
            error_manager::init();
            std::exit(emptied && !error_manager::findErrors(".", none) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
