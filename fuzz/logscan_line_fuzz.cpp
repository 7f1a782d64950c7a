// Feeds arbitrary bytes to vlk-logscan's record-line parser, its line splitter
// and its JSON escaping, and checks what each must keep whatever it is given.
#include "logscan.hpp"

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using namespace vlk::logscan;

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool inside(std::string_view part, std::string_view whole) {
    return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

// Counts lines and checks each one against the parser.
struct checking_table : line_consumer {
    std::uint64_t lines = 0;
    void line(std::string_view text, bool) override {
        ++lines;
        check(text.find('\n') == std::string_view::npos);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    record parsed;
    if (parseRecordLine(text, parsed)) {
        check(std::has_single_bit(parsed.id.level));
        check(inside(parsed.body, text) && inside(parsed.timeText, text));
        check(!parsed.thread.empty() && inside(parsed.thread, text));
        std::string id;
        vlk::appendErrorId(id, parsed.id);
        check(text.find(id) != std::string_view::npos);
    }

    // Through a small buffer: no line is lost or split at a line feed.
    checking_table counted;
    line_splitter splitter(64);
    for (std::size_t at = 0; at < size;) {
        const std::size_t part = std::min(splitter.spaceSize(), size - at);
        std::copy_n(text.data() + at, part, splitter.space());
        splitter.commit(part, counted);
        at += part;
    }
    splitter.finish(counted);
    check(counted.lines >= static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n')));

    std::string json;
    appendJsonString(json, text);
    for (const char c : json) {
        check(static_cast<unsigned char>(c) >= 0x20);
    }
    return 0;
}
