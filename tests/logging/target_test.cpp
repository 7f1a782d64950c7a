#include <vlk/logging/target.hpp>

#include <gtest/gtest.h>

#include <vlk/catalogue/errors.hpp>

namespace {

using vlk::target_config;
using vlk::velk_logger;

// A target that only filters, so the shared base can be driven alone.
class filter_only : public velk_logger::logger {
  public:
    bool init() override { return true; }
    void shutdown() override {}
    void log(const vlk::error_id&, const char*, unsigned long) override {}
    void rotate() override {}
    void flush() override {}
};

std::uint32_t levelsOf(target_config config) {
    filter_only target;
    target._commonInit(config);
    return target._levels;
}

class Target : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { vlk::error_manager::init(); }
};

// "errant" is read by its first letters, "debug" is info.
TEST_F(Target, LevelTakesTheMoreSevereOnesAndLevelsAddsSingleOnes) {
    const struct {
        const char *level, *levels;
        std::uint32_t mask;
    } rows[] = {
        {"warning", "info", 0xF8}, {"", "info", 0x08},      {"", "trace,emergency,bogus", 0x82},
        {"developer", "", 0xFF},   {"emergency", "", 0x80}, {"none", "", 0},
        {"errant", "", 0xE0},      {"", "debug", 0x08},     {"", "", 0},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(levelsOf({{"Level", {r.level}}, {"Levels", {r.levels}}}), r.mask)
            << r.level << " / " << r.levels;
    }
}

// An excluded row is dropped even when named both ways; a pattern brings
// rows below the level through; one target's exclusion is its own.
TEST_F(Target, ExclusionBeatsLevelAndInclusion) {
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
        filter_only target;
        target_config config = r.config;
        target._commonInit(config);
        EXPECT_EQ(target._accepts(r.id), r.accepted) << "row " << &r - rows;
    }
}

// Each row: a configuration, and the one problem found in it (empty: none).
TEST_F(Target, CheckTargetConfigNamesEveryProblemByItsKey) {
    const struct {
        target_config config;
        const char* problem;
    } rows[] = {
        {{{"Protocol", {"file"}}, {"Level", {"info"}}, {"RotationThreshold", {"5M"}}}, ""},
        {{{"Protocol", {"syslog"}}, {"Options", {"LOG_PID,LOG_CONS"}}}, ""},
        {{{"Protocol", {"gzip"}}, {"RotationThreshold", {"5XB"}}},
         "\"RotationThreshold\": \"5XB\" is not a size"},
        {{{"Protocol", {"stdout"}}, {"Level", {"loud"}}},
         "\"Level\": \"loud\" is not a level name (none, developer, trace, stats, info, warning, "
         "error, critical, emergency); it is read as no level at all"},
        {{{"Protocol", {"stdout"}}, {"Levels", {"info,errant"}}}, "it is read as \"error\""},
        {{{"Protocol", {"stderr"}}, {"Levle", {"info"}}},
         "\"Levle\" is not a key of the \"stderr\" target; it is ignored"},
        {{{"Protocol", {"file"}}, {"Ident", {"x"}}}, "\"Ident\" is not a key of the \"file\""},
        {{{"Protocol", {"stdout"}}, {"FatalErrors", {"00-0041,0[1"}}},
         "\"FatalErrors\": the pattern \"0[1\" does not compile; it is ignored"},
        {{{"Protocol", {"stdout"}}, {"IncludeErrors", {"ZZ"}}}, "\"ZZ\" names no row"},
        {{{"Protocol", {"ftp"}}}, "\"Protocol\": \"ftp\" is offered by no target factory"},
        {{{"Level", {"info"}}}, "\"Protocol\" is missing or empty"},
        {{{"Protocol", {"syslog"}}, {"Facility", {"LOG_LOCAL9"}}}, "\"LOG_LOCAL9\" is not a name"},
        {{{"Protocol", {"file"}}, {"FileName", {"bad dir/x.log"}}}, "\"bad dir\" has a character"},
    };
    for (const auto& row : rows) {
        const std::vector<std::string> problems = velk_logger::checkTargetConfig(row.config);
        if (*row.problem == '\0') {
            EXPECT_TRUE(problems.empty()) << problems.front();
        } else {
            ASSERT_EQ(problems.size(), 1u) << row.problem;
            EXPECT_NE(problems[0].find(row.problem), std::string::npos) << problems[0];
        }
    }
}

}  // namespace
