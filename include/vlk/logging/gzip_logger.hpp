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
// Everything but the factory and `init` runs on the logging thread, without a
// lock. Write failures are not detected: on a full disk lines are lost
// without notice. Without an open file zlib refuses every call on the null
// handle, and the target stays alive; with a threshold set, `log` then keeps
// trying to open a file and does not return until one opens.
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

  private:
    std::string constructFileName() const;
    void openOrSwitchFile();
};

}  // namespace _gzip_logger_detail

struct gzip_logger {
    // Builds a gzip target from "RotationThreshold", "FileName" and the
    // common keys. Opens nothing.
    static base::shared_pointer<velk_logger::logger> factory(target_config& config);
};

}  // namespace vlk
