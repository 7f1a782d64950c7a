// The file target: record lines to a plain file named from a pattern, with a
// new file when the current one has grown past a threshold or on request.
//
// The name is `strftime` of "FileName" in local time, and "%n" (strftime's
// line feed) stands for the open count, at least five digits. Opening a name
// that differs from the current one appends to it; reopening the current name
// empties it. A failed open keeps the old file and still counts, so the next
// name differs. Size rotation happens before a write, so a file goes past the
// threshold by at most one record.
//
// A fault never silences the target for good. When a size rotation cannot
// open its new file, lines go on into the old one and the open is tried
// again at most once a second, when a line arrives; a failed reopen of the
// current name, which leaves no file, is retried the same way, and lines are
// dropped meanwhile. A full disk costs lines, never the process: from the
// first write that fails with ENOSPC lines are dropped, and free space is
// looked at, on the coarse monotonic clock, no more than once in 6 seconds
// and only when a line arrives. Dropped lines are counted, and the first line
// written afterwards is preceded by one record-shaped line that says how many
// were lost. A file that is opened, or written again after a short write, and
// whose last byte is not a line feed first gets one, so that no record
// merges with a cut line.
//
// Lines are gathered in a buffer of the target's own and go to the file in
// whole buffers by write(2), and whatever is gathered goes out at every
// `flush`, which the logger calls after each pass, before a rotation and at
// `shutdown`. A write that fails loses the lines it did not get out whole:
// they count as dropped, and an ENOSPC among them suspends writing as above.
//
// Everything but the factory and `init` runs on the logging thread, without a
// lock. The destructor does not close the file, `shutdown` does.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <vlk/logging/target.hpp>

namespace vlk {

namespace _file_logger_detail {

// `pattern` through strftime in local time (empty when the result does not
// fit in 4096 bytes), then every line feed, "%n" included, replaced by
// `count` in at least five digits. Shared with the gzip target.
std::string expandFileName(const std::string& pattern, std::uint64_t count);

// The line that tells of `dropped` lines lost while `name` could not be
// written. It is shaped like a record, so that readers of record lines take
// it in their stride: the timestamp of `line` (the first line written again),
// log id 0, which no thread is given, and the identifier 00-0000, the
// catalogue's row whose whole text comes with the call, at that row's level
// "developer", so that readers who check a line against the catalogue agree
// with it. Shared with the gzip target.
std::string droppedLinesNotice(const char* line, unsigned long length, std::uint64_t dropped,
                               const std::string& name);

// Whether `name` is a regular file whose last byte is not a line feed.
bool endsInCutLine(const std::string& name);

// Coarse monotonic clock, which costs no system call, in nanoseconds and
// in whole seconds.
std::int64_t coarseNanoseconds();
std::int64_t coarseSeconds();

// While writing is suspended after a failed write: whether a look at free
// space is due (more than 5 s after `lastCheck`, in coarse seconds) and
// finds more than `length` bytes beside `name`. A look that finds too
// little moves `lastCheck`. Shared with the gzip target.
bool spaceIsBack(const std::string& name, unsigned long length, std::int64_t& lastCheck);

// Whether a target may try to open a file: always after an open that
// worked, and a second after one that failed (`lastTry` in coarse
// nanoseconds).
bool mayTryOpen(bool lastFailed, std::int64_t lastTry);

class file_logger_impl : public velk_logger::logger {
  public:
    bool init() override;
    void shutdown() override;
    void log(const error_id& id, const char* line, unsigned long length) override;
    void rotate() override;
    void flush() override;
    bool getFileLoggerInfo(file_logging_info& info) override;

    FILE* _file = nullptr;
    std::string _fileNamePattern = "%Y-%m-%dT%H:%M:%S.log";
    std::string _currentFileName;              // the name `_file` was opened under
    std::uint64_t _rotationThreshold = ~0ull;  // all ones: no size rotation
    std::uint64_t _rotationCount = 0;          // opens so far, the number "%n" writes
    std::uint64_t _bytesWritten = 0;           // position in the current file
    bool _diskFull = false;                    // writing suspended after ENOSPC
    std::int64_t _lastSpaceCheck = 0;          // coarse monotonic seconds
    bool _lastOpenFailed = false;              // the latest open did not succeed
    std::int64_t _lastOpenTry = 0;             // coarse monotonic nanoseconds
    std::uint64_t _droppedLines = 0;           // lost since the last line written
    bool _checkLineEnd = false;                // the file may end inside a line
    // Lines not yet given to the file: `_buffered` bytes at `_buffer`. Large
    // writes cost the kernel far less per byte than the 4 KiB of stdio.
    static constexpr std::size_t bufferBytes = 256 * 1024;
    std::unique_ptr<char[]> _buffer = std::make_unique_for_overwrite<char[]>(bufferBytes);
    std::size_t _buffered = 0;

  private:
    std::string constructFileName() const;
    void openOrSwitchFile();
    // Whether `log` may try to open a file: always after a successful open,
    // once a second after a failed one.
    bool _mayTryOpen() const;
    // While the disk is full: whether the line at hand may be written now.
    bool _spaceIsBack(unsigned long length);
    // Adds `text` to the buffer, counted, writing the buffer out first when
    // it has no room. False when that write failed and `text` was not taken.
    bool _write(const char* text, unsigned long length);
    // Writes `length` bytes at `text` to the file, all or as much as the file
    // takes. A failure drops the lines not written whole, takes their bytes
    // back out of `_bytesWritten`, and on ENOSPC suspends writing.
    bool _writeOut(const char* text, std::size_t length);
    // Writes the buffer out and empties it, whatever the outcome.
    bool _writeBuffer();
};

}  // namespace _file_logger_detail

struct file_logger {
    // Builds a file target from "RotationThreshold", "FileName" and the
    // common keys. Opens nothing.
    static base::shared_pointer<velk_logger::logger> factory(target_config& config);
    // Appends a sentence for each of "RotationThreshold" and "FileName" that
    // the factory would not take as meant. Also for the gzip target.
    static void checkConfig(const target_config& config, std::vector<std::string>& problems);
};

}  // namespace vlk
