#include <vlk/system/exception.hpp>
#include <vlk/system/string_utils.hpp>

#include <string.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vlk {

exception::exception(const std::string& message) : _message(message) {}

// Defined here, so that the class's vtable and type information have one home.
exception::~exception() = default;

const char* exception::what() const noexcept {
    return _message.c_str();
}

void exception::raise() const {
    throw *this;
}

exception* exception::clone() const {
    return new exception(*this);
}

namespace string_convert_detail {

string_convert_exception::string_convert_exception(const std::string& message)
    : exception(message) {}

void string_convert_exception::raise() const {
    throw *this;
}

string_convert_exception* string_convert_exception::clone() const {
    return new string_convert_exception(*this);
}

parse_exception::parse_exception(const std::string& message) : string_convert_exception(message) {}

void parse_exception::raise() const {
    throw *this;
}

parse_exception* parse_exception::clone() const {
    return new parse_exception(*this);
}

overflow_exception::overflow_exception(const std::string& message)
    : string_convert_exception(message) {}

void overflow_exception::raise() const {
    throw *this;
}

overflow_exception* overflow_exception::clone() const {
    return new overflow_exception(*this);
}

}  // namespace string_convert_detail

namespace {

// The text strerror_r gives: the GNU form returns it, the XSI form (a libc
// without _GNU_SOURCE) leaves it in the buffer and returns a status.
[[maybe_unused]] const char* strerrorText(const char* result, const char*) {
    return result;
}

[[maybe_unused]] const char* strerrorText(int, const char* buffer) {
    return buffer;
}

}  // namespace

namespace error {

std::string strerror(int number) {
    char buffer[512];
    buffer[0] = '\0';
    const char* text = strerrorText(::strerror_r(number, buffer, sizeof buffer), buffer);
    if (errno == EINVAL) {
        return "Unknown errno value: " + std::to_string(number);
    }
    return text;
}

}  // namespace error

namespace string_utils {

std::uint64_t strerror(char* buffer, unsigned long size, int number) {
    if (buffer == nullptr) {
        return 0;
    }
    buffer[0] = '\0';
    const char* text = strerrorText(::strerror_r(number, buffer, size), buffer);
    if (text != buffer) {
        // The text is copied with its NUL when it fits and cut to `size`
        // bytes, unterminated, when it does not. The copy stops at the NUL,
        // rather than always taking `size` bytes, only so as not to read past
        // the end of libc's string; the text in the buffer is the same.
        std::memcpy(buffer, text, std::min<std::size_t>(size, std::strlen(text) + 1));
    }
    // The limit is one byte short of the 14 bytes of the text with its NUL:
    // a 13-byte buffer gets the text unterminated rather than an overrun.
    if (errno == EINVAL && size > 12) {
        std::memcpy(buffer, "unknown error", std::min<std::size_t>(size, 14));
    }
    return ::strnlen(buffer, size);
}

}  // namespace string_utils

}  // namespace vlk
