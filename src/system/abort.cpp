#include <vlk/system/abort.hpp>

#include <unistd.h>

#include <algorithm>
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

// The message goes straight to the standard error stream with write(2): no
// lock, no stdio state and no memory, since the heap may be what failed.
void abortWithMessage(std::string_view message) {
    writeAll(STDERR_FILENO, message);
    writeAll(STDERR_FILENO, "\n");
    std::_Exit(255);
}

// The message is built on the stack; a text too long for it is cut short.
void abort(std::string_view text) {
    constexpr std::string_view prefix = "VELK encountered a fatal condition and is exiting: ";
    char message[4096];
    char* end = std::copy(prefix.begin(), prefix.end(), message);
    end = std::copy_n(text.data(), std::min(text.size(), sizeof message - prefix.size() - 1), end);
    *end++ = '.';
    abortWithMessage({message, static_cast<std::size_t>(end - message)});
}

}  // namespace vlk::system
