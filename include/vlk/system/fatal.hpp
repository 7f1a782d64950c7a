// The fatal ends of the bottom layer, and how they are reported.
//
// Three events end a process (or a thread) from below the logger: an
// unrecoverable state (`system::abort`, the heap's "allocate failed"), an
// anonymous mapping that keeps failing (`vlk::mmap`), and an exception that
// escapes the body of a `vlk::thread`. Each is handed to a replaceable
// reporter, so that the layer that detects it needs nothing above it.
//
// The default reporters write the message and a line feed to standard error
// and end the process by `endProcess(endMode())`: exit status 255, or
// abort() when VELK_ABORT asks for it. The default for an escaped exception
// writes nothing; the thread then ends as usual. The logger installs
// reporters that log through it while it exists, and puts these defaults
// back when it is terminated.
//
// The abort and mapping reporters must not return; the escaped-exception
// reporter returns and may throw.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vlk::system {

// What the mapping layer knows when it gives up: errno's text and the
// counts of `mmap_stats` at that moment (active = mapped - unmapped,
// computed without sign, as the counters are).
struct mapping_failure {
    const std::string& errorText;
    unsigned long mapped;
    unsigned long unmapped;
    unsigned long active;
};

struct fatal_reporters {
    // `message` is the cause, e.g. "allocate failed: out of memory".
    void (*abort)(const std::string& message);
    void (*mappingFailure)(const mapping_failure& failure);
    // `what` is the exception's text, "unknown" for a non-standard one.
    void (*escapedException)(std::string_view what);
};

// How a fatal end finishes the process, read from VELK_ABORT each time:
// unset ends with status 255; a leading part of "backtrace" (the empty
// string included) also ends with 255 and asks a logger to add the stack;
// anything else calls abort().
enum class end_mode { exit, exit_with_backtrace, abort };
end_mode endMode();
[[noreturn]] void endProcess(end_mode mode);

// `text` and a line feed on standard error, by write(2), without a lock or
// an allocation; gives up on the first failing write.
void writeToStandardError(const char* text, std::size_t length);

// The reporters the bottom layer calls now, and the defaults described
// above. Installing is safe from any thread.
fatal_reporters fatalReporters();
fatal_reporters defaultFatalReporters();
void setFatalReporters(const fatal_reporters& reporters);

// Called by the mapping layer and by `vlk::thread`; they go through the
// installed reporter.
[[noreturn]] void reportMappingFailure(const mapping_failure& failure);
void reportEscapedException(std::string_view what);

}  // namespace vlk::system
