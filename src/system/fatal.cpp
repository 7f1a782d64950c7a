#include <vlk/system/fatal.hpp>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace vlk::system {
namespace {

// A stack buffer that keeps what fits of a message and drops the rest, as
// the logger's own fallback does: the report must not allocate while the
// heap or the mappings are what failed.
class message_text {
  public:
    void append(std::string_view text) {
        const std::size_t count = std::min(text.size(), sizeof _text - _length);
        std::memcpy(_text + _length, text.data(), count);
        _length += count;
    }
    void append(unsigned long value) {
        char digits[24];
        append(std::string_view(digits, std::to_chars(digits, digits + sizeof digits, value).ptr));
    }
    void write() const { writeToStandardError(_text, _length); }

  private:
    char _text[4096];
    std::size_t _length = 0;
};

void defaultAbort(const std::string& message) {
    message_text text;
    text.append("VELK encountered a fatal condition and is exiting: ");
    text.append(message);
    text.append(".");
    text.write();
    endProcess(endMode());
}

void defaultMappingFailure(const mapping_failure& failure) {
    message_text text;
    text.append("mmap failure:\n system errno          = ");
    text.append(failure.errorText);
    text.append("\n VELK mapped count     = ");
    text.append(failure.mapped);
    text.append("\n VELK unmapped count   = ");
    text.append(failure.unmapped);
    text.append("\n VELK active map count = ");
    text.append(failure.active);
    text.append(".");
    text.write();
    endProcess(endMode());
}

// Nobody to tell: the thread ends as any other.
void defaultEscapedException(std::string_view) {}

// Each slot is written by setFatalReporters and read by the report calls.
std::atomic<void (*)(const std::string&)> abortReporter{defaultAbort};
std::atomic<void (*)(const mapping_failure&)> mappingFailureReporter{defaultMappingFailure};
std::atomic<void (*)(std::string_view)> escapedExceptionReporter{defaultEscapedException};

}  // namespace

// Over at most 10 bytes, so that every leading part of "backtrace", the
// empty one included, matches and nothing longer does.
end_mode endMode() {
    const char* value = std::getenv("VELK_ABORT");
    if (value == nullptr) {
        return end_mode::exit;
    }
    const std::size_t length = std::min<std::size_t>(std::strlen(value), 10);
    return std::memcmp(value, "backtrace", length) == 0 ? end_mode::exit_with_backtrace
                                                        : end_mode::abort;
}

void endProcess(end_mode mode) {
    if (mode == end_mode::abort) {
        std::abort();
    }
    ::_exit(-1);
}

void writeToStandardError(const char* text, std::size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(STDERR_FILENO, text, length);
        if (written <= 0) {
            return;
        }
        text += written;
        length -= static_cast<std::size_t>(written);
    }
    [[maybe_unused]] ssize_t ignored = ::write(STDERR_FILENO, "\n", 1);
}

fatal_reporters fatalReporters() {
    // Acquire: pairs with the release stores in setFatalReporters, so that
    // a reporter sees what its installer set up before installing it.
    return {abortReporter.load(std::memory_order_acquire),
            mappingFailureReporter.load(std::memory_order_acquire),
            escapedExceptionReporter.load(std::memory_order_acquire)};
}

fatal_reporters defaultFatalReporters() {
    return {defaultAbort, defaultMappingFailure, defaultEscapedException};
}

void setFatalReporters(const fatal_reporters& reporters) {
    // Release: pairs with the acquire loads in fatalReporters and the
    // report calls below.
    abortReporter.store(reporters.abort, std::memory_order_release);
    mappingFailureReporter.store(reporters.mappingFailure, std::memory_order_release);
    escapedExceptionReporter.store(reporters.escapedException, std::memory_order_release);
}

void reportMappingFailure(const mapping_failure& failure) {
    // Acquire: pairs with the release store in setFatalReporters.
    mappingFailureReporter.load(std::memory_order_acquire)(failure);
    // A reporter that returned broke its contract; the process ends anyway.
    endProcess(endMode());
}

void reportEscapedException(std::string_view what) {
    // Acquire: pairs with the release store in setFatalReporters.
    escapedExceptionReporter.load(std::memory_order_acquire)(what);
}

}  // namespace vlk::system
