// Shared ownership through a count inside the object.
//
// `intrusive_pointer` is one word, a pointer to T. T carries its own count as
// a signed 32-bit member `_refCount` at its start, 0 when the object is
// made; the traits are the one place that names that member, so any T with a
// `_refCount` of type std::atomic<std::int32_t> (or a plain std::int32_t,
// updated through std::atomic_ref) works. The holder that brings the count to
// 0 applies the release policy, by default the destructor and operator
// delete. Pointers to one object may be copied and released on any threads
// at once; one pointer object must not be changed by two threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace vlk::base {

// Runs the object's destructor and gives its memory to operator delete.
struct default_ip_release_policy {
    template <typename T>
    static void release(T* object) {
        delete object;
    }
};

template <typename T, typename ReleasePolicy = default_ip_release_policy>
struct intrusive_pointer_traits {
    using release_policy = ReleasePolicy;

    // Relaxed: a new holder is made from an existing one, which keeps the
    // object alive meanwhile; the count publishes no data.
    static void addReference(T* object) {
        _apply(object, [](auto& count) { count.fetch_add(1, std::memory_order_relaxed); });
    }

    // True when this was the last holder. Release: this holder's writes to
    // the object happen before the destruction. Acquire: the last holder
    // sees every other holder's writes. Pairs with the same fetch_sub in
    // the other holders.
    static bool dropReference(T* object) {
        std::int32_t before = 0;
        _apply(object,
               [&](auto& count) { before = count.fetch_sub(1, std::memory_order_acq_rel); });
        return before == 1;
    }

    static std::int32_t references(T* object) {
        std::int32_t value = 0;
        _apply(object, [&](auto& count) { value = count.load(std::memory_order_relaxed); });
        return value;
    }

  private:
    template <typename Operation>
    static void _apply(T* object, Operation operation) {
        using member = std::remove_cvref_t<decltype(object->_refCount)>;
        if constexpr (std::is_same_v<member, std::atomic<std::int32_t>>) {
            operation(object->_refCount);
        } else {
            static_assert(std::is_same_v<member, std::int32_t>,
                          "_refCount must be a signed 32-bit count");
            std::atomic_ref<std::int32_t> count(object->_refCount);
            operation(count);
        }
    }
};

template <typename T, typename Traits = intrusive_pointer_traits<T, default_ip_release_policy>>
class intrusive_pointer {
  public:
    intrusive_pointer() = default;

    explicit intrusive_pointer(T* object) : _object(object) { _addReference(); }

    intrusive_pointer(const intrusive_pointer& other) : _object(other._object) { _addReference(); }

    intrusive_pointer(intrusive_pointer&& other) noexcept
        : _object(std::exchange(other._object, nullptr)) {}

    intrusive_pointer& operator=(const intrusive_pointer& other) {
        if (this != &other) {
            intrusive_pointer copy(other);
            swap(copy);
        }
        return *this;
    }

    intrusive_pointer& operator=(intrusive_pointer&& other) noexcept {
        if (this != &other) {
            release();
            _object = std::exchange(other._object, nullptr);
        }
        return *this;
    }

    ~intrusive_pointer() { release(); }

    // Gives up this holder's share and leaves the pointer null.
    void release() {
        T* held = std::exchange(_object, nullptr);
        if (held != nullptr && Traits::dropReference(held)) {
            Traits::release_policy::release(held);
        }
    }

    void swap(intrusive_pointer& other) noexcept { std::swap(_object, other._object); }

    T* get() const { return _object; }
    T* operator->() const { return _object; }
    T& operator*() const { return *_object; }
    explicit operator bool() const { return _object != nullptr; }

  private:
    void _addReference() {
        if (_object != nullptr) {
            Traits::addReference(_object);
        }
    }

    T* _object = nullptr;
};

}  // namespace vlk::base
