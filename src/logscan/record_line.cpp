// Record lines as the logger writes them, alone or behind a syslog prefix.
#include "logscan.hpp"

#include <algorithm>

namespace vlk::logscan {

namespace {

// Reads exactly `count` decimal digits at `at`; false when one is missing.
bool digits(std::string_view text, std::size_t at, std::size_t count, int& value) {
    if (text.size() < at + count) {
        return false;
    }
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - '0';
        if (digit > 9) {
            return false;
        }
        value = value * 10 + static_cast<int>(digit);
    }
    return true;
}

bool charAt(std::string_view text, std::size_t at, char c) {
    return at < text.size() && text[at] == c;
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
std::int64_t daysFromCivil(int year, int month, int day) {
    year -= month <= 2 ? 1 : 0;
    const int era = (year >= 0 ? year : year - 399) / 400;
    const int yearOfEra = year - era * 400;
    const int dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return std::int64_t{era} * 146097 + dayOfEra - 719468;
}

// "Z", "+HH:MM" or "-HH:MM" at `at`; returns the bytes used, 0 for none.
std::size_t parseOffset(std::string_view text, std::size_t at, timestamp& out) {
    if (charAt(text, at, 'Z')) {
        out.hasOffset = true;
        out.offsetSeconds = 0;
        return 1;
    }
    int hours = 0, minutes = 0;
    if (at < text.size() && (text[at] == '+' || text[at] == '-') &&
        digits(text, at + 1, 2, hours) && charAt(text, at + 3, ':') &&
        digits(text, at + 4, 2, minutes) && hours < 24 && minutes < 60) {
        out.hasOffset = true;
        out.offsetSeconds = (hours * 3600 + minutes * 60) * (text[at] == '-' ? -1 : 1);
        return 6;
    }
    return 0;
}

// The identifier at the start of `text`: two hexadecimal digits, then "-"
// and four decimal digits or "B" and five. The logger writes the "B" form
// only for codes of five digits, so "1FB02345" is no identifier: each one
// has a single spelling. Returns the bytes used, 0 if none.
std::size_t parseIdentifier(std::string_view text, error_id& id) {
    if (text.size() < 7) {
        return 0;
    }
    int category = 0;
    for (std::size_t i = 0; i < 2; ++i) {
        const char c = text[i];
        const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0) {
            return 0;
        }
        category = category * 16 + digit;
    }
    const std::size_t width = text[2] == '-' ? 4 : text[2] == 'B' ? 5 : 0;
    int code = 0;
    if (width == 0 || !digits(text, 3, width, code) || code > 0xFFFF ||
        (width == 5) != (code >= 10000)) {
        return 0;
    }
    id.category = static_cast<std::uint8_t>(category);
    id.code = static_cast<std::uint16_t>(code);
    return 3 + width;
}

// A record line starting at the first byte of `line`.
bool parseBareRecord(std::string_view line, record& out) {
    out.time = {};
    const std::size_t timeLength = parseTimestamp(line, out.time);
    if (timeLength == 0 || line.compare(timeLength, 2, " [") != 0) {
        return false;
    }
    out.timeText = line.substr(0, timeLength);
    std::string_view rest = line.substr(timeLength + 2);

    const std::size_t close = rest.find(']');
    if (close == 0 || close > 20 || rest.compare(close, 2, "] ") != 0 ||
        rest.substr(0, close).find_first_not_of("0123456789") != std::string_view::npos) {
        return false;
    }
    out.thread = rest.substr(0, close);
    rest.remove_prefix(close + 2);

    const std::size_t colon = rest.substr(0, 10).find(':');
    if (colon == std::string_view::npos || rest.compare(colon, 2, ": ") != 0) {
        return false;
    }
    out.id.level = levelByName(rest.substr(0, colon));
    if (out.id.level == 0) {
        return false;
    }
    rest.remove_prefix(colon + 2);

    const std::size_t idLength = parseIdentifier(rest, out.id);
    if (idLength == 0 || (idLength < rest.size() && rest[idLength] != ' ')) {
        return false;
    }
    out.body = rest.substr(std::min(idLength + 1, rest.size()));
    return true;
}

// How far into a line a syslog prefix may reach: time, host and tag.
constexpr std::size_t syslog_prefix_limit = 512;

}  // namespace

std::size_t parseTimestamp(std::string_view text, timestamp& out, bool partial) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!digits(text, 0, 4, year) || !charAt(text, 4, '-') || !digits(text, 5, 2, month) ||
        !charAt(text, 7, '-') || !digits(text, 8, 2, day) || month < 1 || month > 12 || day < 1 ||
        day > 31) {
        return 0;
    }
    std::size_t at = 10;
    std::int64_t micros = 0;
    const auto finish = [&] {
        const std::int64_t seconds =
            daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
        out.wallMicros = seconds * 1000000 + micros;
        return at;
    };
    if (partial && at == text.size()) {
        return finish();
    }
    const bool separator = charAt(text, at, 'T') || (partial && charAt(text, at, ' '));
    if (!separator || !digits(text, at + 1, 2, hour) || !charAt(text, at + 3, ':') ||
        !digits(text, at + 4, 2, minute) || hour > 23 || minute > 59) {
        return 0;
    }
    at += 6;
    const bool hasSeconds = charAt(text, at, ':');
    if (hasSeconds && (!digits(text, at + 1, 2, second) || second > 60)) {
        return 0;
    }
    if (!hasSeconds && !partial) {
        return 0;
    }
    at += hasSeconds ? 3 : 0;
    if (hasSeconds && charAt(text, at, '.')) {
        // The fraction's digits, however many; the first six are micro-
        // seconds and the rest only more precision than is kept.
        std::size_t count = 0;
        while (at + 1 + count < text.size() && text[at + 1 + count] >= '0' &&
               text[at + 1 + count] <= '9') {
            if (count < 6) {
                micros = micros * 10 + (text[at + 1 + count] - '0');
            }
            ++count;
        }
        if (count == 0) {
            return 0;
        }
        for (std::size_t i = count; i < 6; ++i) {
            micros *= 10;
        }
        at += 1 + count;
    } else if (!partial) {
        return 0;
    }
    out.hasOffset = false;
    out.offsetSeconds = 0;
    at += parseOffset(text, at, out);
    return finish();
}

std::uint8_t levelByName(std::string_view name) {
    for (std::size_t i = 1; i < std::size(log_level_cstrings); ++i) {
        if (name == log_level_cstrings[i].view()) {
            return static_cast<std::uint8_t>(1U << (i - 1));
        }
    }
    return 0;
}

bool parseRecordLine(std::string_view line, record& out) {
    if (parseBareRecord(line, out)) {
        return true;
    }
    // Behind a syslog prefix the record starts after the tag's ": ". The
    // record's own ": " comes after its timestamp, so the first one that is
    // followed by a record is the tag's.
    const std::string_view head = line.substr(0, syslog_prefix_limit);
    for (std::size_t at = head.find(": "); at != std::string_view::npos;
         at = head.find(": ", at + 2)) {
        if (parseBareRecord(line.substr(at + 2), out)) {
            return true;
        }
    }
    return false;
}

}  // namespace vlk::logscan
