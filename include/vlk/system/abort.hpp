// The one exit for an unrecoverable state.
//
// `abort(text)` reports "VELK encountered a fatal condition and is exiting:
// <text>." and ends the process with status 255. It never returns and may be
// called from any thread, also before `main` and during exit.
#pragma once

#include <string_view>

namespace vlk::system {

[[noreturn]] void abort(std::string_view text);

}  // namespace vlk::system
