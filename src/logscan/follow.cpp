// Follow mode: a growing plain file and the files that rotation adds.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "logscan.hpp"

namespace vlk::logscan {

namespace {

// A name with each run of digits replaced by one "#": files of one rotating
// set share it ("app-00003.log", "2026-11-22T12:00:01-00004.log.gz").
std::string shapeOf(std::string_view name) {
    std::string shape;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const bool digit = name[i] >= '0' && name[i] <= '9';
        if (!digit) {
            shape += name[i];
        } else if (i == 0 || name[i - 1] < '0' || name[i - 1] > '9') {
            shape += '#';
        }
    }
    return shape;
}

void sleepMillis(int millis) {
    timespec span{millis / 1000, (millis % 1000) * 1000000L};
    ::nanosleep(&span, nullptr);  // a signal cuts it short, which is wanted
}

}  // namespace

follower::~follower() {
    if (_fd >= 0) {
        ::close(_fd);
    }
}

bool follower::_open(const std::string& file) {
    _fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (_fd < 0) {
        warn(file, std::strerror(errno));
        ++_table.totals().damaged;
        return false;
    }
    _current = file;
    ++_table.totals().files;
    _splitter.reset();
    return true;
}

// The first file after the current one in name order that has its shape.
std::string follower::_next() const {
    const std::string shape = shapeOf(std::filesystem::path(_current).filename().string());
    std::error_code ignored;  // an unreadable directory has no next file
    for (const auto& name : directoryFiles(_directory, ignored)) {
        if (name > _current && shapeOf(std::filesystem::path(name).filename().string()) == shape) {
            return name;
        }
    }
    return {};
}

bool follower::start() {
    std::error_code error;
    std::vector<std::string> before;
    if (std::filesystem::is_directory(_path, error)) {
        _directory = _path;
        before = directoryFiles(_path, error);
        if (before.empty()) {
            warn(_path, error ? error.message() : "no file to follow");
            return false;
        }
        _current = before.back();
        before.pop_back();
    } else {
        _directory = std::filesystem::path(_path).parent_path().string();
        _current = _path;
    }
    if (_directory.empty()) {
        _directory.push_back('.');  // not = ".": GCC 12 warns falsely (-Wrestrict)
    }
    for (const auto& file : before) {
        scanFile(file, _splitter, _table);
    }
    if (!_open(_current)) {
        return false;
    }
    unsigned char magic[2] = {};
    if (::pread(_fd, magic, 2, 0) == 2 && magic[0] == 0x1f && magic[1] == 0x8b) {
        warn(_current, "a gzip file is not followed, only read");
        read_problem problem;
        readStream(_fd, _splitter, _table, problem);
        return false;
    }
    read_problem problem;
    readAvailable(_fd, _splitter, _table, problem);
    return true;
}

void follower::run(const volatile int& stop, int pollMillis) {
    read_problem problem;
    while (stop == 0) {
        readAvailable(_fd, _splitter, _table, problem);
        struct stat status {};
        const off_t position = ::lseek(_fd, 0, SEEK_CUR);
        if (::fstat(_fd, &status) == 0 && status.st_size < position) {
            // Started over from empty: what it holds now is new.
            ::lseek(_fd, 0, SEEK_SET);
            _splitter.reset();
            continue;
        }
        // A rotating writer opens its next file before it flushes and closes
        // the current one, so the current file is left only when the next
        // one is seen on two rounds in a row, a poll interval apart.
        const std::string next = _next();
        if (next.empty() || next != _seenNext) {
            _seenNext = next;
            sleepMillis(pollMillis);
            continue;
        }
        // Rotated: the writer has left this file, so its rest is final.
        readAvailable(_fd, _splitter, _table, problem);
        _splitter.finish(_table);
        ::close(_fd);
        _fd = -1;
        if (!_open(next)) {
            return;
        }
    }
    readAvailable(_fd, _splitter, _table, problem);
    _splitter.finish(_table);
}

}  // namespace vlk::logscan
