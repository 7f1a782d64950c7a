#include <vlk/catalogue/error_manager.hpp>

#include <cstdlib>
#include <locale>
#include <string_view>

#include <pcre.h>

#include <vlk/catalogue/errors.hpp>
#include <vlk/regex/regex.hpp>
#include <vlk/system/init_once.hpp>

namespace vlk {
namespace {

using _error_manager_detail::_error_manager_impl;

// The guard is constant-initialised, so rows may register from any static
// initialiser. Its priority registers its exit-time destructor before those
// of the statics of default priority, so it runs after them: destructors of
// other units may still search the catalogue. (Rows have no destructor:
// they stay to the end, see error_factory.hpp.)
//
// At exit the catalogue is abandoned, not freed: the guard still goes to
// empty at that point, so an exit handler that runs later finds no catalogue
// as it would after a teardown, but the table and its 2012 texts are left to
// the end of the process. Freeing them one string at a time was 60% of the
// instructions velkmsg ran after main returned, and nothing can observe it:
// the catalogue owns nothing but memory, and the guard hands it out no more.
[[gnu::init_priority(1000)]] system::init_once<_error_manager_impl, system::exit_policy::abandon>
    g_errorManager;

// The rows live in their own unit, which nothing else names: this reference
// keeps the linker from leaving the catalogue out of a static link.
[[gnu::used]] const void* const g_catalogueAnchor = &errors::E000000;

// Vector size PCRE gets for a match: room for the whole match and a few
// groups, none of which are read.
constexpr int match_vector_size = 16;

// A copy of `text` without the bytes that the global locale calls blanks,
// trimmed from the end first, then from the start.
std::string trimmed(const std::string& text) {
    const auto& ctype = std::use_facet<std::ctype<char>>(std::locale());
    auto isSpace = [&](char c) { return ctype.is(std::ctype_base::space, c); };
    std::size_t end = text.size();
    while (end > 0 && isSpace(text[end - 1])) {
        --end;
    }
    std::size_t begin = 0;
    while (begin < end && isSpace(text[begin])) {
        ++begin;
    }
    return text.substr(begin, end - begin);
}

// Calls `onHit(entry)` for each catalogue row, in catalogue order, whose
// identifier `pattern` matches anywhere. A pattern without syntax, such as
// an identifier or a prefix, is searched for as it stands: matching it
// through PCRE costs more than the rest of a velkmsg run's own work.
template <typename OnHit>
void forEachMatch(const error_map& catalogue, const std::string& pattern, OnHit onHit) {
    if (catalogue.size() == 0) {
        return;
    }
    const std::string text = trimmed(pattern);
    const bool plain = isLiteralPattern(text);
    regex expression;
    if (!plain) {
        expression.init(text);
        if (expression._code == nullptr) {
            return;
        }
    }
    char subject[error_id_buffer_size];
    int vector[match_vector_size];
    for (auto& row : catalogue) {
        const std::size_t length = renderErrorId(row.key, subject);
        const bool hit =
            plain ? std::string_view(subject, length).find(text) != std::string_view::npos
                  : pcre_exec(expression._code, expression._extra, subject,
                              static_cast<int>(length), 0, 0, vector, match_vector_size) >= 0;
        if (hit) {
            onHit(row);
        }
    }
}

// The catalogue, or null once it has been shut down.
const _error_manager_impl* instance() {
    return g_errorManager.get();
}

}  // namespace

namespace _error_manager_detail {

bool _error_manager_impl::findErrors(const std::string& pattern, error_map& result) const {
    forEachMatch(_catalogue, pattern, [&](const auto& row) { result.insert(row.key, row.value); });
    return result.size() != 0;
}

bool _error_manager_impl::findErrors(const std::string& pattern, error_set& result) const {
    forEachMatch(_catalogue, pattern, [&](const auto& row) { result.insert(row.key); });
    return result.size() != 0;
}

bool toErrorId(const std::string& text, error_id& id) {
    if (text.size() != 6 && text.size() != 7) {
        return false;
    }
    const std::string category = text.substr(0, 2);
    const std::string code = text.substr(text.size() - 4);
    const unsigned long categoryValue = std::strtoul(category.c_str(), nullptr, 16);
    const unsigned long codeValue = std::strtoul(code.c_str(), nullptr, 10);
    id.code = static_cast<std::uint16_t>(codeValue);
    id.level = 0;
    id.category = static_cast<std::uint8_t>(categoryValue);
    return true;
}

}  // namespace _error_manager_detail

void error_manager::init() {
    g_errorManager.init();
}

std::int64_t error_manager::shutdown() {
    return g_errorManager.shutdown();
}

void error_manager::registerError(const error_id& id, const char* description, const char* action) {
    g_errorManager.init()->_catalogue.insert(id, error_description{description, action});
}

bool error_manager::findErrors(const std::string& pattern, error_map& result) {
    const _error_manager_impl* manager = instance();
    return manager != nullptr ? manager->findErrors(pattern, result) : result.size() != 0;
}

bool error_manager::findErrors(const std::string& pattern, error_set& result) {
    const _error_manager_impl* manager = instance();
    return manager != nullptr ? manager->findErrors(pattern, result) : result.size() != 0;
}

bool error_manager::findError(const std::string& text, error_id& id) {
    error_id parsed{};
    if (!_error_manager_detail::toErrorId(trimmed(text), parsed)) {
        return true;
    }
    const _error_manager_impl* manager = instance();
    if (manager == nullptr) {
        return false;
    }
    const auto* row = manager->_catalogue.findEntry(parsed);
    if (row == nullptr) {
        return false;
    }
    id = row->key;
    return true;
}

error_description error_manager::errorInfo(const error_id& id) {
    const error_description* texts = g_errorManager.init()->_catalogue.find(id);
    if (texts == nullptr) {
        return {"No description found.", "No recommended action."};
    }
    return *texts;
}

}  // namespace vlk
