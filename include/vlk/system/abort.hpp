// The one exit for an unrecoverable state.
//
// `abort(message)` reports "VELK encountered a fatal condition and is
// exiting: <message>." through the installed abort reporter (fatal.hpp) and
// ends the process with status 255, or abort() as VELK_ABORT chooses. By
// default the text goes to standard error; the logger, once initialised,
// logs it instead and waits for a pass of its logging thread first (a
// process that never started that thread stays in that wait).
// Never returns.
#pragma once

#include <string>

namespace vlk::system {

[[noreturn]] void abort(const std::string& message);

}  // namespace vlk::system
