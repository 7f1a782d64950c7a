// vlk::string_utils::compress_escapes on arbitrary bytes, in place in a heap
// block of exactly the input's size, against a plain reference on
// std::string: both refuse the same texts, a refusal keeps the length, and
// on success length and bytes are equal.
#include <vlk/system/string_utils.hpp>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

namespace {

bool isOctal(char c) {
    return c >= '0' && c <= '7';
}

std::optional<std::string> reference(const std::string& in) {
    std::string out;
    for (std::size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '\\') {
            out += in[i];
            continue;
        }
        if (++i == in.size()) {
            return std::nullopt;
        }
        const char e = in[i];
        const std::string simple = "a\ab\bf\fn\nr\rt\t";
        const std::size_t found = simple.find(e);
        if (found != std::string::npos && found % 2 == 0) {
            out += simple[found + 1];
        } else if (isOctal(e) || e == 'x') {
            // Three octal digits, or "x" and two hexadecimal ones.
            if (in.size() - i < 3) {
                return std::nullopt;
            }
            const std::string number = isOctal(e) ? in.substr(i, 3) : in.substr(i + 1, 2);
            for (const char c : number) {
                if (isOctal(e) ? !isOctal(c) : !std::isxdigit(static_cast<unsigned char>(c))) {
                    return std::nullopt;
                }
            }
            out += static_cast<char>(std::stoi(number, nullptr, isOctal(e) ? 8 : 16) & 0xFF);
            i += 2;
        } else {
            out += e;
        }
    }
    return out;
}

void check(bool ok, const char* what, const std::string& text) {
    if (!ok) {
        std::fprintf(stderr, "compress_escapes_fuzz: %s for \"%s\"\n", what, text.c_str());
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::unique_ptr<char[]> storage(new char[size]);
    if (size != 0) {
        std::memcpy(storage.get(), data, size);
    }
    vlk::base::cstring text{storage.get(), size};
    const bool ok = vlk::string_utils::compress_escapes(text);
    const std::optional<std::string> expected = reference(input);
    check(ok == expected.has_value(), "accepts differently", input);
    if (ok) {
        check(text.view() == *expected, "differs from the reference", input);
    } else {
        check(text.length == size, "refused but shortened", input);
    }
    return 0;
}
