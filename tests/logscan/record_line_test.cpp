#include "logscan.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace vlk::logscan;

const std::string big_body(1 << 20, 'x');
const std::string line = "2026-01-02T03:04:05.1234560+01:00 [12] warning: 0A-0007 text";

// Plain records, BSD syslog prefixes, cut lines and megabyte lines that are
// no record are read end to end by logscan_test.sh.
TEST(RecordLine, ParsesRecordsAloneAndBehindSyslogPrefixes) {
    struct row {
        std::string text;
        bool ok;
        const char* id;
        std::uint8_t level;
        std::string body;
    };
    const row rows[] = {
        {"2026-01-02T03:04:05.1234560 [1] info: 01-0001 no offset", true, "01-0001", 0x08,
         "no offset"},
        {"2026-11-22T12:00:01.123456+00:00 host app[42]: " + line, true, "0A-0007", 0x10, "text"},
        {"2026-01-02T03:04:05.1234560 [3] emergency: 1FB12345 five digits", true, "1FB12345", 0x80,
         "five digits"},
        {"2026-01-02T03:04:05.1234560 [3] stats: 00-0044", true, "00-0044", 0x04, ""},
        {"2026-01-02T03:04:05.1234560 [3] info: 00-0001 " + big_body, true, "00-0001", 0x08,
         big_body},
        {"2026-01-02T03:04:05.1234560 [12] warn", false, "", 0, ""},
        {"2026-01-02T03:04:05.1234560 [12] debug: 0A-0007 text", false, "", 0, ""},
        {"2026-01-02T03:04:05.1234560 [12] none: 0A-0007 text", false, "", 0, ""},
        {"2026-01-02T03:04:05.1234560 [12] info: 0a-0007 lower case", false, "", 0, ""},
        {"2026-01-02T03:04:05.1234560 [12] info: 0A-00071 long code", false, "", 0, ""},
        {"2026-01-02T03:04:05.1234560 [x] info: 0A-0007 thread", false, "", 0, ""},
        {"2026-13-02T03:04:05.1234560 [1] info: 0A-0007 month 13", false, "", 0, ""},
        {"Nov 22 12:00:01 host app: not a record: at all", false, "", 0, ""},
        {std::string("\x1f\x8b\0\xff: 2026", 10), false, "", 0, ""},
        {"", false, "", 0, ""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.text.substr(0, 80));
        record parsed;
        ASSERT_EQ(parseRecordLine(r.text, parsed), r.ok);
        if (r.ok) {
            std::string id;
            vlk::appendErrorId(id, parsed.id);
            EXPECT_EQ(id, r.id);
            EXPECT_EQ(parsed.id.level, r.level);
            EXPECT_EQ(parsed.body, r.body);
        }
    }
}

TEST(RecordLine, ReadsTimesAsRecordsPrintThemAndUsersTypeThem) {
    struct row {
        const char* text;
        bool partial;
        std::size_t used;
        std::int64_t wallSeconds;  // since 1970, as if the wall clock were UTC
        std::int32_t offset;
    };
    const row rows[] = {
        {"2026-01-02T03:04:05.1234560+01:00", false, 33, 1767323045, 3600},
        {"1970-01-01T00:00:00.0000000-02:30", false, 33, 0, -9000},
        {"2024-02-29T23:59:60.5000000", false, 27, 1709251200, 0},
        {"2026-01-02T03:04:05", false, 0, 0, 0},  // a record always has a fraction
        {"2026-01-02", true, 10, 1767312000, 0},
        {"2026-01-02 03:04", true, 16, 1767323040, 0},
        {"2026-01-02T03:04:05Z", true, 20, 1767323045, 0},
        {"2026-02-30T00:00", true, 16, 1772409600, 0},  // the day is not checked by month
        {"2026-1-02", true, 0, 0, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.text);
        timestamp time;
        ASSERT_EQ(parseTimestamp(r.text, time, r.partial), r.used);
        if (r.used != 0) {
            EXPECT_EQ(time.wallMicros / 1000000, r.wallSeconds);
            EXPECT_EQ(time.offsetSeconds, r.offset);
        }
    }
}

std::string recordAt(const char* time, const char* level, const char* id) {
    return std::string(time) + " [1] " + level + ": " + id + " body of " + id;
}

// Five records in two offsets; each filter keeps the rows and counts shown.
TEST(RowTable, FiltersAndOrdersRowsBySeverityThenCount) {
    const std::string lines[] = {
        recordAt("2026-01-02T10:00:00.0000000+01:00", "info", "00-0002"),
        recordAt("2026-01-02T11:00:00.0000000+01:00", "info", "00-0002"),
        recordAt("2026-01-02T10:30:00.0000000", "error", "00-0025"),
        recordAt("2026-01-02T12:00:00.0000000+01:00", "critical", "7F-0001"),
        recordAt("2026-01-02T09:00:00.0000000+01:00", "developer", "01-0016"),
    };
    // The level and pattern filters and the known flag run end to end in
    // logscan_test.sh.
    struct row {
        const char *since, *until;  // the wall clock, or an instant with "Z"
        std::string expected;       // id:count of each row in report order
    };
    const row rows[] = {
        {nullptr, nullptr, "7F-0001:1 00-0025:1 00-0002:2 01-0016:1 "},
        {"2026-01-02T10:30", nullptr, "7F-0001:1 00-0025:1 00-0002:1 "},
        {"2026-01-02T10:30Z", nullptr, "7F-0001:1 00-0025:1 "},
        {nullptr, "2026-01-02T10:00", "00-0002:1 01-0016:1 "},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.expected);
        scan_filter filter;
        filter.levels = 0xFF;
        filter.hasSince = r.since && parseTimestamp(r.since, filter.since, true) != 0;
        filter.hasUntil = r.until && parseTimestamp(r.until, filter.until, true) != 0;
        row_table table(filter);
        for (const auto& text : lines) {
            table.line(text, true);
        }
        table.line(lines[0], false);  // a cut last line is no record
        std::string seen;
        for (const row_entry* entry : table.selectedRows()) {
            vlk::appendErrorId(seen, entry->id);
            seen += ":" + std::to_string(entry->count) + " ";
            EXPECT_EQ(entry->example, "body of " + seen.substr(seen.size() - 10, 7));
        }
        EXPECT_EQ(seen, r.expected);
        EXPECT_EQ(table.totals().recordLines, 5U);
        EXPECT_EQ(table.totals().otherLines, 1U);
    }
}

TEST(JsonString, EscapesControlsAndReplacesBytesThatAreNotUtf8) {
    const std::pair<std::string, std::string> rows[] = {
        {"a\"b\\c", "\"a\\\"b\\\\c\""},
        {"tab\tnl\n\x7f", "\"tab\\u0009nl\\u000a\\u007f\""},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
         "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
        {"\xc3 \xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80 \xff",
         "\"\\ufffd \\ufffd\\ufffd \\ufffd\\ufffd\\ufffd \\ufffd\\ufffd\\ufffd\\ufffd \\ufffd\""},
    };
    for (const auto& [text, expected] : rows) {
        std::string out;
        appendJsonString(out, text);
        EXPECT_EQ(out, expected) << text;
    }
}

}  // namespace
