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
//
// Rows are statics that live to the end of the process, and are never
// destroyed: their fragments stay valid for exit handlers that log, and
// cost no destructor registration at start and no teardown at exit.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <type_traits>

#include <vlk/catalogue/error_id.hpp>
#include <vlk/catalogue/error_manager.hpp>

namespace vlk {

// The fixed fragments of a row, built in message order and never released.
// The catalogue builds 931 row objects before main; with a destructor each,
// every one registered it with __cxa_atexit (about 30 kB of the heap) and at
// exit freed its strings one by one: together 3 to 4.5% of a whole
// `velkmsg 01-0001` run, for memory that the end of the process returns
// anyway. Being
// trivially destructible, a row registers nothing. The texts stay referenced
// from the row, so leak checkers count them as reachable.
template <std::size_t N>
class row_fragments {
  public:
    template <std::convertible_to<const char*>... Texts>
    requires(sizeof...(Texts) == N) explicit row_fragments(Texts... texts) {
        std::size_t i = 0;
        (::new (static_cast<void*>(_storage[i++])) std::string(texts), ...);
    }

    const std::string& operator[](std::size_t i) const {
        return *std::launder(reinterpret_cast<const std::string*>(_storage[i]));
    }
    static constexpr std::size_t size() { return N; }

  private:
    alignas(std::string) unsigned char _storage[N][sizeof(std::string)];
};

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
          fragments(fragmentTexts...) {
        error_manager::registerError(*this, description, action);
    }

    row_fragments<fragment_count> fragments;
};
static_assert(std::is_trivially_destructible_v<velk_error_factory_shape<true, 2, true>>);

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
