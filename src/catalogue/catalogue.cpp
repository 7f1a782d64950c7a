// Builds every catalogue row, in catalogue order, during static
// initialisation. Each row registers its texts as it is built, so the order
// of the table is the order in which the catalogue's hash table is filled.
#include <array>
#include <cstdint>

#include <vlk/catalogue/errors.hpp>

namespace vlk::errors {
namespace {

// The code column of the table is written with its leading zeros, which a
// C++ literal would read as octal; it is read from its spelling instead.
consteval std::uint16_t decimal(const char* digits) {
    std::uint16_t value = 0;
    for (; *digits != '\0'; ++digits) {
        value = static_cast<std::uint16_t>(value * 10 + (*digits - '0'));
    }
    return value;
}

struct row_key {
    std::uint8_t category;
    std::uint16_t code;
};

constexpr row_key catalogue_keys[] = {
#define VLK_ROW(category, code, ...) {0x##category, decimal(#code)},
#define VLK_BARE(category, code, ...) {0x##category, decimal(#code)},
#include <vlk/catalogue/catalogue_rows.inc>
#undef VLK_ROW
#undef VLK_BARE
};

consteval bool strictlyAscending() {
    for (std::size_t i = 1; i < std::size(catalogue_keys); ++i) {
        const row_key& a = catalogue_keys[i - 1];
        const row_key& b = catalogue_keys[i];
        if (a.category > b.category || (a.category == b.category && a.code >= b.code)) {
            return false;
        }
    }
    return true;
}

static_assert(std::size(catalogue_keys) == 1006, "the catalogue has 1006 rows");
static_assert(strictlyAscending(), "rows are in ascending (category, code) order, without repeats");

// A bare row has no class: its identifier is registered directly.
error_id registerBare(log_level level, std::uint8_t category, std::uint16_t code,
                      const char* description, const char* action) {
    const error_id id{static_cast<std::uint8_t>(level), category, code};
    error_manager::registerError(id, description, action);
    return id;
}

}  // namespace

#define VLK_ROW(category, code, level, shape, description, action, ...)                       \
    const velk_error_factory_##shape E##category##code(                                       \
        static_cast<char>(log_level::level), static_cast<char>(0x##category), decimal(#code), \
        description, action, __VA_ARGS__);
#define VLK_BARE(category, code, level, description, action) \
    const error_id E##category##code =                       \
        registerBare(log_level::level, 0x##category, decimal(#code), description, action);
#include <vlk/catalogue/catalogue_rows.inc>
#undef VLK_ROW
#undef VLK_BARE

}  // namespace vlk::errors
