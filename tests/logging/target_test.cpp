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

TEST_F(Target, LevelTakesTheMoreSevereOnesAndLevelsAddsSingleOnes) {
    const struct {
        const char *level, *levels;
        std::uint32_t mask;
    } rows[] = {
        {"warning", "info", 0xF8}, {"", "info", 0x08},  {"", "trace,emergency,bogus", 0x82},
        {"developer", "", 0xFF},   {"emergency", "", 0x80}, {"none", "", 0},
        {"errant", "", 0xE0},  // read by its first letters
        {"", "debug", 0x08},   // "debug" is info
        {"", "", 0},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(levelsOf({{"Level", {r.level}}, {"Levels", {r.levels}}}), r.mask)
            << r.level << " / " << r.levels;
    }
}

TEST_F(Target, ExclusionBeatsLevelAndInclusion) {
    const vlk::error_id& info = vlk::errors::E000001;       // level info
    const vlk::error_id& emergency = vlk::errors::E000046;  // level emergency
    target_config first{{"Level", {"info"}},
                        {"IncludeErrors", {"00-0046"}},
                        {"ExcludeErrors", {"00-0046,00-0001"}}};
    filter_only a;
    a._commonInit(first);
    EXPECT_FALSE(a._accepts(info));
    EXPECT_FALSE(a._accepts(emergency));  // named both ways: dropped

    target_config second{{"Level", {"critical"}}, {"IncludeErrors", {"^00-000[12]$"}}};
    filter_only b;
    b._commonInit(second);
    EXPECT_TRUE(b._accepts(emergency));  // excluded only by the other target
    EXPECT_TRUE(b._accepts(info));       // below the level, named by the pattern
    EXPECT_FALSE(b._accepts(vlk::errors::E000003));
    EXPECT_EQ(b._includeErrors.size(), 2u);
}

TEST_F(Target, DescribeWritesLevelsAndIdentifiers) {
    target_config config{
        {"Level", {"error"}}, {"IncludeErrors", {"00-0001"}}, {"FatalErrors", {"00-0041"}}};
    filter_only target;
    target._commonInit(config);
    vlk::file_logging_info info;
    EXPECT_FALSE(target.getFileLoggerInfo(info));
    info.describe(target);
    EXPECT_EQ(info.target, &target);
    EXPECT_EQ(info.levels, "error,critical,emergency");
    EXPECT_EQ(info.includeErrors, "00-0001");
    EXPECT_EQ(info.excludeErrors, "");
    EXPECT_EQ(target._fatalErrors.size(), 1u);
    // An identifier parsed from text has level 0; identity ignores the level.
    vlk::error_id parsed;
    ASSERT_TRUE(vlk::error_manager::findError("00-0041", parsed));
    EXPECT_TRUE(target._fatalErrors.contains(parsed));
}

}  // namespace
