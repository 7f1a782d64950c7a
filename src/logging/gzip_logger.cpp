#include <vlk/logging/gzip_logger.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include <vlk/logging/file_logger.hpp>
#include <vlk/system/convert.hpp>
#include <vlk/system/directory.hpp>

namespace vlk {
namespace _gzip_logger_detail {
using _file_logger_detail::coarseNanoseconds;
using _file_logger_detail::coarseSeconds;

namespace {

// What a member of `name` from `start` to `end`, a sync flush, holds: the
// CRC-32, length and last byte of its text, read back by inflating it. It
// is read only when the member has to be finished by hand, so that writing
// costs nothing for it. False if the file cannot be read or inflated.
bool readMemberText(const std::string& name, std::int64_t start, std::int64_t end,
                    unsigned long& crc, std::uint64_t& length, char& last) {
    const int file = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    z_stream stream{};
    if (file < 0 || inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) {  // 16: gzip wrapper
        if (file >= 0) {
            ::close(file);
        }
        return false;
    }
    crc = crc32(0, nullptr, 0);
    length = 0;
    bool readable = true;
    unsigned char in[16384];
    unsigned char out[65536];
    for (std::int64_t at = start; readable && at < end;) {
        const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(sizeof in, end - at));
        const ssize_t got = ::pread(file, in, wanted, at);
        readable = got > 0;
        at += got;
        stream.next_in = in;
        stream.avail_in = readable ? static_cast<unsigned>(got) : 0;
        // Z_BUF_ERROR: all input taken, nothing more to give yet.
        do {
            stream.next_out = out;
            stream.avail_out = sizeof out;
            const int result = inflate(&stream, Z_NO_FLUSH);
            readable = readable && (result == Z_OK || result == Z_BUF_ERROR);
            const auto produced = static_cast<unsigned>(sizeof out - stream.avail_out);
            crc = crc32(crc, out, produced);
            length += produced;
            if (produced != 0) {
                last = static_cast<char>(out[produced - 1]);
            }
        } while (readable && stream.avail_out == 0);
    }
    inflateEnd(&stream);
    ::close(file);
    return readable;
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
    } else if (gzFile opened = gzopen(name.c_str(), "a"); opened != nullptr) {
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
    _lastOpenTry = coarseNanoseconds();
    if (!_lastOpenFailed) {
        _startMember();
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
    char last = '\n';
    if (!_writeFailed) {
        return last;
    }
    _writeFailed = false;
    // A sync flush ends on a byte boundary after complete blocks, so what
    // the file held at the last one is a valid start of a deflate stream.
    // A member that cannot be read back is dropped whole.
    unsigned long crc = 0;
    std::uint64_t length = 0;
    const bool kept =
        _member.flushedOffset > _member.start &&
        readMemberText(_currentFileName, _member.start, _member.flushedOffset, crc, length, last);
    if (::truncate(_currentFileName.c_str(), kept ? _member.flushedOffset : _member.start) != 0 ||
        !kept) {
        return '\n';
    }
    // A stored block, final and empty, then the CRC-32 and the length
    // modulo 2^32 of the text, both little-endian.
    unsigned char tail[13] = {0x01, 0x00, 0x00, 0xFF, 0xFF};
    for (int i = 0; i < 4; ++i) {
        tail[5 + i] = static_cast<unsigned char>(crc >> (8 * i));
        tail[9 + i] = static_cast<unsigned char>(length >> (8 * i));
    }
    const int file = ::open(_currentFileName.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file >= 0) {
        [[maybe_unused]] const ssize_t written = ::write(file, tail, sizeof tail);
        ::close(file);
    }
    return last;
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
