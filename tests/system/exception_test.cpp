#include <vlk/system/exception.hpp>
#include <vlk/system/string_utils.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace vlk::string_convert_detail;

// Cloned through the base, each class raises its own type with the text; a
// sliced clone would raise its base, which EXPECT_THROW refuses.
TEST(Exception, CloneAndRaiseKeepTheDynamicType) {
    auto raiseClone = [](const vlk::exception& original) {
        const std::unique_ptr<vlk::exception> copy(original.clone());
        EXPECT_STREQ(copy->what(), original.why().c_str());
        copy->raise();
    };
    EXPECT_THROW(raiseClone(vlk::exception("base")), vlk::exception);
    EXPECT_THROW(raiseClone(string_convert_exception("convert")), string_convert_exception);
    EXPECT_THROW(raiseClone(parse_exception("parse")), parse_exception);
    EXPECT_THROW(raiseClone(overflow_exception("overflow")), overflow_exception);
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
