// The one exit for an unrecoverable state.
//
// `abort(text)` reports "VELK encountered a fatal condition and is exiting:
// <text>." and ends the process with status 255. `abortWithMessage(message)`
// reports a message composed by the caller, such as the text of a fatal
// catalogue row, the same way. Until fatal records can go through the logger,
// both write the message and a line feed to the standard error stream. Neither
// returns; both may be called from any thread, also before `main` and during
// exit, and neither allocates.
#pragma once

#include <string_view>

namespace vlk::system {

[[noreturn]] void abort(std::string_view text);
[[noreturn]] void abortWithMessage(std::string_view message);

}  // namespace vlk::system
