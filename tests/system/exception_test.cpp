#include <vlk/system/exception.hpp>
#include <vlk/system/string_utils.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <typeinfo>

namespace {

using namespace vlk::string_convert_detail;

// Raises `original` through a base reference and checks what comes out.
template <class Exception>
void expectCloneAndRaiseKeepTheType(const Exception& original) {
    SCOPED_TRACE(typeid(Exception).name());
    const vlk::exception& base = original;
    const std::unique_ptr<vlk::exception> copy(base.clone());
    const vlk::exception& copied = *copy;
    EXPECT_EQ(typeid(copied), typeid(Exception));
    EXPECT_EQ(copy->why(), original.why());
    EXPECT_STREQ(copy->what(), original.why().c_str());
    try {
        copy->raise();
    } catch (const Exception& caught) {
        EXPECT_EQ(typeid(caught), typeid(Exception));
        EXPECT_EQ(caught.why(), original.why());
        return;
    }
    ADD_FAILURE() << "raise did not throw the dynamic type";
}

TEST(Exception, CloneAndRaiseKeepTheDynamicType) {
    EXPECT_EQ(vlk::exception().why(), "");
    expectCloneAndRaiseKeepTheType(vlk::exception("base"));
    expectCloneAndRaiseKeepTheType(string_convert_exception("convert"));
    expectCloneAndRaiseKeepTheType(parse_exception("parse"));
    expectCloneAndRaiseKeepTheType(overflow_exception("overflow"));
    // A parse_exception held as a base is caught as one, and not as a sibling.
    const std::unique_ptr<vlk::exception> kept(parse_exception("kept").clone());
    EXPECT_THROW(kept->raise(), parse_exception);
    EXPECT_THROW(kept->raise(), string_convert_exception);
    EXPECT_FALSE(dynamic_cast<overflow_exception*>(kept.get()));
}

TEST(ErrorText, StringFormUsesTheUnknownFormOnlyForAStaleEinval) {
    errno = 0;
    EXPECT_EQ(vlk::error::strerror(ENOENT), std::strerror(ENOENT));
    EXPECT_EQ(vlk::error::strerror(99999), "Unknown error 99999");  // glibc's own text
    errno = EINVAL;
    EXPECT_EQ(vlk::error::strerror(ENOENT), "Unknown errno value: 2");
    EXPECT_EQ(vlk::error::strerror(-5), "Unknown errno value: -5");
    errno = 0;
}

TEST(ErrorText, BufferFormWritesTheTextAndItsLength) {
    char buffer[64];
    EXPECT_EQ(vlk::string_utils::strerror(nullptr, sizeof buffer, ENOENT), 0u);
    errno = 0;
    EXPECT_EQ(vlk::string_utils::strerror(buffer, sizeof buffer, ENOENT),
              std::strlen(std::strerror(ENOENT)));
    EXPECT_STREQ(buffer, std::strerror(ENOENT));
    EXPECT_EQ(vlk::string_utils::strerror(buffer, sizeof buffer, 99999), 19u);
    EXPECT_STREQ(buffer, "Unknown error 99999");
    errno = EINVAL;
    EXPECT_EQ(vlk::string_utils::strerror(buffer, sizeof buffer, ENOENT), 13u);
    EXPECT_STREQ(buffer, "unknown error");
    errno = 0;
}

}  // namespace
