#include <vlk/system/abort.hpp>

#include <unistd.h>

#include <cstdlib>

namespace vlk::system {
namespace {

void writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t n = ::write(fd, text.data(), text.size());
        if (n <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(n));
    }
}

}  // namespace

// Until records can go through the logger, the fatal text goes straight to
// the standard error stream with write(2): no lock, no stdio state and no
// memory, since the heap may be what failed.
void abort(std::string_view text) {
    writeAll(STDERR_FILENO, "VELK encountered a fatal condition and is exiting: ");
    writeAll(STDERR_FILENO, text);
    writeAll(STDERR_FILENO, ".\n");
    std::_Exit(255);
}

}  // namespace vlk::system
