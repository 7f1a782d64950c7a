// A growing array of constructed elements.
//
// `worklist` holds `data`, `count` (elements in use) and `capacity`
// (elements constructed): every slot of the array holds a live element, those
// from `count` on a default-constructed one. The first append makes room for
// the traits' first capacity (8); each growth then takes the smallest power
// of two not below twice the old capacity, moves the elements in order and
// frees the old array. An array below 65536 bytes comes from the heap, a
// larger one is a whole-page mapping of its own, so a big list never
// fragments the heap. No synchronisation: the owner guards a shared list.
#pragma once

#include <bit>
#include <cstddef>
#include <new>
#include <utility>

#include <vlk/system/allocate.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/mmap.hpp>

namespace vlk::base {

template <typename T, typename SizeType = unsigned long, SizeType FirstCapacity = 8>
struct worklist_traits {
    using value_type = T;
    using size_type = SizeType;

    static constexpr size_type first_capacity = FirstCapacity;
    // Arrays of this many bytes or more are mapped, smaller ones are heap.
    static constexpr unsigned long mapping_threshold = 65536;

    static_assert(alignof(T) <= alignof(std::max_align_t), "heap arrays are not over-aligned");

    static size_type grow(size_type capacity) {
        return capacity == 0 ? first_capacity : std::bit_ceil(size_type(2 * capacity));
    }

    static unsigned long bytes(size_type capacity) { return sizeof(T) * capacity; }

    static bool isMapped(size_type capacity) { return bytes(capacity) >= mapping_threshold; }

    static unsigned long mappedBytes(size_type capacity) {
        const unsigned long mask = system::pageMask();
        return (bytes(capacity) + mask) & ~mask;
    }

    // Raw storage for `capacity` elements; nothing constructed yet.
    static T* allocate(size_type capacity) {
        void* array = isMapped(capacity) ? system::memory::mmap(mappedBytes(capacity))
                                         : vlk::allocate(bytes(capacity));
        return static_cast<T*>(array);
    }

    // Destroys the `capacity` elements in order and frees the array. A
    // mapping is counted in the mapping statistics by the unmap itself.
    static void deallocate(size_type capacity, T* array) {
        for (size_type i = 0; i < capacity; ++i) {
            array[i].~T();
        }
        if (capacity != 0 && isMapped(capacity)) {
            system::memory::munmap(array, mappedBytes(capacity));
        } else {
            vlk::deallocate(array);
        }
    }
};

template <typename T, typename Traits = worklist_traits<T, unsigned long, 8>>
class worklist {
  public:
    using size_type = typename Traits::size_type;

    worklist() = default;
    worklist(const worklist&) = delete;
    worklist& operator=(const worklist&) = delete;
    ~worklist() {
        if (data != nullptr) {
            Traits::deallocate(capacity, data);
        }
    }

    void append(const T& value) {
        if (capacity <= count) {
            // `value` may be one of this list's elements, which the growth moves.
            T copy(value);
            append(std::move(copy));
            return;
        }
        data[count] = value;
        ++count;
    }

    void append(T&& value) {
        _slotForAppend() = std::move(value);
        ++count;
    }

    T& operator[](size_type index) { return data[index]; }
    const T& operator[](size_type index) const { return data[index]; }

    T* begin() { return data; }
    T* end() { return data + count; }
    const T* begin() const { return data; }
    const T* end() const { return data + count; }

    T* data = nullptr;
    size_type count = 0;
    size_type capacity = 0;

  private:
    T& _slotForAppend() {
        while (capacity <= count) {
            _grow();
        }
        return data[count];
    }

    void _grow() {
        const size_type newCapacity = Traits::grow(capacity);
        T* array = Traits::allocate(newCapacity);
        for (size_type i = 0; i < count; ++i) {
            new (&array[i]) T(std::move(data[i]));
        }
        for (size_type i = count; i < newCapacity; ++i) {
            new (&array[i]) T();
        }
        if (data != nullptr) {
            Traits::deallocate(capacity, data);
        }
        data = array;
        capacity = newCapacity;
    }
};

}  // namespace vlk::base
