#include <vlk/system/string_utils.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

TEST(StringUtils, Uchar2HexGivesTwoUpperCaseDigitsForEveryByte) {
    for (unsigned int byte = 0; byte < 256; ++byte) {
        char expected[3];
        std::snprintf(expected, sizeof expected, "%02X", byte);
        const vlk::base::cstring& entry = vlk::string_utils::uchar2hex[byte];
        ASSERT_EQ(entry.length, 2u) << byte;
        EXPECT_EQ(std::string(entry.data, 2), expected) << byte;
    }
}

}  // namespace
