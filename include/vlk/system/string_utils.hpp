// Small text operations of the toolkit, mostly for reading configuration and
// rendering identifiers.
//
// Tables here are constant-initialised: they are complete before any dynamic
// initialiser runs, so static initialisers of other units may read them. All
// of it is safe from any thread and allocates nothing.
#pragma once

#include <vlk/containers/cstring.hpp>

namespace vlk::string_utils {

// A byte's text as two upper-case hexadecimal digits: uchar2hex[10] is "0A"
// and uchar2hex[255] is "FF". Every entry has length 2 and is not
// NUL-terminated.
extern const base::cstring uchar2hex[256];

}  // namespace vlk::string_utils
