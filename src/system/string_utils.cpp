#include <vlk/system/string_utils.hpp>

#include <array>
#include <cstddef>

namespace vlk::string_utils {

namespace {

// The 512 characters behind uchar2hex: byte i at [2 i, 2 i + 2).
constexpr std::array<char, 512> makeHexText() {
    constexpr char digits[] = "0123456789ABCDEF";
    std::array<char, 512> text{};
    for (std::size_t i = 0; i < 256; ++i) {
        text[2 * i] = digits[i >> 4];
        text[2 * i + 1] = digits[i & 0xF];
    }
    return text;
}

constexpr std::array<char, 512> k_hex_text = makeHexText();

static_assert(k_hex_text[20] == '0' && k_hex_text[21] == 'A');
static_assert(k_hex_text[510] == 'F' && k_hex_text[511] == 'F');

constexpr base::cstring hexEntry(std::size_t byte) {
    return {k_hex_text.data() + 2 * byte, 2};
}

}  // namespace

// An array cannot be initialised from a constexpr function, so the 256
// entries are spelled by doubling macros; each is an address constant into
// k_hex_text and constinit makes the compiler prove no code runs for them.
#define VLK_HEX_4(i) hexEntry(i), hexEntry((i) + 1), hexEntry((i) + 2), hexEntry((i) + 3)
#define VLK_HEX_16(i) VLK_HEX_4(i), VLK_HEX_4((i) + 4), VLK_HEX_4((i) + 8), VLK_HEX_4((i) + 12)
#define VLK_HEX_64(i) \
    VLK_HEX_16(i), VLK_HEX_16((i) + 16), VLK_HEX_16((i) + 32), VLK_HEX_16((i) + 48)

constinit const base::cstring uchar2hex[256] = {VLK_HEX_64(0), VLK_HEX_64(64), VLK_HEX_64(128),
                                                VLK_HEX_64(192)};

#undef VLK_HEX_64
#undef VLK_HEX_16
#undef VLK_HEX_4

}  // namespace vlk::string_utils
