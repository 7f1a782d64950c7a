// The per-row table: one entry per identifier seen, counted as lines come.
#include <algorithm>
#include <bit>
#include <cstring>

#include <vlk/regex/regex_manager.hpp>

#include "logscan.hpp"

namespace vlk::logscan {

namespace {

// Bodies kept as a row's example are cut here: enough to recognise the
// message, little enough for a table of many rows.
constexpr std::size_t example_limit = 300;

std::uint32_t keyOf(const error_id& id) {
    return (std::uint32_t{id.category} << 16) | id.code;
}

// Position of a single-bit level: developer 0 ... emergency 7.
int severity(std::uint8_t level) {
    return level == 0 ? 0 : std::countr_zero(level);
}

}  // namespace

bool scan_filter::keepsTime(const timestamp& time) const {
    // A bound without an offset reads as wall-clock time in each record's
    // own offset; one with an offset is an instant. Both bounds are inclusive.
    const auto compare = [&](const timestamp& bound) {
        return bound.hasOffset ? time.instant() <=> bound.instant()
                               : time.wallMicros <=> bound.wallMicros;
    };
    return !(hasSince && compare(since) < 0) && !(hasUntil && compare(until) > 0);
}

void stamp::set(const record& from) {
    time = from.time;
    length = static_cast<std::uint8_t>(std::min(from.timeText.size(), sizeof text));
    std::memcpy(text, from.timeText.data(), length);
}

void row_table::line(std::string_view text, bool terminated) {
    record parsed;
    // A line without its line feed is the cut end of a killed writer's
    // file: its fields may be whole, its record is not.
    if (terminated && parseRecordLine(text, parsed)) {
        add(parsed);
    } else {
        ++_totals.otherLines;
    }
}

row_entry& row_table::_row(const error_id& id) {
    const std::uint32_t key = keyOf(id);
    if (_lastRow != nullptr && key == _lastKey) {
        return *_lastRow;
    }
    auto [found, fresh] = _rows.try_emplace(key);
    row_entry& row = found->second;
    if (fresh) {
        row.id = id;
        // The exact lookup tells a registered row (and gives its level)
        // from an identifier that is well-formed but unknown.
        std::string text;
        appendErrorId(text, id);
        error_id stored;
        row.known = error_manager::findError(text, stored) && stored == id;
        if (row.known) {
            row.id.level = stored.level;
        }
        row.selected = (row.id.level & _filter.levels) != 0 &&
                       (_filter.match == nullptr ||
                        velk::velk_regex_manager::isMatch(_filter.match, text.data(), text.size()));
    }
    _lastRow = &row;  // unordered_map keeps its entries in place on growth
    _lastKey = key;
    return row;
}

const row_entry* row_table::add(const record& line) {
    ++_totals.recordLines;
    row_entry& row = _row(line.id);
    if (!row.selected || !_filter.keepsTime(line.time)) {
        return nullptr;
    }
    if (row.count == 0) {
        row.first.set(line);
        row.last.set(line);
        row.example.assign(line.body.substr(0, example_limit));
    } else if (line.time.instant() < row.first.time.instant()) {
        row.first.set(line);
    } else if (line.time.instant() >= row.last.time.instant()) {
        row.last.set(line);
    }
    ++row.count;
    ++_totals.records;
    if (!_totals.any || line.time.instant() < _totals.first.time.instant()) {
        _totals.first.set(line);
    }
    if (!_totals.any || line.time.instant() >= _totals.last.time.instant()) {
        _totals.last.set(line);
    }
    _totals.any = true;
    if (onRecord != nullptr) {
        onRecord(row, line, onRecordContext);
    }
    return &row;
}

std::vector<const row_entry*> row_table::selectedRows() const {
    std::vector<const row_entry*> rows;
    for (const auto& [key, row] : _rows) {
        if (row.count != 0) {
            rows.push_back(&row);
        }
    }
    std::sort(rows.begin(), rows.end(), [](const row_entry* a, const row_entry* b) {
        if (severity(a->id.level) != severity(b->id.level)) {
            return severity(a->id.level) > severity(b->id.level);
        }
        if (a->count != b->count) {
            return a->count > b->count;
        }
        return keyOf(a->id) < keyOf(b->id);
    });
    return rows;
}

}  // namespace vlk::logscan
