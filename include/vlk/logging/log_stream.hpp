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

// Builds one message's text on the caller's stack and hands it over in a
// buffer of its own size: 128 bytes under 128, else the length rounded up
// to 128. A queued record so holds no slack beyond that rounding, where a
// buffer sized in advance would hold its whole first capacity. The copy out
// costs one memcpy of the text. A text longer than the stack part goes on
// in a growing stream, and is copied out the same way.
class message_text {
  public:
    static constexpr std::uint64_t stack_bytes = 1024;

    message_text() = default;
    message_text(const message_text&) = delete;
    message_text& operator=(const message_text&) = delete;

    char* reserve(std::uint64_t count) {
        if (_spill.data == nullptr && _length + count <= stack_bytes) [[likely]] {
            return _local + _length;
        }
        if (_spill.data == nullptr) {
            _spill.append(_local, _length);
        }
        return _spill.reserve(count);
    }
    void advance(std::uint64_t count) {
        if (_spill.data == nullptr) {
            _length += count;
        } else {
            _spill.advance(count);
        }
    }
    void append(const char* text, std::uint64_t count) {
        if (count != 0) {
            std::memcpy(reserve(count), text, count);
            advance(count);
        }
    }
    void append(char c) {
        *reserve(1) = c;
        advance(1);
    }
    std::uint64_t length() const { return _spill.data == nullptr ? _length : _spill.length; }
    // The capacity of the buffer that take() will give, and that a text of
    // `length` bytes gets: none, 128, or the length rounded up to 128.
    std::uint64_t sizedCapacity() const { return capacityFor(length()); }
    static std::uint64_t capacityFor(std::uint64_t length) {
        constexpr std::uint64_t granule = log_stream_traits::granule;
        return length == 0 ? 0 : (std::max(length, granule) + granule - 1) & ~(granule - 1);
    }

    // The text in a buffer of its own size; this object is left empty.
    log_stream_buffer take() {
        const char* text = _spill.data == nullptr ? _local : _spill.data;
        log_stream sized;
        sized.append(text, length());
        _spill.reset();
        _length = 0;
        return log_stream_buffer(std::move(sized));
    }

  private:
    char _local[stack_bytes];
    std::uint64_t _length = 0;
    log_stream _spill;
};

}  // namespace vlk
