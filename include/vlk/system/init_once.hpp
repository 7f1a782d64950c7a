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
#pragma once

#include <atomic>
#include <cstdint>
#include <new>

#include <vlk/memory/allocate.hpp>

namespace vlk::system {

template <typename T>
class init_once {
  public:
    enum : std::int64_t { empty = 0, building = 1, ready = 2, destroying = 3 };

    constexpr init_once() = default;
    init_once(const init_once&) = delete;
    init_once& operator=(const init_once&) = delete;
    ~init_once() { shutdown(); }

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
    std::int64_t shutdown() {
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
        object->~T();
        vlk::memory::aligned::deallocate(object);
        _object.store(nullptr, std::memory_order_relaxed);
        // Release: the teardown happens-before a later builder's acquire CAS.
        _state.store(empty, std::memory_order_release);
        return 1;
    }

    // The object, or null when it is not built. No synchronisation beyond
    // the load: callers rely on the object having been built earlier in the
    // same thread or before threads were started.
    T* get() const { return _object.load(std::memory_order_acquire); }

    std::int64_t state() const { return _state.load(std::memory_order_acquire); }

  private:
    // 0 empty, 1 being built, 2 ready, 3 being destroyed. Changes from 0 to 1
    // and from 2 to 3 by compare-and-swap only, so one thread owns each
    // transition.
    std::atomic<std::int64_t> _state{empty};
    std::atomic<T*> _object{nullptr};
};

}  // namespace vlk::system

namespace velk {
template <typename T>
using velk_init_once = vlk::system::init_once<T>;
}  // namespace velk
