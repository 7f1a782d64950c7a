#include <vlk/logging/file_logger.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include <vlk/system/convert.hpp>
#include <vlk/system/directory.hpp>

namespace vlk {
namespace _file_logger_detail {
namespace {

// Free space costs a system call, so it is looked at no more often than this.
constexpr std::int64_t spaceCheckInterval = 5;
// A file that would not open is tried again no sooner than this.
constexpr std::int64_t openRetryNanoseconds = 1'000'000'000;

}  // namespace

std::int64_t coarseSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

bool spaceIsBack(const std::string& name, unsigned long length, std::int64_t& lastCheck) {
    const std::int64_t now = coarseSeconds();
    if (now - lastCheck <= spaceCheckInterval) {
        return false;
    }
    if (directory::getFreeSpace(name) <= length) {
        lastCheck = now;
        return false;
    }
    return true;
}

bool mayTryOpen(bool lastFailed, std::int64_t lastTry) {
    return !lastFailed || coarseNanoseconds() - lastTry >= openRetryNanoseconds;
}

std::int64_t coarseNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

std::string droppedLinesNotice(const char* line, unsigned long length, std::uint64_t dropped,
                               const std::string& name) {
    const void* blank = std::memchr(line, ' ', length);
    std::string notice(line, blank != nullptr ? static_cast<const char*>(blank) : line);
    notice += " [0] developer: 00-0000 " + std::to_string(dropped) +
              (dropped == 1 ? " line was" : " lines were") + " dropped while " + name +
              " could not be written\n";
    return notice;
}

bool endsInCutLine(const std::string& name) {
    // Non-blocking, so that a pipe under the name cannot hold this up.
    const int file = ::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    struct stat status {};
    char last = '\n';
    if (::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
        ::pread(file, &last, 1, status.st_size - 1) != 1) {
        last = '\n';
    }
    ::close(file);
    return last != '\n';
}

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
        _lastOpenFailed = _file == nullptr;
        _lastOpenTry = coarseNanoseconds();
        if (_file == nullptr) {
            return;
        }
    } else {
        // Another name: the old file stays in use until the new one is open.
        FILE* opened = std::fopen(name.c_str(), "a");
        ++_rotationCount;  // also on failure, so that the next name differs
        _lastOpenFailed = opened == nullptr;
        _lastOpenTry = coarseNanoseconds();
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
    // "a" opens at the end, so a file that existed counts with its length;
    // it may have been cut inside a line, by a crash or a full disk.
    _bytesWritten = static_cast<std::uint64_t>(std::ftell(_file));
    _checkLineEnd = _bytesWritten != 0;
}

bool file_logger_impl::init() {
    openOrSwitchFile();
    return _file != nullptr;
}

void file_logger_impl::rotate() {
    openOrSwitchFile();
}

bool file_logger_impl::_spaceIsBack(unsigned long length) {
    if (!spaceIsBack(_currentFileName, length, _lastSpaceCheck)) {
        return false;
    }
    _diskFull = false;
    std::clearerr(_file);
    // The failed write may have left part of a line in the file.
    _checkLineEnd = true;
    return true;
}

bool file_logger_impl::_mayTryOpen() const {
    return mayTryOpen(_lastOpenFailed, _lastOpenTry);
}

bool file_logger_impl::_write(const char* text, unsigned long length) {
    if (length > bufferBytes - _buffered && !_writeBuffer()) {
        return false;
    }
    _bytesWritten += length;
    if (length >= bufferBytes) {
        // Taken either way: a failure has counted what it lost.
        _writeOut(text, length);
        return true;
    }
    std::memcpy(_buffer.get() + _buffered, text, length);
    _buffered += length;
    return true;
}

bool file_logger_impl::_writeBuffer() {
    const std::size_t length = std::exchange(_buffered, 0);
    return length == 0 || _writeOut(_buffer.get(), length);
}

bool file_logger_impl::_writeOut(const char* text, std::size_t length) {
    const int file = ::fileno(_file);
    std::size_t done = 0;
    errno = 0;
    while (done < length) {
        const ssize_t wrote = ::write(file, text + done, length - done);
        if (wrote > 0) {
            done += static_cast<std::size_t>(wrote);
        } else if (wrote == 0 || errno != EINTR) {
            break;
        }
    }
    if (done == length) {
        return true;
    }
    const int error = errno;
    // Every line ends in a line feed, so the lines lost are those whose line
    // feed did not go out, the cut one among them.
    _droppedLines += static_cast<std::uint64_t>(std::count(text + done, text + length, '\n'));
    _bytesWritten -= length - done;
    if (!_diskFull && error == ENOSPC) {
        _diskFull = true;
        _lastSpaceCheck = coarseSeconds();
    }
    // Whatever the cause, the file may now end inside a line.
    _checkLineEnd = true;
    return false;
}

void file_logger_impl::log(const error_id& id, const char* line, unsigned long length) {
    if (!_accepts(id)) {
        return;
    }
    // Size rotation before the write, and again if the new file is itself
    // over the threshold. A new file that does not open leaves the old one
    // in use, so nothing is lost, and is tried again a second later.
    while (_rotationThreshold < _bytesWritten && _mayTryOpen()) {
        rotate();
    }
    // A failed reopen of the current name leaves no stream: the name is
    // tried again once a second, and lines are counted as dropped meanwhile.
    if (_file == nullptr && _mayTryOpen()) {
        rotate();
    }
    if (_file == nullptr || (_diskFull && !_spaceIsBack(length))) {
        ++_droppedLines;
        return;
    }
    if (_checkLineEnd) {
        _checkLineEnd = false;
        // What the buffer holds goes out first, so that the file's last
        // byte is the last byte written.
        _writeBuffer();
        if (endsInCutLine(_currentFileName) && !_write("\n", 1)) {
            ++_droppedLines;
            return;
        }
    }
    if (_droppedLines != 0) {
        const std::string notice =
            droppedLinesNotice(line, length, _droppedLines, _currentFileName);
        if (!_write(notice.data(), notice.size())) {
            ++_droppedLines;
            return;
        }
        _droppedLines = 0;
    }
    if (!_write(line, length)) {
        ++_droppedLines;
    }
}

void file_logger_impl::flush() {
    if (_file != nullptr) {
        _writeBuffer();
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

void file_logger::checkConfig(const target_config& config, std::vector<std::string>& problems) {
    unsigned long threshold = 0;
    if (const auto found = config.find("RotationThreshold");
        found != config.end() && !found->second.text().empty() &&
        !string_utils::getNumericByteConstant(found->second.text(), threshold)) {
        problems.push_back("\"RotationThreshold\": \"" + found->second.text() +
                           "\" is not a size (a number, then nothing or K, M, G or T for powers "
                           "of 1024); the file is never rotated by size");
    }
    if (const auto found = config.find("FileName");
        found != config.end() && !found->second.text().empty()) {
        // The directory is made as the file opens, and only of these characters.
        const std::string directory =
            directory::dirname(_file_logger_detail::expandFileName(found->second.text(), 0));
        if (directory.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                        "0123456789_-./") != std::string::npos) {
            problems.push_back("\"FileName\": the directory \"" + directory +
                               "\" has a character other than letters, digits, \"_\", \"-\", "
                               "\".\" and \"/\", so it is not created");
        }
    }
}

}  // namespace vlk
