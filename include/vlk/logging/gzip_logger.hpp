// The gzip target: record lines compressed through zlib's gz interface into
// a file named from a pattern, with a new file past a threshold or on request.
//
// Names are made as for the file target ("%n" is the open count), but with
// ".log.gz" defaults. Opening another name appends a further gzip member to
// it, which gzip readers take as one stream; reopening the current name
// empties it. The threshold is compared with the compressed bytes zlib has
// put into the file, so the size moves when a flush pushes data out.
// `flush` is a sync flush: all that was written becomes readable from the
// file, at some cost in compression.
//
// A fault never silences the target for good. A new file that does not open
// leaves the old one in use, and a missing file is tried again, at most once
// a second when a line arrives. After a write error (a full disk) lines are
// dropped, nothing is rotated by size, and free space is looked at no more
// than once in 6 seconds, as the file target does. When there is room again,
// the member that failed is cut back to its last sync flush and finished by
// hand (an empty final block and the trailer of what it holds up to there,
// read back from the file), and writing goes on in a new member of the same
// file: `gzip -t` accepts the whole file, and lines written after that flush
// count as dropped. Dropped lines are counted, and the first line of the new
// member is a record-shaped line saying how many (see `droppedLinesNotice`
// in file_logger.hpp). A file left by a killed process, whose last member
// ends in a sync flush without a trailer, is ended the same way before a
// member is appended, and a cut last line gets its line feed.
//
// Everything but the factory and `init` runs on the logging thread, without a
// lock.
#pragma once

#include <cstdint>
#include <string>

#include <vlk/logging/target.hpp>

// zlib's file handle, declared as <zlib.h> declares it (gzFile is a pointer
// to it), so that this header does not bring in zlib's interface.
struct gzFile_s;

namespace vlk {

namespace _gzip_logger_detail {

class gzip_logger_impl : public velk_logger::logger {
  public:
    bool init() override;
    void shutdown() override;
    void log(const error_id& id, const char* line, unsigned long length) override;
    void rotate() override;
    void flush() override;
    bool getFileLoggerInfo(file_logging_info& info) override;

    gzFile_s* _file = nullptr;
    std::string _fileNamePattern = "%Y-%m-%dT%H:%M:%S.log.gz";
    std::string _currentFileName;              // the name `_file` was opened under
    std::uint64_t _rotationThreshold = ~0ull;  // all ones: no size rotation
    std::uint64_t _rotationCount = 0;          // opens so far, the number "%n" writes
    std::uint64_t _bytesWritten = 0;           // compressed bytes in the current file
    bool _writeFailed = false;                 // zlib's stream is broken; lines are dropped
    std::int64_t _lastSpaceCheck = 0;          // coarse monotonic seconds
    bool _lastOpenFailed = false;              // the latest open did not succeed
    std::int64_t _lastOpenTry = 0;             // coarse monotonic nanoseconds
    std::uint64_t _droppedLines = 0;           // lost and not yet told

    // The current member: where it starts in the file, where its last
    // successful sync flush ended, and the lines given to zlib since then.
    struct member_state {
        std::int64_t start = 0;
        std::int64_t flushedOffset = 0;
        std::uint64_t linesSinceFlush = 0;
    } _member;

  private:
    std::string constructFileName() const;
    void openOrSwitchFile();
    bool _mayTryOpen() const;
    // After a write error: whether there is room again; if so the broken
    // member is finished and a new one opened.
    bool _resume(unsigned long length);
    // Cuts the closed file back to the member's last sync flush and ends
    // that member with an empty final block and its trailer. Returns the
    // last byte of the text kept, a line feed if there is none.
    char _finishBrokenMember();
    bool _write(const char* text, unsigned long length);
    void _failed();
    void _startMember();
};

}  // namespace _gzip_logger_detail

struct gzip_logger {
    // Builds a gzip target from "RotationThreshold", "FileName" and the
    // common keys. Opens nothing.
    static base::shared_pointer<velk_logger::logger> factory(target_config& config);
};

}  // namespace vlk
