// Shared ownership of one object through a separately allocated count.
//
// `shared_pointer` holds two words: `count`, a signed 32-bit count in a block
// of its own from operator new (null for an empty pointer), and `object`. The
// last holder frees the count first and then deletes the object through the
// deletion policy (for a polymorphic T, through its virtual destructor).
// Copies of one pointer may be made and released on any threads at once; one
// pointer object must not be changed by two threads. An empty pointer never
// touches the allocator. A pointer that has been released holds no count, so
// releasing it again does nothing; its `object` is left as it was and must
// not be used.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace vlk::base {

struct default_sp_deletion_policy {
    template <typename T>
    static void destroy(T* object) {
        delete object;
    }
};

template <typename T, typename DeletionPolicy = default_sp_deletion_policy>
class shared_pointer {
  public:
    using count_type = std::atomic<std::int32_t>;

    shared_pointer() = default;

    // Takes ownership of `newObject`, which must come from `new`.
    explicit shared_pointer(T* newObject) : object(newObject) {
        count = new count_type(0);
        // Relaxed: a new count is not yet seen by any other thread.
        count->fetch_add(1, std::memory_order_relaxed);
    }

    shared_pointer(const shared_pointer& other) : count(other.count), object(other.object) {
        _addReference();
    }

    shared_pointer(shared_pointer&& other) noexcept
        : count(std::exchange(other.count, nullptr)),
          object(std::exchange(other.object, nullptr)) {}

    shared_pointer& operator=(const shared_pointer& other) {
        if (this != &other) {
            shared_pointer copy(other);
            swap(copy);
        }
        return *this;
    }

    shared_pointer& operator=(shared_pointer&& other) noexcept {
        if (this != &other) {
            destroy();
            count = std::exchange(other.count, nullptr);
            object = std::exchange(other.object, nullptr);
        }
        return *this;
    }

    ~shared_pointer() { destroy(); }

    // Gives up this holder's share. The last share frees the count, then
    // deletes the object; this order is kept so that the object's destructor
    // never runs while its count block is still allocated.
    void destroy() {
        count_type* held = std::exchange(count, nullptr);
        if (held == nullptr) {
            return;
        }
        // Release: this holder's writes to the object happen before the
        // deletion by whichever holder ends last. Acquire: the last holder
        // sees every other holder's writes before it deletes. Pairs with the
        // same fetch_sub in the other holders.
        if (held->fetch_sub(1, std::memory_order_acq_rel) != 1) {
            return;
        }
        delete held;
        if (object != nullptr) {
            DeletionPolicy::destroy(object);
        }
    }

    void swap(shared_pointer& other) noexcept {
        std::swap(count, other.count);
        std::swap(object, other.object);
    }

    T* get() const { return object; }
    T* operator->() const { return object; }
    T& operator*() const { return *object; }
    explicit operator bool() const { return object != nullptr; }

    // Holders sharing the object, 0 for an empty pointer; a snapshot only.
    std::int32_t useCount() const {
        return count == nullptr ? 0 : count->load(std::memory_order_relaxed);
    }

  private:
    void _addReference() {
        if (count != nullptr) {
            // Relaxed: the new holder is made from an existing one, which keeps
            // the object alive meanwhile; no data is published by the count.
            count->fetch_add(1, std::memory_order_relaxed);
        }
    }

    count_type* count = nullptr;
    T* object = nullptr;
};

}  // namespace vlk::base
