#include <vlk/system/string_utils.hpp>

#include <vlk/system/fast_itoa.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <sstream>

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

namespace {

constexpr const auto& k_regex = _vlk_string_utils::lookup_tables<0>::lookup_regex;

static_assert(std::count_if(k_regex.begin(), k_regex.end(),
                            [](unsigned char v) { return v != 0; }) == 14);
static_assert(k_regex['.'] != 0 && k_regex['\\'] != 0 && k_regex['-'] == 0 && k_regex[0xAE] == 0);

// Bytes above 0x7F index the table's upper half, which is zero.
bool hasRegexCharacter(const char* text, const char* end) {
    for (; text != end; ++text) {
        if (k_regex[static_cast<unsigned char>(*text)] != 0) {
            return true;
        }
    }
    return false;
}

bool isTrueText(const char* text, std::uint64_t length, bool fallback) {
    if (length == 0) {
        return fallback;
    }
    return length == 4 && text[0] == 't';
}

int octalDigit(char c) {
    return c >= '0' && c <= '7' ? c - '0' : -1;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

bool isRegex(const std::string& text) {
    const char* c = text.c_str();
    return hasRegexCharacter(c, c + std::strlen(c));
}

bool isRegex(const base::cstring& text) {
    return hasRegexCharacter(text.data, text.data + text.length);
}

bool isRegex(const char* text, unsigned long length) {
    return hasRegexCharacter(text, text + length);
}

bool isTrue(const std::string& text, bool fallback) {
    return isTrueText(text.data(), text.size(), fallback);
}

bool isTrue(const base::cstring& text, bool fallback) {
    return isTrueText(text.data, text.length, fallback);
}

std::uint64_t convertInt(char* buffer, unsigned long value) {
    return static_cast<std::uint64_t>(fast_itoa::ltoa(buffer, value) - buffer);
}

std::string sizeAsString(unsigned long size) {
    struct unit {
        unsigned long below;
        unsigned long divisor;
        const char* suffix;
    };
    static constexpr unit k_units[] = {
        {1000, 1, "B"},
        {1000000, 1000, "KB"},
        {1000000000, 1000000, "MB"},
        {1000000000000, 1000000000, "GB"},
        {1000000000000000, 1000000000000, "TB"},
    };
    if (size == 0) {
        return "0B";
    }
    for (const unit& u : k_units) {
        if (size < u.below) {
            return std::to_string(size / u.divisor) + u.suffix;
        }
    }
    return std::to_string(size / 1000000000000000) + "PB";
}

std::string toUpper(const std::string& text) {
    std::string result(text);
    for (char& c : result) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return result;
}

std::string toLower(const std::string& text) {
    std::string result(text);
    for (char& c : result) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

// One pass, reading at `in` ahead of or level with the writes at `out`.
bool compress_escapes(base::cstring& text) {
    char* out = const_cast<char*>(text.data);
    const char* in = text.data;
    const char* const end = in + text.length;
    while (in != end) {
        const char c = *in++;
        if (c != '\\') {
            *out++ = c;
            continue;
        }
        if (in == end) {
            return false;
        }
        const char escape = *in++;
        switch (escape) {
            case 'a':
                *out++ = '\a';
                break;
            case 'b':
                *out++ = '\b';
                break;
            case 'f':
                *out++ = '\f';
                break;
            case 'n':
                *out++ = '\n';
                break;
            case 'r':
                *out++ = '\r';
                break;
            case 't':
                *out++ = '\t';
                break;
            case '0':
            case '1':
            case '2':
            case '3':
            case '4':
            case '5':
            case '6':
            case '7': {
                // Exactly three octal digits, this one and two more.
                if (end - in < 2) {
                    return false;
                }
                const int middle = octalDigit(in[0]);
                const int low = octalDigit(in[1]);
                if (middle < 0 || low < 0) {
                    return false;
                }
                *out++ = static_cast<char>(((escape - '0') * 64 + middle * 8 + low) & 0xFF);
                in += 2;
                break;
            }
            case 'x': {
                if (end - in < 2) {
                    return false;
                }
                const int high = hexDigit(in[0]);
                const int low = hexDigit(in[1]);
                if (high < 0 || low < 0) {
                    return false;
                }
                *out++ = static_cast<char>(high * 16 + low);
                in += 2;
                break;
            }
            default:
                *out++ = escape;
                break;
        }
    }
    text.length = static_cast<std::uint64_t>(out - text.data);
    return true;
}

std::size_t tokenize(const std::string& text, std::vector<std::string>& tokens, char) {
    std::istringstream stream(text);
    std::string token;
    std::size_t count = 0;
    while (std::getline(stream, token, ',')) {
        if (!token.empty()) {
            tokens.push_back(token);
            ++count;
        }
    }
    return count;
}

std::size_t tokenize(const base::cstring& text, std::vector<base::cstring>& tokens,
                     char delimiter) {
    const char* piece = text.data;
    const char* const end = text.data + text.length;
    std::size_t count = 0;
    while (piece != end) {
        const auto* found = static_cast<const char*>(
            std::memchr(piece, delimiter, static_cast<std::size_t>(end - piece)));
        const char* stop = found != nullptr ? found : end;
        tokens.push_back({piece, static_cast<std::uint64_t>(stop - piece)});
        ++count;
        piece = found != nullptr ? found + 1 : end;
    }
    return count;
}

}  // namespace vlk::string_utils
