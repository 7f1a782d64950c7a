// Feeds arbitrary bytes to every reader of host files as the content of that
// file, and checks the few properties each must keep whatever it is given.
#include <vlk/system/host_text.hpp>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

namespace ht = vlk::system::host_text;

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool allDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);

    std::string program = ht::programName(text);
    check(program.find('/') == std::string::npos && program.find('\0') == std::string::npos);
    check(text.find(program) != std::string::npos);

    try {
        std::string os = ht::osName(text);
        check(os == "unknown" || text.find("PRETTY_NAME") != std::string::npos);
    } catch (const std::out_of_range&) {
        check(text.find("PRETTY_NAME") != std::string::npos);
    }

    check(ht::kernelVersion(text).build == 0);
    ht::libcVersion(text);

    auto value = ht::firstLineUnsigned(text);
    check(value.has_value() == !text.empty());
    if (text.size() <= 19 && allDigits(text)) {
        check(*value == std::strtoull(text.c_str(), nullptr, 10));
    }
    check(ht::portRange(text).has_value() == !text.empty());

    ht::cpuinfo_text found = ht::cpuinfo(text);
    vlk::cpuid::cpu_info info;
    ht::countCores(found, 2, info);
    check(info.socketCount >= 1);
    check(found.sockets.empty() || info.socketCount <= found.sockets.size());

    if (text.find("Hz") == std::string::npos) {
        check(ht::frequencyFromBrand(text) == 0);
    }

    vlk::system::memory::memory_info memory = ht::memoryInfo(text);
    for (std::uint64_t field : {memory.memoryTotal, memory.memoryFree, memory.buffers,
                                memory.cached, memory.swapTotal, memory.swapFree}) {
        check(field % 1024 == 0);
    }
    return 0;
}
