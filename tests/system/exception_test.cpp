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

// A copy cloned through the base keeps the dynamic type and the text, and
// raise throws it as that type.
TEST(Exception, CloneAndRaiseKeepTheDynamicType) {
    EXPECT_EQ(vlk::exception().why(), "");
    const std::unique_ptr<const vlk::exception> originals[] = {
        std::make_unique<vlk::exception>("base"),
        std::make_unique<string_convert_exception>("convert"),
        std::make_unique<parse_exception>("parse"),
        std::make_unique<overflow_exception>("overflow")};
    for (const auto& original : originals) {
        const std::unique_ptr<vlk::exception> copy(original->clone());
        const vlk::exception& copied = *copy;
        EXPECT_EQ(typeid(copied), typeid(*original)) << original->why();
        EXPECT_STREQ(copy->what(), original->why().c_str());
        try {
            copy->raise();
            ADD_FAILURE() << original->why() << ": raise returned";
        } catch (const vlk::exception& caught) {
            EXPECT_EQ(typeid(caught), typeid(*original)) << original->why();
        }
    }
}

// Both forms take glibc's text unless an EINVAL is left in errno; the buffer
// form returns the length it wrote.
TEST(ErrorText, UnknownFormOnlyForAStaleEinval) {
    const struct {
        int staleErrno, number;
        std::string text, buffered;
    } cases[] = {
        {0, ENOENT, std::strerror(ENOENT), std::strerror(ENOENT)},
        {0, 99999, "Unknown error 99999", "Unknown error 99999"},
        {EINVAL, ENOENT, "Unknown errno value: 2", "unknown error"},
        {EINVAL, -5, "Unknown errno value: -5", "unknown error"},
    };
    char buffer[64];
    for (const auto& c : cases) {
        errno = c.staleErrno;
        EXPECT_EQ(vlk::error::strerror(c.number), c.text) << c.number;
        errno = c.staleErrno;
        EXPECT_EQ(vlk::string_utils::strerror(buffer, sizeof buffer, c.number), c.buffered.size())
            << c.number;
        EXPECT_STREQ(buffer, c.buffered.c_str()) << c.number;
    }
    EXPECT_EQ(vlk::string_utils::strerror(nullptr, sizeof buffer, ENOENT), 0u);
    errno = 0;
}

}  // namespace
