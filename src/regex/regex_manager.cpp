#include <vlk/regex/regex_manager.hpp>

#include <pcre.h>

#include <vlk/containers/mpmc_hash_map.hpp>
#include <vlk/system/init_once.hpp>

namespace velk {
namespace _velk_regex_manager_detail {

class _velk_regex_manager_impl {
  public:
    // Gives the registry its own thread tracker.
    struct unique {};

    using registry = vlk::lockfree::mpmc_hash_map<
        std::string, vlk::jit_regex_pointer, unique,
        vlk::lockfree::mpmc_hash_map_constants<1024, 2, 8388608, true, false, false, false>>;

    // Looks the pattern up and, on a miss, compiles it outside the map's
    // read section and inserts it. When another thread stored the same text
    // in between, its object wins and ours dies with the local reference:
    // a pattern may be compiled twice but is stored once.
    void* registerRegex(const std::string& pattern) {
        registry& regexes = *_regexes.init();
        for (;;) {
            vlk::jit_regex_pointer found;
            if (regexes.find(pattern, found)) {
                return found.get();  // the registry's reference keeps it alive
            }
            vlk::jit_regex_pointer compiled(new vlk::jit_regex(pattern));
            if (compiled->_code == nullptr) {
                return nullptr;  // not remembered: a later call compiles again
            }
            if (regexes.insert(pattern, compiled)) {
                return compiled.get();
            }
        }
    }

    std::uint64_t size() const {
        const registry* regexes = _regexes.get();
        return regexes == nullptr ? 0 : regexes->size();
    }

  private:
    // The map is built by the first registration, not with the manager: its
    // first table (1024 buckets and their node pool, about 50 pages written as
    // it is built) are pages that a process which starts the manager but never
    // registers, as velkmsg does, need not touch. Racing first registrations
    // are ordered by the guard, and later ones pay one acquire load.
    //
    // Torn down with the manager, with no other thread registering or
    // matching, so the map's destructor drops every expression without a
    // grace period; a clear() would wait on the map's thread tracker, whose
    // statics may already be gone at exit.
    vlk::system::init_once<registry> _regexes;
};

// Built on first use, torn down by terminate() or at exit, after which the
// next registration builds an empty one again.
vlk::system::init_once<_velk_regex_manager_impl> g_manager;

}  // namespace _velk_regex_manager_detail

using _velk_regex_manager_detail::g_manager;

void velk_regex_manager::init() {
    g_manager.init();
}

void velk_regex_manager::terminate() {
    g_manager.shutdown();
}

void velk_regex_manager::threadTerminate() {
    void*& stack = _velk_regex_manager_detail::_jitStack;
    if (stack != nullptr) {
        vlk::jit_regex::deallocateJitStack(stack);
        stack = nullptr;
    }
}

void* velk_regex_manager::registerRegex(const std::string& pattern) {
    return g_manager.init()->registerRegex(pattern);
}

void* velk_regex_manager::registerRegex(const vlk::base::cstring& pattern) {
    return registerRegex(std::string(pattern.view()));
}

std::uint64_t velk_regex_manager::registeredCount() {
    const auto* manager = g_manager.get();
    return manager == nullptr ? 0 : manager->size();
}

int velk_regex_manager::match(void* regex, const char* text, unsigned long length,
                              unsigned long startOffset, int* ovector, unsigned long ovectorSize) {
    if (regex == nullptr) {
        return -1;
    }
    // The stack comes first, so a thread has one even when the
    // expression turns out not to use it.
    void* stack = getJitStack();
    const auto* expression = static_cast<const vlk::jit_regex*>(regex);
    if (expression->_code == nullptr) {
        return -1;
    }
    // PCRE's arguments are ints: longer values are cut, as PCRE would
    // cut them.
    if (expression->_useJitExec) [[unlikely]] {
        return pcre_jit_exec(expression->_code, expression->_extra, text, static_cast<int>(length),
                             static_cast<int>(startOffset), 0, ovector,
                             static_cast<int>(ovectorSize), static_cast<pcre_jit_stack*>(stack));
    }
    return pcre_exec(expression->_code, expression->_extra, text, static_cast<int>(length),
                     static_cast<int>(startOffset), 0, ovector, static_cast<int>(ovectorSize));
}

}  // namespace velk
