// Path operations on `std::string`: the parts of a path, its absolute form,
// its mount point and link target, directory creation and free space.
//
// Every operation shows failure in its result (an empty string, 0, or false
// with the error number) and throws nothing but std::bad_alloc. All are safe
// from any thread, but `currentWorkingDirectory`, `absolute` and the
// operations on relative paths read the process's current directory.
#pragma once

#include <cstdint>
#include <string>

namespace vlk::directory {

// The last component, as POSIX basename: "/a/b/" gives "b", "/" gives "/".
std::string baseName(const std::string& path);
// All but the last component, as POSIX dirname: "a" gives ".".
std::string dirname(const std::string& path);
// The current directory, or empty when it cannot be read.
std::string currentWorkingDirectory();

// A path of two or more characters that does not begin with "/", prefixed by
// the current directory: "./x" becomes "<cwd>/x", "x/y" "<cwd>/x/y". Shorter
// paths ("", ".", "x") stay as they are. Nothing inside the path is resolved.
std::string absolute(const std::string& path);

// The mount point of the file system holding `path`: the highest of its
// parents on the same device. A path that cannot be stat'ed comes back in its
// absolute form. Does not return while a parent cannot be stat'ed. A path
// that `absolute` leaves relative ("." or a one-character name) never reaches
// "/": it comes back as "." once its parent is itself.
std::string findMountPoint(const std::string& path);

// The target of a symbolic link, cut off at 2048 bytes; empty when `path` is
// no link or cannot be read.
std::string resolveLink(const std::string& path);

// Makes every directory of `path`, as `mkdir -p` does. Only letters, digits
// and "_-./" are accepted; any other character stores EINVAL in `error` and
// creates nothing. On a failure partway, what was made stays and `error` holds
// the error number. `error` is written only on failure.
bool createHierarchy(const std::string& path, int& error);

// True when `path` exists, whatever it is, or when it could be made (mode 0777
// less the umask), also by a rival process. Otherwise stores the error number
// in `error` and returns false.
bool createDirectory(const std::string& path, int& error);

// Bytes available to an ordinary user on the file system of `path`, or 0 on
// failure; EINTR and EIO are retried, up to 10 calls.
std::uint64_t getFreeSpace(const std::string& path);

}  // namespace vlk::directory
