#include <vlk/logging/target.hpp>

#include <gtest/gtest.h>

#include <vlk/catalogue/errors.hpp>

#include "capture_target.hpp"

namespace {

using vlk::target_config;
using vlk::velk_logger;

// "errant" is read by its first letters, "debug" is info.
TEST(Target, LevelTakesTheMoreSevereOnesAndLevelsAddsSingleOnes) {
    const struct {
        const char *level, *levels;
        std::uint32_t mask;
    } rows[] = {
        {"warning", "info", 0xF8}, {"", "info", 0x08},      {"", "trace,emergency,bogus", 0x82},
        {"developer", "", 0xFF},   {"emergency", "", 0x80}, {"none", "", 0},
        {"errant", "", 0xE0},      {"", "debug", 0x08},     {"", "", 0},
    };
    for (const auto& r : rows) {
        vlk_test::capture_target target;
        target_config config{{"Level", {r.level}}, {"Levels", {r.levels}}};
        target._commonInit(config);
        EXPECT_EQ(target._levels, r.mask) << r.level << " / " << r.levels;
    }
}

// An excluded row is dropped even when named both ways; a pattern brings
// rows below the level through; one target's exclusion is its own.
TEST(Target, ExclusionBeatsLevelAndInclusion) {
    vlk::error_manager::init();
    const target_config both{{"Level", {"info"}},
                             {"IncludeErrors", {"00-0046"}},
                             {"ExcludeErrors", {"00-0046,00-0001"}}};
    const target_config pattern{{"Level", {"critical"}}, {"IncludeErrors", {"^00-000[12]$"}}};
    const struct {
        const target_config& config;
        const vlk::error_id& id;
        bool accepted;
    } rows[] = {
        {both, vlk::errors::E000001, false},   {both, vlk::errors::E000046, false},
        {pattern, vlk::errors::E000046, true}, {pattern, vlk::errors::E000001, true},
        {pattern, vlk::errors::E000002, true}, {pattern, vlk::errors::E000003, false},
    };
    for (const auto& r : rows) {
        vlk_test::capture_target target;
        target_config config = r.config;
        target._commonInit(config);
        EXPECT_EQ(target._accepts(r.id), r.accepted) << "row " << &r - rows;
    }
}

// Each row: a configuration, and the one problem found in it (empty: none).
// The demo program's test finds a bad size, an unknown key and a pattern
// that does not compile by their keys.
TEST(Target, CheckTargetConfigNamesEveryProblemByItsKey) {
    vlk::error_manager::init();
    const struct {
        target_config config;
        const char* problem;
    } rows[] = {
        {{{"Protocol", {"file"}}, {"Level", {"info"}}, {"RotationThreshold", {"5M"}}}, ""},
        {{{"Protocol", {"syslog"}}, {"Options", {"LOG_PID,LOG_CONS"}}}, ""},
        {{{"Protocol", {"stdout"}}, {"Level", {"loud"}}}, "it is read as no level at all"},
        {{{"Protocol", {"stdout"}}, {"Levels", {"info,errant"}}}, "it is read as \"error\""},
        {{{"Protocol", {"file"}}, {"Ident", {"x"}}}, "\"Ident\" is not a key of the \"file\""},
        {{{"Protocol", {"stdout"}}, {"IncludeErrors", {"ZZ"}}}, "\"ZZ\" names no row"},
        {{{"Protocol", {"ftp"}}}, "\"Protocol\": \"ftp\" is offered by no target factory"},
        {{{"Level", {"info"}}}, "\"Protocol\" is missing or empty"},
        {{{"Protocol", {"syslog"}}, {"Facility", {"LOG_LOCAL9"}}}, "\"LOG_LOCAL9\" is not a name"},
        {{{"Protocol", {"file"}}, {"FileName", {"bad dir/x.log"}}}, "\"bad dir\" has a character"},
    };
    for (const auto& row : rows) {
        const std::vector<std::string> problems = velk_logger::checkTargetConfig(row.config);
        ASSERT_EQ(problems.size(), *row.problem == '\0' ? 0u : 1u) << row.problem;
        for (const std::string& problem : problems) {
            EXPECT_NE(problem.find(row.problem), std::string::npos) << problem;
        }
    }
}

}  // namespace
