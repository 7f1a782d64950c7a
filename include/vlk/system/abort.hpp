// The one exit for an unrecoverable state.
//
// `abort(message)` logs catalogue row 00-0041, "VELK encountered a fatal
// condition and is exiting: <message>.", through the logger's abort: the
// record goes out, the logging thread is given one pass, and the process
// ends with status 255 (or abort() as VELK_ABORT chooses). Before the logger
// is initialised the message goes to standard error instead. Never returns.
// Once the logger is initialised, the end waits for a pass of its logging
// thread: a process that never started it stays in that wait.
#pragma once

#include <string>

namespace vlk::system {

[[noreturn]] void abort(const std::string& message);

}  // namespace vlk::system
