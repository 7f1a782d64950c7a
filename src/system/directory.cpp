#include <vlk/system/directory.hpp>

// <libgen.h> makes `basename` the POSIX form (__xpg_basename), which may
// change its argument, in place of the GNU form of <cstring>.
#include <libgen.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace vlk::directory {

std::string baseName(const std::string& path) {
    std::string copy = path;
    return ::basename(copy.data());
}

std::string dirname(const std::string& path) {
    std::string copy = path;
    return ::dirname(copy.data());
}

std::string currentWorkingDirectory() {
    char* directory = ::get_current_dir_name();
    if (directory == nullptr) {
        return {};
    }
    std::string result = directory;
    std::free(directory);
    return result;
}

std::string absolute(const std::string& path) {
    if (path.size() < 2 || path.front() == '/') {
        return path;
    }
    const std::string directory = currentWorkingDirectory();
    if (path.size() >= 3 && path.starts_with("./")) {
        return directory + path.substr(1);
    }
    return directory + "/" + path;
}

std::string findMountPoint(const std::string& path) {
    std::string result = absolute(path);
    struct stat info {};
    if (::stat(result.c_str(), &info) != 0) {
        return result;
    }
    const dev_t device = info.st_dev;
    while (result != "/") {
        std::string parent = dirname(result);
        if (parent == result) {
            return result;  // "." is its own parent: no way up to "/"
        }
        if (::stat(parent.c_str(), &info) == 0) {
            if (info.st_dev != device) {
                return result;
            }
            result = std::move(parent);
        }
    }
    return result;
}

std::string resolveLink(const std::string& path) {
    char target[2048];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    if (length <= 0) {
        return {};
    }
    return {target, static_cast<std::size_t>(length)};
}

bool createHierarchy(const std::string& path, int& error) {
    const bool allowed = std::all_of(path.begin(), path.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.' ||
               c == '/';
    });
    if (!allowed) {
        error = EINVAL;
        return false;
    }
    // Each directory is the path up to and with a "/", then the whole path
    // unless it ends in "/".
    for (std::size_t end = path.find('/'); end != std::string::npos;
         end = path.find('/', end + 1)) {
        if (!createDirectory(path.substr(0, end + 1), error)) {
            return false;
        }
    }
    return path.empty() || path.back() == '/' || createDirectory(path, error);
}

bool createDirectory(const std::string& path, int& error) {
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) {
        return true;
    }
    if (::mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) {
        return true;
    }
    error = errno;
    return false;
}

std::uint64_t getFreeSpace(const std::string& path) {
    for (int call = 0; call < 10; ++call) {
        struct statvfs info {};
        if (::statvfs(path.c_str(), &info) == 0) {
            return std::uint64_t{info.f_bavail} * info.f_bsize;
        }
        if (errno != EINTR && errno != EIO) {
            return 0;
        }
    }
    return 0;
}

}  // namespace vlk::directory
