#include <vlk/regex/jit_regex.hpp>
#include <vlk/regex/regex.hpp>

#include <gtest/gtest.h>
#include <pcre.h>

#include <string>

namespace {

using vlk::jit_regex;
using vlk::base::cstring;

// pcre_exec on the object's fields, as the regex manager runs it.
template <class Regex>
bool matches(const Regex& regex, const std::string& subject) {
    int vector[30];
    return regex._code != nullptr && pcre_exec(regex._code, regex._extra, subject.data(),
                                               int(subject.size()), 0, 0, vector, 30) >= 0;
}

TEST(JitRegex, ValidPatternIsJitStudiedWithTheMatchLimitLifted) {
    jit_regex regex(std::string("^0[1-9]-000[12]$"));
    ASSERT_NE(regex._code, nullptr);
    ASSERT_NE(regex._extra, nullptr);
    EXPECT_NE(regex._extra->flags & PCRE_EXTRA_MATCH_LIMIT, 0u);
    EXPECT_EQ(regex._extra->match_limit, 4294967295UL);
    int jitCompiled = 0;
    ASSERT_EQ(pcre_fullinfo(regex._code, regex._extra, PCRE_INFO_JIT, &jitCompiled), 0);
    EXPECT_EQ(jitCompiled, 1);
}

template <class Regex>
class RegexInit : public testing::Test {};
using regex_types = testing::Types<jit_regex, vlk::regex>;
TYPED_TEST_SUITE(RegexInit, regex_types);

// In both forms an invalid pattern leaves no code, so the next init
// compiles; compiled code stays, whatever form the next pattern has.
TYPED_TEST(RegexInit, KeepsTheFirstCompiledPatternInEveryForm) {
    const std::string a = "^a$", b = "^b$", bad = "01-(00";
    TypeParam fromString(a), fromView(cstring{a.data(), a.size()}), badString(bad),
        badView(cstring{bad.data(), bad.size()});
    badString.init(a);
    badView.init(cstring{a.data(), a.size()});
    for (TypeParam* regex : {&fromString, &fromView, &badString, &badView}) {
        regex->init(b);
        regex->init(cstring{b.data(), b.size()});
        EXPECT_TRUE(matches(*regex, "a"));
        EXPECT_FALSE(matches(*regex, "b"));
    }
}

// A recompile that fails keeps the entry point chosen before, either one.
TEST(JitRegex, FailedRecompileLeavesTheEntryPointAsItWas) {
    for (const bool before : {false, true}) {
        jit_regex regex(std::string("^a$"));
        regex._useJitExec = before;
        pcre* first = regex._code;  // _init overwrites it without freeing
        regex._init("01-(00", 6);
        EXPECT_EQ(regex._code, nullptr);
        EXPECT_EQ(regex._useJitExec, before) << "flag before: " << before;
        pcre_free(first);
    }
}

TEST(JitRegex, ViewsAreCopiedWithTheirLengthOnStackOrHeap) {
    const std::string text = "01-00X";
    jit_regex prefix(cstring{text.data(), 5});  // no NUL behind the view
    EXPECT_TRUE(matches(prefix, "01-00"));
    EXPECT_FALSE(matches(prefix, "01-0"));
    for (std::size_t length : {127u, 128u, 300u}) {  // the longer ones go to the heap
        const std::string pattern = "^" + std::string(length - 2, 'z') + "$";
        jit_regex regex(cstring{pattern.data(), pattern.size()});
        EXPECT_TRUE(matches(regex, std::string(length - 2, 'z'))) << length;
        EXPECT_FALSE(matches(regex, std::string(length - 3, 'z'))) << length;
    }
    jit_regex empty(cstring{});  // a zero length: the pointer is never read
    EXPECT_TRUE(matches(empty, "anything"));
}

}  // namespace
