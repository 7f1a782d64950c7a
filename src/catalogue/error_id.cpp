#include <vlk/catalogue/error_id.hpp>

#include <bit>
#include <cstring>

#include <vlk/system/fast_itoa.hpp>
#include <vlk/system/string_utils.hpp>

namespace vlk {

const base::cstring log_level_cstrings[9] = {
    {"none", 4},    {"developer", 9}, {"trace", 5},    {"stats", 5},     {"info", 4},
    {"warning", 7}, {"error", 5},     {"critical", 8}, {"emergency", 9},
};

base::cstring logLevelName(std::uint32_t level) {
    return level == 0 ? log_level_cstrings[0] : log_level_cstrings[std::countr_zero(level) + 1];
}

std::string getLogLevelString(log_level level) {
    auto bits = static_cast<std::uint32_t>(level);
    if (bits == 0) {
        return std::string(log_level_cstrings[0].view());
    }
    std::string text;
    for (unsigned bit = 0; bit < 8; ++bit) {
        if ((bits & (1u << bit)) != 0) {
            if (!text.empty()) {
                text += ',';
            }
            text += log_level_cstrings[bit + 1].view();
        }
    }
    return text;
}

log_level getLogLevel(const base::cstring& text) {
    if (text.length < 4) {
        return log_level::none;
    }
    switch (text.data[0]) {
        case 'c':
            return log_level::critical;
        case 'i':
            return log_level::info;
        case 's':
            return log_level::stats;
        case 't':
            return log_level::trace;
        case 'w':
            return log_level::warning;
        case 'd':
            return text.data[2] == 'v' ? log_level::developer : log_level::info;
        case 'e':
            return text.data[1] == 'r' ? log_level::error : log_level::emergency;
        default:
            return log_level::none;
    }
}

std::size_t renderErrorId(const error_id& id, char* out) {
    std::memcpy(out, string_utils::uchar2hex[id.category].data, 2);
    std::size_t separator;
    if (id.code >= 10000) {
        out[2] = 'B';
        separator = 1;
    } else {
        // "-000", cut so that the padding and the digits make four places.
        std::memcpy(out + 2, "-000", 4);
        separator = id.code >= 1000 ? 1 : id.code >= 100 ? 2 : id.code >= 10 ? 3 : 4;
    }
    char* end = fast_itoa::itoa(out + 2 + separator, id.code);
    return static_cast<std::size_t>(end - out);
}

void appendErrorId(std::string& text, const error_id& id) {
    char buffer[error_id_buffer_size];
    text.append(buffer, renderErrorId(id, buffer));
}

void foldHexLetters(std::string& text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'f') {
            c = static_cast<char>(c - 0x20);
        }
    }
}

}  // namespace vlk
