// The two output forms: text blocks for people, JSON Lines for programs.
#include <cinttypes>
#include <cstdio>

#include <vlk/catalogue/report.hpp>

#include "logscan.hpp"

namespace vlk::logscan {

namespace {

void appendNumber(std::string& out, std::uint64_t value) {
    char digits[24];
    const int length = std::snprintf(digits, sizeof digits, "%" PRIu64, value);
    out.append(digits, static_cast<std::size_t>(length));
}

// Control bytes of a body would drive the terminal; they show as "?".
void appendPrintable(std::string& out, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        out += (byte < 0x20 && byte != '\t') || byte == 0x7f ? '?' : c;
    }
}

// Length of the UTF-8 sequence at the start of `text`, 0 when it is not one
// (overlong forms, surrogates and values past U+10FFFF included).
std::size_t utf8Length(std::string_view text) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = at(0);
    std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    if (length == 0 || lead > 0xF4 || text.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const bool overlong = (lead == 0xE0 && at(1) < 0xA0) || (lead == 0xF0 && at(1) < 0x90);
    const bool outside = (lead == 0xED && at(1) >= 0xA0) || (lead == 0xF4 && at(1) >= 0x90);
    return overlong || outside ? 0 : length;
}

void appendField(std::string& out, const char* name, std::string_view value) {
    out += ",\"";
    out += name;
    out += "\":";
    appendJsonString(out, value);
}

void appendField(std::string& out, const char* name, std::uint64_t value) {
    out += ",\"";
    out += name;
    out += "\":";
    appendNumber(out, value);
}

std::string idText(const error_id& id) {
    std::string text;
    appendErrorId(text, id);
    return text;
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out += '"';
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text[0]);
        std::size_t used = 1;
        if (byte == '"' || byte == '\\') {
            out += '\\';
            out += static_cast<char>(byte);
        } else if (byte < 0x20 || byte == 0x7f) {
            out += "\\u00";
            out += hex[byte >> 4];
            out += hex[byte & 15];
        } else if (byte < 0x80) {
            out += static_cast<char>(byte);
        } else if ((used = utf8Length(text)) != 0) {
            out.append(text.data(), used);
        } else {
            out += "\\ufffd";
            used = 1;
        }
        text.remove_prefix(used);
    }
    out += '"';
}

void appendRowText(std::string& out, const row_entry& row) {
    appendReport(out, row.id, error_manager::errorInfo(row.id));
    if (!row.known) {
        out += "    CATALOGUE   : unknown identifier\n";
    }
    out += "    COUNT       : ";
    appendNumber(out, row.count);
    out += "\n    FIRST       : ";
    out += row.first.view();
    out += "\n    LAST        : ";
    out += row.last.view();
    out += "\n    EXAMPLE     : ";
    appendPrintable(out, row.example);
    out += "\n\n";
}

void appendSummaryText(std::string& out, const scan_totals& totals, std::size_t rows,
                       std::uint64_t unknownRows) {
    out += "SUMMARY\n    RECORDS     : ";
    appendNumber(out, totals.records);
    out += " selected of ";
    appendNumber(out, totals.recordLines);
    out += " record lines\n    ROWS        : ";
    appendNumber(out, rows);
    if (unknownRows != 0) {
        out += " (";
        appendNumber(out, unknownRows);
        out += " unknown)";
    }
    out += "\n    FILES       : ";
    appendNumber(out, totals.files);
    if (totals.damaged != 0) {
        out += " (";
        appendNumber(out, totals.damaged);
        out += " not read to the end)";
    }
    out += "\n    OTHER LINES : ";
    appendNumber(out, totals.otherLines);
    out += "\n    TIME SPAN   : ";
    if (totals.any) {
        out += totals.first.view();
        out += " to ";
        out += totals.last.view();
    } else {
        out += "none";
    }
    out += '\n';
}

void appendRowJson(std::string& out, const row_entry& row) {
    const error_description texts = error_manager::errorInfo(row.id);
    out += "{\"id\":";
    appendJsonString(out, idText(row.id));
    appendField(out, "level", logLevelName(row.id.level).view());
    out += ",\"known\":";
    out += row.known ? "true" : "false";
    appendField(out, "count", row.count);
    appendField(out, "first", row.first.view());
    appendField(out, "last", row.last.view());
    appendField(out, "example", row.example);
    appendField(out, "description", texts.description);
    appendField(out, "action", texts.action);
    out += "}\n";
}

void appendSummaryJson(std::string& out, const scan_totals& totals, std::size_t rows,
                       std::uint64_t unknownRows) {
    out += "{\"summary\":true";
    appendField(out, "records", totals.records);
    appendField(out, "record_lines", totals.recordLines);
    appendField(out, "rows", rows);
    appendField(out, "unknown_rows", unknownRows);
    appendField(out, "files", totals.files);
    appendField(out, "damaged_files", totals.damaged);
    appendField(out, "other_lines", totals.otherLines);
    if (totals.any) {
        appendField(out, "first", totals.first.view());
        appendField(out, "last", totals.last.view());
    }
    out += "}\n";
}

void appendRecordText(std::string& out, const row_entry& row, const record& line) {
    const error_description texts = error_manager::errorInfo(row.id);
    out += line.timeText;
    out += ' ';
    out += logLevelName(line.id.level).view();
    out += ' ';
    appendErrorId(out, line.id);
    out += ' ';
    appendPrintable(out, line.body);
    out += "\n    DESCRIPTION : ";
    out += texts.description;
    out += "\n    ACTION      : ";
    out += texts.action;
    out += "\n\n";
}

void appendRecordJson(std::string& out, const row_entry& row, const record& line) {
    const error_description texts = error_manager::errorInfo(row.id);
    out += "{\"time\":";
    appendJsonString(out, line.timeText);
    appendField(out, "id", idText(line.id));
    appendField(out, "level", logLevelName(line.id.level).view());
    appendField(out, "body", line.body);
    appendField(out, "description", texts.description);
    appendField(out, "action", texts.action);
    out += "}\n";
}

}  // namespace vlk::logscan
