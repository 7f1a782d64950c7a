// The text of one log message, and the stream that builds it.
//
// `log_stream_buffer` owns the message text on its way through the logger's
// queue: pointer, length and capacity, no terminator. It has one owner; a
// move hands the three fields over and leaves the source empty (all zero),
// and the owner gives the memory back to `log_stream_allocator` when it is
// destroyed or reset. The buffer is allocated on the caller's thread and
// freed on the logging thread.
//
// `log_stream_impl` is the same buffer seen as a growing stream. An append
// that does not fit grows the capacity to a multiple of 128: from nothing to
// 128, or to what is needed when that is more; from something to the larger
// of what is needed and twice the capacity. So a message costs few
// reallocations, and a stream reused for many messages stops growing.
//
// Nothing here takes a lock or fails: running out of memory ends the
// process inside the allocator.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include <vlk/memory/log_stream_allocator.hpp>

namespace vlk {

struct log_stream_traits {
    static constexpr std::uint64_t granule = 128;

    static char* allocate(std::uint64_t size) {
        return static_cast<char*>(log_stream_allocator::allocate(size));
    }
    static char* reallocate(char* block, std::uint64_t size) {
        return static_cast<char*>(log_stream_allocator::reallocate(block, size));
    }
    static void deallocate(char* block) { log_stream_allocator::deallocate(block); }
};

class log_stream_buffer {
  public:
    log_stream_buffer() = default;
    log_stream_buffer(const log_stream_buffer&) = delete;
    log_stream_buffer& operator=(const log_stream_buffer&) = delete;
    log_stream_buffer(log_stream_buffer&& other) noexcept
        : data(std::exchange(other.data, nullptr)),
          length(std::exchange(other.length, 0)),
          capacity(std::exchange(other.capacity, 0)) {}
    // What this buffer held is given back first.
    log_stream_buffer& operator=(log_stream_buffer&& other) noexcept {
        if (this != &other) {
            reset();
            data = std::exchange(other.data, nullptr);
            length = std::exchange(other.length, 0);
            capacity = std::exchange(other.capacity, 0);
        }
        return *this;
    }
    ~log_stream_buffer() { reset(); }

    // A buffer of `size` bytes from the allocator, empty.
    static log_stream_buffer withCapacity(std::uint64_t size) {
        log_stream_buffer buffer;
        buffer.data = log_stream_traits::allocate(size);
        buffer.capacity = size;
        return buffer;
    }

    // Gives the memory back; the buffer is empty afterwards.
    void reset() {
        if (data != nullptr) {
            log_stream_traits::deallocate(data);
        }
        data = nullptr;
        length = 0;
        capacity = 0;
    }

    char* data = nullptr;
    std::uint64_t length = 0;
    std::uint64_t capacity = 0;
};

template <typename Traits>
class log_stream_impl : public log_stream_buffer {
  public:
    log_stream_impl() = default;
    explicit log_stream_impl(log_stream_buffer&& buffer) : log_stream_buffer(std::move(buffer)) {}

    // Makes room for `count` more bytes behind the text and returns where
    // they go; the length does not change.
    char* reserve(std::uint64_t count) {
        if (length + count > capacity) {
            _grow(length + count);
        }
        return data + length;
    }
    // Commits `count` bytes written where reserve() pointed.
    void advance(std::uint64_t count) { length += count; }

    void append(const char* text, std::uint64_t count) {
        if (count == 0) {
            return;
        }
        std::memcpy(reserve(count), text, count);
        length += count;
    }
    void append(char c) {
        *reserve(1) = c;
        ++length;
    }

  private:
    static std::uint64_t _roundUp(std::uint64_t size) {
        return (size + Traits::granule - 1) & ~(Traits::granule - 1);
    }

    void _grow(std::uint64_t needed) {
        if (capacity == 0) {
            const std::uint64_t size =
                needed < Traits::granule ? Traits::granule : _roundUp(needed);
            data = Traits::allocate(size);
            capacity = size;
            return;
        }
        const std::uint64_t size = _roundUp(std::max(needed, 2 * capacity));
        data = Traits::reallocate(data, size);
        capacity = size;
    }
};

using log_stream = log_stream_impl<log_stream_traits>;

}  // namespace vlk
