// vlk-logscan's units: the record-line parser, the line reader for plain and
// gzip input, the per-row table, the two output forms and follow mode.
//
// Everything streams: input passes through one fixed buffer, a line is a view
// into it, and the only memory that grows with the input is the table, one
// entry per distinct identifier. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

#include <vlk/catalogue/error_manager.hpp>

namespace vlk::logscan {

// ---------------------------------------------------------------------------
// Record lines

// A point in time as the records print it: local wall-clock time with the
// offset it was printed with (0 when the text has none).
struct timestamp {
    std::int64_t wallMicros = 0;  // wall-clock fields, counted as if they were UTC
    std::int32_t offsetSeconds = 0;
    bool hasOffset = false;

    std::int64_t instant() const { return wallMicros - std::int64_t{offsetSeconds} * 1000000; }
};

// Reads "YYYY-MM-DDTHH:MM:SS.fraction" with an optional "Z" or "+HH:MM" from
// the start of `text`. With `partial`, the fields after the day may be left
// out from any point on and a blank may stand for the "T" (what a user types
// on the command line). Returns the bytes used, 0 when there is no time.
std::size_t parseTimestamp(std::string_view text, timestamp& out, bool partial = false);

// One record line: timestamp, " [", thread id, "] ", level, ": ",
// identifier, " ", body. The views point into the parsed line.
struct record {
    timestamp time;
    std::string_view timeText;
    std::string_view thread;
    error_id id;  // level from the line
    std::string_view body;
};

// Parses a line (without its line feed) as a record line, or as one behind
// a syslog prefix such as rsyslog writes ("Nov 22 12:00:01 host tag[7]: ").
// False, with `out` unspecified, for anything else.
bool parseRecordLine(std::string_view line, record& out);

// The level bit of an exact level name ("developer" ... "emergency"), 0 for
// anything else, "none" included.
std::uint8_t levelByName(std::string_view name);

// ---------------------------------------------------------------------------
// Reading lines

class line_consumer {
  public:
    virtual ~line_consumer() = default;
    // One line without its line feed. `terminated` is false for a last line
    // that ends without one, the mark of a writer that was cut off. A line
    // longer than the buffer comes as its first buffer's worth.
    virtual void line(std::string_view text, bool terminated) = 0;
};

// Splits a byte stream into lines through one fixed buffer. Bytes are
// written straight into `space()` and announced with `commit`.
class line_splitter {
  public:
    explicit line_splitter(std::size_t capacity = std::size_t{1} << 20);

    char* space() { return _buffer.data() + _end; }
    std::size_t spaceSize() const { return _buffer.size() - _end; }
    // Hands every complete line among the new bytes to `sink`.
    void commit(std::size_t count, line_consumer& sink);
    // Hands over what is left as an unterminated line, and starts afresh.
    void finish(line_consumer& sink);
    // Drops what is left without handing it over.
    void reset() { _begin = _end = 0, _skipping = false; }
    // Bytes of an unfinished line held back.
    std::size_t pending() const { return _end - _begin; }

  private:
    std::vector<char> _buffer;
    std::size_t _begin = 0;  // start of the first unfinished line
    std::size_t _end = 0;    // end of the data
    bool _skipping = false;  // inside the rest of an overlong line
};

// What went wrong in one input; empty when nothing did.
struct read_problem {
    std::string what;
};

// Reads all of `fd` into `sink` through `splitter`: as gzip (every member)
// when it starts with the gzip magic bytes, else as plain text. A damaged
// or truncated gzip stream, or a read error, is described in `problem`; the
// lines before the fault have been handed over all the same.
void readStream(int fd, line_splitter& splitter, line_consumer& sink, read_problem& problem);

// Reads plain text from `fd` up to its present end, keeping an unfinished
// last line in `splitter` for the next call (follow mode).
void readAvailable(int fd, line_splitter& splitter, line_consumer& sink, read_problem& problem);

// ---------------------------------------------------------------------------
// The per-row table

struct scan_filter {
    std::uint32_t levels = 0xFF;  // level bits to keep
    void* match = nullptr;        // regex manager handle; null keeps all rows
    bool hasSince = false, hasUntil = false;
    timestamp since, until;

    bool keepsTime(const timestamp& time) const;
};

// A timestamp with its text, kept without allocating.
struct stamp {
    timestamp time;
    char text[40] = {};
    std::uint8_t length = 0;

    void set(const record& from);
    std::string_view view() const { return {text, length}; }
};

struct row_entry {
    error_id id;  // the catalogue's level when known, else the first record's
    bool known = false;
    bool selected = false;
    std::uint64_t count = 0;
    stamp first, last;
    std::string example;  // the body of the first record, cut to a few hundred bytes
};

struct scan_totals {
    std::uint64_t records = 0;  // record lines selected
    std::uint64_t recordLines = 0;
    std::uint64_t otherLines = 0;
    std::uint64_t files = 0;
    std::uint64_t damaged = 0;  // inputs that could not be read to their end
    bool any = false;
    stamp first, last;
};

class row_table : public line_consumer {
  public:
    explicit row_table(const scan_filter& filter) : _filter(filter) {}

    void line(std::string_view text, bool terminated) override;
    // Counts one record; returns the row when the record was selected.
    const row_entry* add(const record& line);

    // The selected rows, most severe first, then by count, then identifier.
    std::vector<const row_entry*> selectedRows() const;
    scan_totals& totals() { return _totals; }
    const scan_totals& totals() const { return _totals; }

    // Called for each selected record as it is counted (follow mode).
    void (*onRecord)(const row_entry&, const record&, const void*) = nullptr;
    const void* onRecordContext = nullptr;

  private:
    row_entry& _row(const error_id& id);

    scan_filter _filter;
    std::unordered_map<std::uint32_t, row_entry> _rows;
    row_entry* _lastRow = nullptr;  // consecutive records often share a row
    std::uint32_t _lastKey = 0;
    scan_totals _totals;
};

// ---------------------------------------------------------------------------
// Output

// The block of one row: velkmsg's report of the row, then count, first and
// last time and an example body.
void appendRowText(std::string& out, const row_entry& row);
void appendSummaryText(std::string& out, const scan_totals& totals, std::size_t rows,
                       std::uint64_t unknownRows);
// One JSON object per line.
void appendRowJson(std::string& out, const row_entry& row);
void appendSummaryJson(std::string& out, const scan_totals& totals, std::size_t rows,
                       std::uint64_t unknownRows);
// `text` as a JSON string with its quotes; bytes that are not UTF-8 become
// U+FFFD, so the result is valid whatever the input.
void appendJsonString(std::string& out, std::string_view text);
// A record as follow mode prints it: the line's time, level and identifier,
// the body, then the row's description and action; or the same as one JSON
// object.
void appendRecordText(std::string& out, const row_entry& row, const record& line);
void appendRecordJson(std::string& out, const row_entry& row, const record& line);

// ---------------------------------------------------------------------------
// Named inputs

// Says on standard error what went wrong with a named input.
void warn(const std::string& name, const std::string& what);
// The regular files of a directory, in name order.
std::vector<std::string> directoryFiles(const std::string& path, std::error_code& error);
// Reads a named file to its end into `table` and counts it; one that cannot
// be opened, or not read to its end, is named and counted as damaged.
void scanFile(const std::string& path, line_splitter& splitter, row_table& table);

// ---------------------------------------------------------------------------
// Follow mode

// Follows a growing plain file, or the newest file of a directory. When a
// newer file appears beside it whose name has the same shape (the same text
// with other digits, as a rotating target names its files), the rest of the
// current file is read and the newer one is followed from its start. A file
// that shrinks was started over and is read again from its start.
class follower {
  public:
    follower(const std::string& path, row_table& table) : _path(path), _table(table) {}
    ~follower();
    follower(const follower&) = delete;
    follower& operator=(const follower&) = delete;

    // Reads the file, or the directory's files, as they stand. False when
    // there is nothing to follow, said on standard error.
    bool start();
    // Reads what arrives, checking every `pollMillis`, until `stop` is set.
    void run(const volatile int& stop, int pollMillis = 200);

  private:
    bool _open(const std::string& file);
    std::string _next() const;

    std::string _path, _directory, _current;
    std::string _seenNext;  // the next file as the last round saw it
    row_table& _table;
    line_splitter _splitter;
    int _fd = -1;
};

// ---------------------------------------------------------------------------
// The program

// vlk-logscan's whole run; returns the exit status.
int run(int argc, char** argv);

}  // namespace vlk::logscan
