#include <vlk/regex/regex_manager.hpp>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../concurrency.hpp"

namespace {

using velk::velk_regex_manager;

// Before init, terminate() does nothing and a registration builds the
// registry on demand.
TEST(RegexManager, MatchingOnHandles) {
    velk_regex_manager::terminate();
    EXPECT_EQ(velk_regex_manager::registeredCount(), 0u);
    std::thread fresh([] {
        int ovector[30];
        EXPECT_FALSE(velk_regex_manager::isMatch(nullptr, "abc", 3));
        EXPECT_EQ(velk_regex_manager::match(nullptr, "abc", 3, ovector, 30), -1);

        void* digits = velk_regex_manager::registerRegex("([0-9]+)-([0-9]+)");
        ASSERT_NE(digits, nullptr);
        EXPECT_EQ(velk_regex_manager::match(digits, "id 12-345", 9, ovector, 30), 3);
        EXPECT_EQ(std::pair(ovector[2], ovector[5]), std::pair(3, 9));
        EXPECT_EQ(velk_regex_manager::match(digits, "1-2 and 33-44", 13, 4, ovector, 30), 3);
        EXPECT_EQ(ovector[0], 8);
        velk_regex_manager::threadTerminate();  // frees the thread's JIT stack, or it leaks
    });
    fresh.join();

    // Twenty groups overflow isMatch's 16-int vector; PCRE's 0 still matches.
    void* many = velk_regex_manager::registerRegex(
        "(a)(a)(a)(a)(a)(a)(a)(a)(a)(a)"
        "(a)(a)(a)(a)(a)(a)(a)(a)(a)(a)");
    EXPECT_TRUE(velk_regex_manager::isMatch(many, std::string(20, 'a').c_str(), 20));
    EXPECT_FALSE(velk_regex_manager::isMatch(many, "aaa", 3));
}

// The cstring32 form passes its text and pattern on as this one does.
TEST(RegexManager, LazyFormsCacheTheHandleInTheCallersSlot) {
    void* slot = nullptr;
    vlk::base::cstring text{"01-0001", 7};
    // An invalid pattern leaves the slot empty, for the next pattern to fill.
    EXPECT_FALSE(velk_regex_manager::isMatch(text, vlk::base::cstring{"[", 1}, slot));
    EXPECT_EQ(slot, nullptr);
    EXPECT_TRUE(velk_regex_manager::isMatch(text, vlk::base::cstring{"-000", 4}, slot));
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(slot, velk_regex_manager::registerRegex("-000"));
    // The cached slot wins over the pattern, which is not looked at again.
    EXPECT_TRUE(velk_regex_manager::isMatch(text, vlk::base::cstring{"zzz", 3}, slot));
}

// Each thread registers every pattern in one of the two forms: one handle
// per pattern text, compiled once; an invalid pattern is null, never stored.
TEST(RegexManager, RacingRegistrationsShareOneHandleAndStoreNoFailure) {
    constexpr int kThreads = 8, kPatterns = 200;
    std::vector<std::vector<void*>> seen(kThreads, std::vector<void*>(kPatterns));
    const std::uint64_t before = velk_regex_manager::registeredCount();
    vlk_test::onThreads(kThreads, [&](unsigned t) {
        for (int p = 0; p < kPatterns; ++p) {
            const std::string pattern = "race-" + std::to_string(p);
            seen[t][p] = t % 2 == 0 ? velk_regex_manager::registerRegex(pattern)
                                    : velk_regex_manager::registerRegex(
                                          vlk::base::cstring{pattern.data(), pattern.size()});
            EXPECT_EQ(velk_regex_manager::isMatch(seen[t][p], "a race-1 b", 10), p == 1);
            EXPECT_EQ(velk_regex_manager::registerRegex("race-(" + pattern), nullptr);
        }
        velk_regex_manager::threadTerminate();
    });
    for (int p = 0; p < kPatterns; ++p) {
        ASSERT_NE(seen[0][p], nullptr);
        for (int t = 1; t < kThreads; ++t) {
            EXPECT_EQ(seen[t][p], seen[0][p]) << p;
        }
    }
    EXPECT_EQ(velk_regex_manager::registeredCount(), before + kPatterns);
}

}  // namespace
