// The registry of the message catalogue, and its search.
//
// Every catalogue row registers its description and action here while the
// program's static initialisers run; after that the catalogue is only read,
// without locks, from any thread. A search matches a regular expression
// against the text form of each row's identifier ("01-0001"), never against
// its texts or level, and copies the hits into the caller's map or set.
//
// Results come in the iteration order of the hash containers, which follows
// from the order of registration: reports print that order unsorted.
#pragma once

#include <cstdint>
#include <string>

#include <vlk/catalogue/error_id.hpp>
#include <vlk/containers/hash_map.hpp>
#include <vlk/containers/hash_set.hpp>

namespace vlk {

// The two texts of a row. Members are destroyed in reverse order: the action
// is released before the description.
struct error_description {
    std::string description;
    std::string action;
};

namespace base {

// An identifier hashes to its 24 bits of category and code, with no mixing:
// the level is not part of the key.
template <>
struct hash_map_key_traits<error_id> {
    static std::uint64_t hash(const error_id& id) {
        return (std::uint64_t{id.category} << 16) | id.code;
    }
    static bool equal(const error_id& a, const error_id& b) { return a == b; }
};

template <>
struct hash_set_key_traits<error_id> : hash_map_key_traits<error_id> {};

}  // namespace base

class error_map
    : public base::hash_map<
          error_id, error_description, base::hash_map_constants<4096, 2>,
          base::hash_map_traits<error_id, error_description, base::hash_map_key_traits<error_id>,
                                base::hash_map_allocator<false, 65536>>> {};

class error_set
    : public base::hash_set<error_id, base::hash_set_constants<4096, 2>,
                            base::hash_set_traits<error_id, base::hash_set_key_traits<error_id>,
                                                  base::hash_set_allocator<false, 65536>>> {};

// A filter lookup reads one line: state, chain head, four hashes, four keys.
static_assert(sizeof(error_set::bucket) == 64);
static_assert(sizeof(error_set::segment) == 184);

class error_manager {
  public:
    // Builds the catalogue's singleton if it does not exist yet.
    static void init();

    // Tears the catalogue down. Returns 1 when this call did, otherwise the
    // state word of the guard. Rows do not register again afterwards.
    static std::int64_t shutdown();

    // Adds a row unless its (category, code) is registered: the first
    // registration wins. Copies both texts. Used by static initialisers.
    static void registerError(const error_id& id, const char* description, const char* action);

    // Adds every row whose identifier `pattern` matches (unanchored, after
    // trimming blanks from both ends) to `result`, keeping entries already
    // there. A pattern that does not compile matches nothing. Returns whether
    // `result` is non-empty.
    static bool findErrors(const std::string& pattern, error_map& result);
    static bool findErrors(const std::string& pattern, error_set& result);

    // Exact lookup of a trimmed identifier such as "01-0001" or "1d0001".
    // False means exactly: a well-formed identifier that is not registered.
    // True with `id` written (level included) when it is found, and true
    // with `id` untouched when `text` is no identifier at all.
    static bool findError(const std::string& text, error_id& id);

    // The texts of `id`, or "No description found." and "No recommended
    // action." when it is not registered.
    static error_description errorInfo(const error_id& id);
};

namespace _error_manager_detail {

class _error_manager_impl {
  public:
    bool findErrors(const std::string& pattern, error_map& result) const;
    bool findErrors(const std::string& pattern, error_set& result) const;

    error_map _catalogue;
};

// Parses "CC-NNNN": the first two characters as hexadecimal, the last four as
// decimal; the middle character is not looked at. Only lengths 6 and 7 are
// accepted; unreadable digits end a number early, as strtoul does.
bool toErrorId(const std::string& text, error_id& id);

}  // namespace _error_manager_detail
}  // namespace vlk
