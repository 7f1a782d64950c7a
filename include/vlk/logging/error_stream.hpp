// Typed streams for logging a catalogue row with its values.
//
// A `velk_error_stream<Pieces...>` points at a catalogue row (whose first
// member is its `error_id`) and at each piece of the message in order: the
// row's fixed fragments and the run-time values between them. It copies
// nothing and formats nothing until `appendTo` runs, so a message that the
// logger does not want costs only the stream's construction. It lives on
// the caller's stack for one call: every piece must outlive it, so pass
// named objects, not temporaries.
//
// Pieces and how they are written:
//   std::string     its bytes
//   char[N]         strlen bytes; a null pointer adds nothing
//   const char*     strlen bytes; a null pointer adds nothing
//   int             "-" for a negative value, then the digits of its
//                   magnitude, taken as unsigned so INT_MIN is exact
//   unsigned long   its digits
//
// `velk_error_streamN` names the stream of N pieces, e.g.
// `velk_error_stream3<std::string, std::string, std::string>` for a row with
// one value between two fragments.
//
// A sink has append(text, count), reserve(count) returning where `count`
// bytes may be written, and advance(count) committing them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>

#include <vlk/catalogue/error_id.hpp>
#include <vlk/system/fast_itoa.hpp>

namespace vlk {

namespace _error_stream_detail {

template <typename Piece>
struct piece;

template <>
struct piece<std::string> {
    using stored = const std::string*;
    static stored store(const std::string& text) { return &text; }
    template <typename Sink>
    static void append(Sink& sink, stored text) {
        sink.append(text->data(), text->size());
    }
};

inline void appendCString(auto& sink, const char* text) {
    if (text != nullptr) {
        sink.append(text, std::strlen(text));
    }
}

template <std::size_t N>
struct piece<char[N]> {
    using stored = const char*;
    static stored store(const char (&text)[N]) { return text; }
    template <typename Sink>
    static void append(Sink& sink, stored text) {
        appendCString(sink, text);
    }
};

template <>
struct piece<const char*> {
    using stored = const char* const*;
    static stored store(const char* const& text) { return &text; }
    template <typename Sink>
    static void append(Sink& sink, stored text) {
        appendCString(sink, *text);
    }
};

template <>
struct piece<int> {
    using stored = const int*;
    static stored store(const int& value) { return &value; }
    template <typename Sink>
    static void append(Sink& sink, stored value) {
        // Sign and ten digits; the unsigned negation keeps INT_MIN exact.
        char* out = sink.reserve(1 + fast_itoa::itoa_room);
        char* start = out;
        auto magnitude = static_cast<std::uint32_t>(*value);
        if (*value < 0) {
            *out++ = '-';
            magnitude = 0u - magnitude;
        }
        sink.advance(static_cast<std::uint64_t>(fast_itoa::itoa(out, magnitude) - start));
    }
};

template <>
struct piece<unsigned long> {
    using stored = const unsigned long*;
    static stored store(const unsigned long& value) { return &value; }
    template <typename Sink>
    static void append(Sink& sink, stored value) {
        char* out = sink.reserve(fast_itoa::ltoa_room);
        sink.advance(static_cast<std::uint64_t>(fast_itoa::ltoa(out, *value) - out));
    }
};

}  // namespace _error_stream_detail

template <typename... Pieces>
class velk_error_stream {
  public:
    explicit velk_error_stream(const error_id& row, const Pieces&... pieces)
        : _row(&row), _pieces{_error_stream_detail::piece<Pieces>::store(pieces)...} {}

    const error_id& id() const { return *_row; }

    // Writes the pieces in order, with nothing between them.
    template <typename Sink>
    void appendTo(Sink& sink) const {
        std::apply(
            [&sink](auto... stored) {
                (_error_stream_detail::piece<Pieces>::append(sink, stored), ...);
            },
            _pieces);
    }

  private:
    const error_id* _row;
    std::tuple<typename _error_stream_detail::piece<Pieces>::stored...> _pieces;
};

template <typename... P>
requires(sizeof...(P) == 1) using velk_error_stream1 = velk_error_stream<P...>;
template <typename... P>
requires(sizeof...(P) == 2) using velk_error_stream2 = velk_error_stream<P...>;
template <typename... P>
requires(sizeof...(P) == 3) using velk_error_stream3 = velk_error_stream<P...>;
template <typename... P>
requires(sizeof...(P) == 4) using velk_error_stream4 = velk_error_stream<P...>;
template <typename... P>
requires(sizeof...(P) == 5) using velk_error_stream5 = velk_error_stream<P...>;
template <typename... P>
requires(sizeof...(P) == 6) using velk_error_stream6 = velk_error_stream<P...>;
template <typename... P>
requires(sizeof...(P) == 7) using velk_error_stream7 = velk_error_stream<P...>;
template <typename... P>
requires(sizeof...(P) == 8) using velk_error_stream8 = velk_error_stream<P...>;
template <typename... P>
requires(sizeof...(P) == 9) using velk_error_stream9 = velk_error_stream<P...>;

}  // namespace vlk
