// Guard of a process-wide singleton.
//
// An `init_once<T>` is a static object holding a state word and a pointer to
// the one `T`. `init()` builds the object on the first call, on a 128-byte
// boundary; callers racing with the builder wait until it is ready. The
// guard's destructor (run at exit) and `shutdown()` tear it down, after which
// `init()` may build it again. Spinning has no pause and no limit: a builder
// that dies leaves its rivals spinning, which is acceptable for objects built
// once at start-up.
//
// The constructor is constexpr, so the guard is ready before any dynamic
// initialiser runs and singletons may be built from other static
// initialisers.
//
// What the destructor does with a ready object is the guard's exit policy:
// `release` tears it down as shutdown() does; `abandon` takes the guard
// through the same states to empty, so that whoever looks afterwards finds
// no object, but runs no destructor and frees nothing. Abandoning suits a
// static guard whose object owns nothing but memory: at exit, freeing it
// piece by piece only delays the end of the process, which returns the pages
// at once. The abandoned object stays referenced from the guard, so leak
// checkers count it as reachable.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>

#include <vlk/system/allocate.hpp>

namespace vlk::system {

enum class exit_policy { release, abandon };

template <typename T, exit_policy AtExit = exit_policy::release>
class init_once {
  public:
    enum : std::int64_t { empty = 0, building = 1, ready = 2, destroying = 3 };

    constexpr init_once() = default;
    init_once(const init_once&) = delete;
    init_once& operator=(const init_once&) = delete;
    ~init_once() { _tearDown(AtExit == exit_policy::release); }

    // Builds the object unless it is ready; returns it.
    T* init() {
        // Acquire: pairs with the release store of `ready` below, so the
        // object built by another thread is visible through `_object`.
        if (_state.load(std::memory_order_acquire) == ready) {
            return _object.load(std::memory_order_relaxed);
        }
        std::int64_t expected = empty;
        if (_state.compare_exchange_strong(expected, building, std::memory_order_acquire)) {
            // Qualified: from here `memory::` would name vlk::system::memory.
            void* memory = vlk::memory::aligned::allocate<128>(sizeof(T));
            _object.store(new (memory) T(), std::memory_order_relaxed);
            _state.store(ready, std::memory_order_release);
        } else {
            while (_state.load(std::memory_order_acquire) == building) {
            }
        }
        return _object.load(std::memory_order_relaxed);
    }

    // Tears the object down if it is ready. Returns 1 when this call did,
    // otherwise the state word it found.
    std::int64_t shutdown() { return _tearDown(true); }

    // The object, or null when it is not built. No synchronisation beyond
    // the load: callers rely on the object having been built earlier in the
    // same thread or before threads were started.
    T* get() const { return _object.load(std::memory_order_acquire); }

    std::int64_t state() const { return _state.load(std::memory_order_acquire); }

  private:
    // Empties a ready guard; `release` says whether the object is destroyed
    // and freed or abandoned where it is.
    std::int64_t _tearDown(bool release) {
        std::int64_t expected = ready;
        if (!_state.compare_exchange_strong(expected, destroying, std::memory_order_acquire)) {
            if (expected == destroying) {
                while (_state.load(std::memory_order_acquire) == destroying) {
                }
                return _state.load(std::memory_order_relaxed);
            }
            return expected;
        }
        T* object = _object.load(std::memory_order_relaxed);
        if (release) {
            object->~T();
            vlk::memory::aligned::deallocate(object);
        } else {
            _abandoned = object;
        }
        _object.store(nullptr, std::memory_order_relaxed);
        // Release: the teardown happens-before a later builder's acquire CAS.
        _state.store(empty, std::memory_order_release);
        return 1;
    }

    // 0 empty, 1 being built, 2 ready, 3 being destroyed. Changes from 0 to 1
    // and from 2 to 3 by compare-and-swap only, so one thread owns each
    // transition.
    std::atomic<std::int64_t> _state{empty};
    std::atomic<T*> _object{nullptr};
    // The last abandoned object, written only by the thread that owns the
    // teardown; nothing reads it but a leak checker.
    T* _abandoned = nullptr;
};

}  // namespace vlk::system

namespace velk {
template <typename T>
using velk_init_once = vlk::system::init_once<T>;
}  // namespace velk
