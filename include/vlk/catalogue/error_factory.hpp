// The classes of catalogue rows.
//
// A row object starts with its `error_id`, so it can stand wherever an
// identifier is wanted, and then holds the fixed fragments of its message in
// message order; a logging call fills the gaps between them with values. A
// row's description and action live only in the error manager, which the
// constructor registers them with.
//
// A class is named by the shape of its message: a leading "S" for a message
// that starts with a fixed fragment, the number of gaps, and a trailing "S"
// for one that ends with a fixed fragment; gaps are always separated by one
// fragment. "S" alone is a single fixed text. So `velk_error_factory_S2S` is
// fragment, gap, fragment, gap, fragment.
#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <string>

#include <vlk/catalogue/error_id.hpp>
#include <vlk/catalogue/error_manager.hpp>

namespace vlk {

template <bool Leading, unsigned Gaps, bool Trailing>
class velk_error_factory_shape : public error_id {
  public:
    static constexpr bool leading = Leading;
    static constexpr bool trailing = Trailing;
    static constexpr unsigned gaps = Gaps;
    static constexpr unsigned fragment_count = Gaps == 0 ? 1 : Gaps - 1 + Leading + Trailing;

    template <std::convertible_to<const char*>... Fragments>
    requires(sizeof...(Fragments) == fragment_count)
        velk_error_factory_shape(char level, char category, unsigned short code,
                                 const char* description, const char* action,
                                 Fragments... fragmentTexts)
        : error_id{static_cast<std::uint8_t>(level), static_cast<std::uint8_t>(category), code},
          fragments{std::string(fragmentTexts)...} {
        error_manager::registerError(*this, description, action);
    }

    std::array<std::string, fragment_count> fragments;
};

// clang-format off
using velk_error_factory_S    = velk_error_factory_shape<true, 0, false>;
using velk_error_factory_S1   = velk_error_factory_shape<true, 1, false>;
using velk_error_factory_S2   = velk_error_factory_shape<true, 2, false>;
using velk_error_factory_S3   = velk_error_factory_shape<true, 3, false>;
using velk_error_factory_S4   = velk_error_factory_shape<true, 4, false>;
using velk_error_factory_S5   = velk_error_factory_shape<true, 5, false>;
using velk_error_factory_S6   = velk_error_factory_shape<true, 6, false>;
using velk_error_factory_S7   = velk_error_factory_shape<true, 7, false>;
using velk_error_factory_S8   = velk_error_factory_shape<true, 8, false>;
using velk_error_factory_S9   = velk_error_factory_shape<true, 9, false>;
using velk_error_factory_S10  = velk_error_factory_shape<true, 10, false>;
using velk_error_factory_S11  = velk_error_factory_shape<true, 11, false>;
using velk_error_factory_S12  = velk_error_factory_shape<true, 12, false>;
using velk_error_factory_S13  = velk_error_factory_shape<true, 13, false>;
using velk_error_factory_S14  = velk_error_factory_shape<true, 14, false>;
using velk_error_factory_S15  = velk_error_factory_shape<true, 15, false>;
using velk_error_factory_S1S  = velk_error_factory_shape<true, 1, true>;
using velk_error_factory_S2S  = velk_error_factory_shape<true, 2, true>;
using velk_error_factory_S3S  = velk_error_factory_shape<true, 3, true>;
using velk_error_factory_S4S  = velk_error_factory_shape<true, 4, true>;
using velk_error_factory_S5S  = velk_error_factory_shape<true, 5, true>;
using velk_error_factory_S6S  = velk_error_factory_shape<true, 6, true>;
using velk_error_factory_S7S  = velk_error_factory_shape<true, 7, true>;
using velk_error_factory_S9S  = velk_error_factory_shape<true, 9, true>;
using velk_error_factory_S15S = velk_error_factory_shape<true, 15, true>;
using velk_error_factory_1S   = velk_error_factory_shape<false, 1, true>;
using velk_error_factory_2S   = velk_error_factory_shape<false, 2, true>;
using velk_error_factory_2    = velk_error_factory_shape<false, 2, false>;
using velk_error_factory_3    = velk_error_factory_shape<false, 3, false>;
using velk_error_factory_4    = velk_error_factory_shape<false, 4, false>;
// clang-format on

}  // namespace vlk
