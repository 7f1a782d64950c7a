#include <vlk/logging/gzip_logger.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <zlib.h>

#include <vlk/logging/file_logger.hpp>
#include <vlk/system/convert.hpp>
#include <vlk/system/directory.hpp>

namespace vlk {
namespace _gzip_logger_detail {
using _file_logger_detail::coarseNanoseconds;
using _file_logger_detail::coarseSeconds;

namespace {

// Where the last gzip member of a stretch of a file could be ended.
struct member_tail {
    std::int64_t memberStart = 0;  // where the last member begins
    std::int64_t cut = 0;          // its last block boundary on a byte boundary
    unsigned long crc = 0;         // CRC-32 and length of its text up to `cut`
    std::uint64_t length = 0;
    char last = '\n';      // the last byte of all text up to `cut`
    bool finished = true;  // the last member has its trailer
};

// Inflates the gzip members of `file` from `start` to `end` and notes where
// the last one could be ended. Writing pays nothing for this: the text is
// read back only when a member has to be ended by hand. False if the data
// does not inflate.
bool findMemberTail(int file, std::int64_t start, std::int64_t end, member_tail& tail) {
    z_stream stream{};
    if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) {  // 16: the gzip wrapper
        return false;
    }
    tail = {start, start, crc32(0, nullptr, 0), 0, '\n', true};
    unsigned long crc = tail.crc;
    std::uint64_t length = 0;
    char last = '\n';
    unsigned char in[16384];
    unsigned char out[65536];
    bool good = true;
    for (std::int64_t at = start; good && at < end;) {
        const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(sizeof in, end - at));
        const ssize_t got = ::pread(file, in, wanted, at);
        good = got > 0;
        stream.next_in = in;
        stream.avail_in = good ? static_cast<unsigned>(got) : 0;
        while (good && stream.avail_in > 0) {
            stream.next_out = out;
            stream.avail_out = sizeof out;
            const unsigned before = stream.avail_in;
            const int result = inflate(&stream, Z_BLOCK);
            const auto produced = static_cast<unsigned>(sizeof out - stream.avail_out);
            crc = crc32(crc, out, produced);
            length += produced;
            last = produced != 0 ? static_cast<char>(out[produced - 1]) : last;
            const std::int64_t offset = at + (got - stream.avail_in);
            if (result == Z_STREAM_END) {
                good = inflateReset(&stream) == Z_OK;
                tail = {offset, offset, crc32(0, nullptr, 0), 0, last, true};
                crc = tail.crc;
                length = 0;
            } else {
                good = (result == Z_OK || result == Z_BUF_ERROR) &&
                       (produced != 0 || stream.avail_in != before);
                tail.finished = false;
                // data_type: unused bits, 64 in the final block, 128 at a
                // block boundary. A boundary on a byte, before the final
                // block, is where an empty final block can follow.
                if ((stream.data_type & (128 | 64 | 63)) == 128) {
                    tail.cut = offset;
                    tail.crc = crc;
                    tail.length = length;
                    tail.last = last;
                }
            }
        }
        at += got;
    }
    inflateEnd(&stream);
    return good;
}

// Ends the last member of `name` at `tail.cut` if it has no trailer: cuts
// the file there and appends an empty final stored block, then the CRC-32
// and the length modulo 2^32 of its text, little-endian. A member without
// such a boundary is removed whole. Returns the last byte of the text kept.
char endMember(const std::string& name, const member_tail& tail) {
    if (tail.finished) {
        return tail.last;
    }
    const bool kept = tail.cut > tail.memberStart;
    if (::truncate(name.c_str(), kept ? tail.cut : tail.memberStart) != 0 || !kept) {
        return tail.last;
    }
    unsigned char trailer[13] = {0x01, 0x00, 0x00, 0xFF, 0xFF};
    for (int i = 0; i < 4; ++i) {
        trailer[5 + i] = static_cast<unsigned char>(tail.crc >> (8 * i));
        trailer[9 + i] = static_cast<unsigned char>(tail.length >> (8 * i));
    }
    const int file = ::open(name.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file >= 0) {
        [[maybe_unused]] const ssize_t written = ::write(file, trailer, sizeof trailer);
        ::close(file);
    }
    return tail.last;
}

// A file this target was writing when its process was killed ends in the
// empty stored block of a sync flush (00 00 FF FF) and has no trailer: its
// last member is ended, so that gzip readers take the file and what is
// appended to it. Only such a file is read through; for a finished one the
// last four bytes are its length, and match only by a rare chance, which
// costs one read of the file. Returns the last byte of the text kept.
char endKilledMember(const std::string& name) {
    const int file = ::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) {
        return '\n';
    }
    struct stat status {};
    unsigned char end[4] = {};
    member_tail tail;
    const bool killed = ::fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
                        status.st_size >= 4 && ::pread(file, end, 4, status.st_size - 4) == 4 &&
                        end[0] == 0x00 && end[1] == 0x00 && end[2] == 0xFF && end[3] == 0xFF &&
                        findMemberTail(file, 0, status.st_size, tail);
    ::close(file);
    return killed ? endMember(name, tail) : '\n';
}

}  // namespace

std::string gzip_logger_impl::constructFileName() const {
    return _file_logger_detail::expandFileName(_fileNamePattern, _rotationCount);
}

void gzip_logger_impl::openOrSwitchFile() {
    const std::string name = constructFileName();
    int error = 0;
    // A directory that cannot be made shows up as a failed open below.
    directory::createHierarchy(directory::dirname(name), error);

    bool cutLine = false;
    // gzclose ends the compressed stream, so nothing is flushed before it.
    // A member that failed is finished by hand once its stream is closed.
    if (name == _currentFileName && _rotationCount != 0) {
        if (_file != nullptr) {
            _bytesWritten = 0;
            gzclose(_file);
            _file = nullptr;
            _finishBrokenMember();
        }
        _file = gzopen(_currentFileName.c_str(), "wb");
        _lastOpenFailed = _file == nullptr;
    } else {
        // A file left unfinished by a killed process is ended before a
        // member is appended to it, and so is its last line.
        cutLine = endKilledMember(name) != '\n';
        if (gzFile opened = gzopen(name.c_str(), "a"); opened != nullptr) {
            if (_file != nullptr) {
                _bytesWritten = 0;
                gzclose(_file);
                _finishBrokenMember();
            }
            _currentFileName = name;
            _file = opened;
            _lastOpenFailed = false;
        } else {
            _lastOpenFailed = true;
        }
    }
    _lastOpenTry = coarseNanoseconds();
    if (!_lastOpenFailed) {
        _startMember();
        if (cutLine) {
            _write("\n", 1);
        }
    }
    ++_rotationCount;  // also on failure, so that the next name differs
    // A position in the uncompressed data, 0 after any open. zlib answers -1
    // for a null handle, so with no file open the count is all ones.
    _bytesWritten = static_cast<std::uint64_t>(gztell(_file));
}

void gzip_logger_impl::_startMember() {
    _writeFailed = false;
    _member = member_state{};
    // "a" opens at the end of the file: the new member starts there.
    _member.start = gzoffset(_file);
    _member.flushedOffset = _member.start;
}

char gzip_logger_impl::_finishBrokenMember() {
    if (!_writeFailed) {
        return '\n';
    }
    _writeFailed = false;
    // A sync flush ends on a byte boundary after complete blocks, so the
    // member up to the last one can be ended there. One that cannot be read
    // back is removed whole.
    member_tail tail{_member.start, _member.start, 0, 0, '\n', false};
    const int file = ::open(_currentFileName.c_str(), O_RDONLY | O_CLOEXEC);
    if (file >= 0) {
        if (!findMemberTail(file, _member.start, _member.flushedOffset, tail)) {
            tail = {_member.start, _member.start, 0, 0, '\n', false};
        }
        ::close(file);
    }
    return endMember(_currentFileName, tail);
}

bool gzip_logger_impl::_mayTryOpen() const {
    return _file_logger_detail::mayTryOpen(_lastOpenFailed, _lastOpenTry);
}

void gzip_logger_impl::_failed() {
    _writeFailed = true;
    _lastSpaceCheck = coarseSeconds();
    // Whatever went in after the last sync flush is cut off with the member.
    _droppedLines += _member.linesSinceFlush;
    _member.linesSinceFlush = 0;
}

bool gzip_logger_impl::_write(const char* text, unsigned long length) {
    // zlib takes a 32-bit length: a longer record is cut.
    const auto taken = static_cast<unsigned>(length);
    if (taken != 0 && gzwrite(_file, text, taken) == 0) {
        _failed();
        return false;
    }
    return true;
}

bool gzip_logger_impl::_resume(unsigned long length) {
    if (!_file_logger_detail::spaceIsBack(_currentFileName, length, _lastSpaceCheck)) {
        return false;
    }
    bool cutLine = false;
    if (_file != nullptr) {
        gzclose(_file);
        _file = nullptr;
        cutLine = _finishBrokenMember() != '\n';
    }
    // The file is appended to, never emptied: a failed open stays on this
    // path and is tried again at the next look at free space.
    _file = gzopen(_currentFileName.c_str(), "a");
    if (_file == nullptr) {
        _writeFailed = true;
        _lastSpaceCheck = coarseSeconds();
        return false;
    }
    _startMember();
    return !cutLine || _write("\n", 1);
}

bool gzip_logger_impl::init() {
    openOrSwitchFile();
    return _file != nullptr;
}

void gzip_logger_impl::rotate() {
    openOrSwitchFile();
}

void gzip_logger_impl::log(const error_id& id, const char* line, unsigned long length) {
    if (!_accepts(id)) {
        return;
    }
    // While writing is suspended nothing rotates: writing resumes where it
    // failed. Otherwise a new file that does not open leaves the old one in
    // use and is tried again a second later; so is a missing file.
    if (!_writeFailed) {
        while (_bytesWritten > _rotationThreshold && _mayTryOpen()) {
            rotate();
        }
        if (_file == nullptr && _mayTryOpen()) {
            rotate();
        }
    }
    if (_writeFailed ? !_resume(length) : _file == nullptr) {
        ++_droppedLines;
        return;
    }
    if (_droppedLines != 0) {
        const std::string notice =
            _file_logger_detail::droppedLinesNotice(line, length, _droppedLines, _currentFileName);
        // Told lines count as lost again if the member fails before a flush.
        const std::uint64_t told = _droppedLines;
        _droppedLines = 0;
        if (!_write(notice.data(), notice.size())) {
            _droppedLines += told + 1;
            return;
        }
        _member.linesSinceFlush += told;
    }
    if (_write(line, length)) {
        ++_member.linesSinceFlush;
    } else {
        ++_droppedLines;
    }
    // What zlib has put into the file so far; data still in its buffers
    // counts once a flush has pushed it out.
    _bytesWritten = static_cast<std::uint64_t>(gzoffset(_file));
}

void gzip_logger_impl::flush() {
    if (_file == nullptr || _writeFailed) {
        return;
    }
    if (gzflush(_file, Z_SYNC_FLUSH) != Z_OK) {
        _failed();
        return;
    }
    _member.flushedOffset = gzoffset(_file);
    _member.linesSinceFlush = 0;
}

void gzip_logger_impl::shutdown() {
    if (_file != nullptr) {
        _bytesWritten = 0;
        gzclose(_file);
        _file = nullptr;
        _finishBrokenMember();
    }
}

bool gzip_logger_impl::getFileLoggerInfo(file_logging_info& info) {
    info.describe(*this);
    info.bytesWritten = _bytesWritten;
    info.fileNamePattern = _fileNamePattern;
    info.fileName = _currentFileName;
    info.rotationThreshold = _rotationThreshold;
    info.rotationCount = _rotationCount;
    return true;
}

}  // namespace _gzip_logger_detail

base::shared_pointer<velk_logger::logger> gzip_logger::factory(target_config& config) {
    auto* target = new _gzip_logger_detail::gzip_logger_impl;
    base::shared_pointer<velk_logger::logger> owner(target);
    unsigned long threshold = 0;
    // Anything that is not a size, the empty text included, means no size
    // rotation.
    if (string_utils::getNumericByteConstant(config["RotationThreshold"].text(), threshold)) {
        target->_rotationThreshold = threshold;
    }
    static const std::string plain = "%Y-%m-%dT%H:%M:%S.log.gz";
    static const std::string numbered = "%Y-%m-%dT%H:%M:%S-%n.log.gz";
    target->_fileNamePattern =
        config["FileName"].valueOr(target->_rotationThreshold == ~0ull ? plain : numbered);
    target->_commonInit(config);
    return owner;
}

}  // namespace vlk
