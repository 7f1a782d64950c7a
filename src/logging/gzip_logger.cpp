#include <vlk/logging/gzip_logger.hpp>

#include <zlib.h>

#include <vlk/logging/file_logger.hpp>
#include <vlk/system/convert.hpp>
#include <vlk/system/directory.hpp>

namespace vlk {
namespace _gzip_logger_detail {

std::string gzip_logger_impl::constructFileName() const {
    return _file_logger_detail::expandFileName(_fileNamePattern, _rotationCount);
}

void gzip_logger_impl::openOrSwitchFile() {
    const std::string name = constructFileName();
    int error = 0;
    // A directory that cannot be made shows up as a failed open below.
    directory::createHierarchy(directory::dirname(name), error);

    // gzclose ends the compressed stream, so nothing is flushed before it.
    if (name == _currentFileName && _rotationCount != 0) {
        if (_file != nullptr) {
            _bytesWritten = 0;
            gzclose(_file);
            _file = nullptr;
        }
        _file = gzopen(_currentFileName.c_str(), "wb");
    } else if (gzFile opened = gzopen(name.c_str(), "a"); opened != nullptr) {
        if (_file != nullptr) {
            _bytesWritten = 0;
            gzclose(_file);
        }
        _currentFileName = name;
        _file = opened;
    }
    ++_rotationCount;  // also on failure, so that the next name differs
    // A position in the uncompressed data, 0 after any open. zlib answers -1
    // for a null handle, so with no file open the count is all ones.
    _bytesWritten = static_cast<std::uint64_t>(gztell(_file));
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
    while (_bytesWritten > _rotationThreshold) {
        rotate();
    }
    // zlib takes a 32-bit length: a longer record is cut. Its failures, a null
    // handle included, are not looked at.
    gzwrite(_file, line, static_cast<unsigned>(length));
    // What zlib has put into the file so far; data still in its buffers
    // counts once a flush has pushed it out.
    _bytesWritten = static_cast<std::uint64_t>(gzoffset(_file));
}

void gzip_logger_impl::flush() {
    // A null handle makes zlib return an error, which changes nothing here.
    gzflush(_file, Z_SYNC_FLUSH);
}

void gzip_logger_impl::shutdown() {
    if (_file != nullptr) {
        _bytesWritten = 0;
        gzclose(_file);
        _file = nullptr;
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
