// The catalogue rows: one static `vlk::errors::E<cc><nnnn>` per row, named by
// its category in two hexadecimal digits and its code in four decimal
// digits (`E000041` is row 00-0041). A row with fragments is an object of its
// shape class; a bare row, whose text comes whole with the logging call, is a
// plain `error_id`. All rows are built, in catalogue order, before `main`.
#pragma once

#include <vlk/catalogue/error_factory.hpp>

// The action of every row that names none.
#define VLK_DEFAULT_ACTION "No recommended action available."

namespace vlk::errors {

#define VLK_ROW(category, code, level, shape, ...) \
    extern const velk_error_factory_##shape E##category##code;
#define VLK_BARE(category, code, ...) extern const error_id E##category##code;
#include <vlk/catalogue/catalogue_rows.inc>
#undef VLK_ROW
#undef VLK_BARE

}  // namespace vlk::errors
