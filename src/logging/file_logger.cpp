#include <vlk/logging/file_logger.hpp>

#include <cerrno>
#include <ctime>

#include <vlk/system/convert.hpp>
#include <vlk/system/directory.hpp>

namespace vlk {
namespace _file_logger_detail {
namespace {

// Free space costs a system call, so it is looked at no more often than this.
constexpr std::int64_t spaceCheckInterval = 5;

std::int64_t coarseSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

}  // namespace

std::string expandFileName(const std::string& pattern, std::uint64_t count) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char buffer[4096];
    // strftime returns 0 when the name does not fit; the name is then empty.
    std::string name(buffer, std::strftime(buffer, sizeof buffer, pattern.c_str(), &local));

    char number[16];
    const int digits = std::snprintf(number, sizeof number, "%.5ld", static_cast<long>(count));
    // "%n" became a line feed above; a line feed of the pattern's own is a
    // number as well. The number holds no line feed, so the search goes on
    // behind it.
    for (auto at = name.find('\n'); at != std::string::npos; at = name.find('\n', at + digits)) {
        name.replace(at, 1, number, static_cast<std::size_t>(digits));
    }
    return name;
}

std::string file_logger_impl::constructFileName() const {
    return expandFileName(_fileNamePattern, _rotationCount);
}

void file_logger_impl::openOrSwitchFile() {
    const std::string name = constructFileName();
    int error = 0;
    // A directory that cannot be made shows up as a failed open below.
    directory::createHierarchy(directory::dirname(name), error);

    if (name == _currentFileName && _rotationCount != 0) {
        // The same name again: start it over from empty.
        if (_file != nullptr) {
            flush();
            _bytesWritten = 0;
            std::fclose(_file);
            _file = nullptr;
        }
        _file = std::fopen(_currentFileName.c_str(), "w");
        ++_rotationCount;
        if (_file == nullptr) {
            return;
        }
    } else {
        // Another name: the old file stays in use until the new one is open.
        FILE* opened = std::fopen(name.c_str(), "a");
        ++_rotationCount;  // also on failure, so that the next name differs
        if (opened == nullptr) {
            if (_file == nullptr) {
                return;
            }
        } else {
            if (_file != nullptr) {
                flush();
                _bytesWritten = 0;
                std::fclose(_file);
            }
            _currentFileName = name;
            _file = opened;
        }
    }
    // "a" opens at the end, so a file that existed counts with its length.
    _bytesWritten = static_cast<std::uint64_t>(std::ftell(_file));
}

bool file_logger_impl::init() {
    openOrSwitchFile();
    return _file != nullptr;
}

void file_logger_impl::rotate() {
    openOrSwitchFile();
}

bool file_logger_impl::_spaceIsBack(unsigned long length) {
    const std::int64_t now = coarseSeconds();
    if (now - _lastSpaceCheck <= spaceCheckInterval) {
        return false;
    }
    if (directory::getFreeSpace(_currentFileName) <= length) {
        _lastSpaceCheck = now;
        return false;
    }
    _diskFull = false;
    std::clearerr(_file);
    return true;
}

void file_logger_impl::log(const error_id& id, const char* line, unsigned long length) {
    if (!_accepts(id)) {
        return;
    }
    while (_rotationThreshold < _bytesWritten) {
        rotate();
    }
    // Only a failed reopen of the current name leaves no stream. The line is
    // dropped rather than handed to fwrite, and the next rotation tries the
    // name again.
    if (_file == nullptr) {
        return;
    }
    std::size_t written = 0;
    if (!_diskFull || _spaceIsBack(length)) {
        errno = 0;
        written = std::fwrite(line, 1, length, _file);
    }
    // A short write for any other reason only counts what went out.
    if (!_diskFull && written != length && std::ferror(_file) && errno == ENOSPC) {
        _diskFull = true;
        _lastSpaceCheck = coarseSeconds();
    }
    _bytesWritten += written;
}

void file_logger_impl::flush() {
    if (_file != nullptr) {
        std::fflush(_file);
    }
}

void file_logger_impl::shutdown() {
    if (_file != nullptr) {
        flush();
        _bytesWritten = 0;
        std::fclose(_file);
        _file = nullptr;
    }
}

bool file_logger_impl::getFileLoggerInfo(file_logging_info& info) {
    info.describe(*this);
    info.bytesWritten = _bytesWritten;
    info.fileNamePattern = _fileNamePattern;
    info.fileName = _currentFileName;
    info.rotationThreshold = _rotationThreshold;
    info.rotationCount = _rotationCount;
    return true;
}

}  // namespace _file_logger_detail

base::shared_pointer<velk_logger::logger> file_logger::factory(target_config& config) {
    auto* target = new _file_logger_detail::file_logger_impl;
    base::shared_pointer<velk_logger::logger> owner(target);
    unsigned long threshold = 0;
    // Anything that is not a size, the empty text included, means no size
    // rotation.
    if (string_utils::getNumericByteConstant(config["RotationThreshold"].text(), threshold)) {
        target->_rotationThreshold = threshold;
    }
    static const std::string plain = "%Y-%m-%dT%H:%M:%S.log";
    static const std::string numbered = "%Y-%m-%dT%H:%M:%S-%n.log";
    target->_fileNamePattern =
        config["FileName"].valueOr(target->_rotationThreshold == ~0ull ? plain : numbered);
    target->_commonInit(config);
    return owner;
}

}  // namespace vlk
