#include <vlk/system/host_text.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace vlk::system::host_text {
namespace {

// What fgets with a buffer of `maxLength` + 1 bytes reads: up to `maxLength`
// bytes, ending after the first line feed.
std::string_view firstLine(std::string_view text, std::size_t maxLength) {
    text = text.substr(0, maxLength);
    std::size_t end = text.find('\n');
    return end == std::string_view::npos ? text : text.substr(0, end + 1);
}

// Calls `handle` with each line as std::getline gives them: without the line
// feed, and no empty line behind a final line feed.
template <typename Handler>
void forEachLine(std::string_view text, Handler handle) {
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        if (end == std::string_view::npos) {
            handle(std::string(text));
            return;
        }
        if (!handle(std::string(text.substr(0, end)))) {
            return;
        }
        text.remove_prefix(end + 1);
    }
}

unsigned long toUnsigned(std::string_view text) {
    return std::strtoul(std::string(text).c_str(), nullptr, 10);
}

}  // namespace

std::optional<std::string> readFile(const char* path) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string content;
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        content.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return content;
}

std::string programName(std::string_view cmdline) {
    std::string_view line = firstLine(cmdline, 999);
    std::string_view first = line.substr(0, line.find('\0'));
    std::size_t slash = first.rfind('/');
    if (slash == std::string_view::npos || slash + 1 == first.size()) {
        return {};
    }
    return std::string(first.substr(slash + 1));
}

std::string osName(std::string_view osRelease) {
    std::string name = "unknown";
    forEachLine(osRelease, [&](const std::string& line) {
        if (!line.starts_with("PRETTY_NAME")) {
            return true;
        }
        // From two past the "=" (the opening quote) to one before the end
        // (the closing quote). With nothing behind the "=" the start lies
        // past the end and substr throws, which the probe lets through.
        std::size_t equals = line.find('=');
        name = line.substr(equals + 2, line.size() - equals - 3);
        return false;
    });
    return name;
}

system_version kernelVersion(std::string_view osrelease) {
    std::uint16_t fields[3] = {0, 0, 0};
    for (std::uint16_t& field : fields) {
        std::size_t end = std::min(osrelease.find('.'), osrelease.size());
        std::string_view piece = osrelease.substr(0, end);
        if (piece.empty()) {
            break;
        }
        field = static_cast<std::uint16_t>(toUnsigned(piece.substr(0, 31)));
        if (piece.size() > 31) {
            // The piece filled the reader's buffer without a ".": the read
            // fails and so do all that follow.
            break;
        }
        osrelease.remove_prefix(std::min(end + 1, osrelease.size()));
    }
    return {fields[0], fields[1], fields[2], 0};
}

system_version libcVersion(std::string_view text) {
    std::string copy(text);
    std::size_t dot = copy.find('.');
    long major = std::strtol(copy.c_str(), nullptr, 10);
    long minor = dot == std::string::npos ? 0 : std::strtol(copy.c_str() + dot + 1, nullptr, 10);
    return {static_cast<std::uint16_t>(major), static_cast<std::uint16_t>(minor), 0, 0};
}

std::optional<std::uint64_t> firstLineUnsigned(std::string_view text) {
    std::string_view line = firstLine(text, 31);
    if (line.empty()) {
        return std::nullopt;
    }
    return toUnsigned(line);
}

std::optional<std::pair<std::uint64_t, std::uint64_t>> portRange(std::string_view text) {
    std::string line(firstLine(text, 255));
    if (line.empty()) {
        return std::nullopt;
    }
    int low = 32768;
    int high = 61000;
    std::sscanf(line.c_str(), "%d\t%d", &low, &high);
    return std::pair<std::uint64_t, std::uint64_t>(static_cast<std::uint64_t>(low),
                                                   static_cast<std::uint64_t>(high));
}

cpuinfo_text cpuinfo(std::string_view text) {
    cpuinfo_text found;
    // Working values persist from line to line: within one processor's block
    // "physical id" comes before "siblings", and "siblings" before "cpu cores".
    unsigned long processor = 0;
    unsigned long physicalId = 0;
    unsigned long siblings = 0;
    unsigned long cores = 0;
    forEachLine(text, [&](const std::string& line) {
        if (line.starts_with("processor")) {
            std::sscanf(line.c_str(), "processor : %lu", &processor);
        } else if (line.starts_with("physical id")) {
            std::sscanf(line.c_str(), "physical id : %lu", &physicalId);
            found.processorSockets[processor] = physicalId;
        } else if (line.starts_with("siblings")) {
            std::sscanf(line.c_str(), "siblings : %lu", &siblings);
        } else if (line.starts_with("cpu cores")) {
            std::sscanf(line.c_str(), "cpu cores : %lu", &cores);
            found.sockets[physicalId] = {physicalId, siblings, cores};
        } else if (line.starts_with("flags")) {
            found.rdtscp = line.find("rdtscp") != std::string::npos;
            found.constantTsc = line.find("constant_tsc") != std::string::npos;
        }
        return true;
    });
    return found;
}

void countCores(const cpuinfo_text& found, long onlineProcessors, cpuid::cpu_info& info) {
    std::uint64_t physical = 0;
    std::uint64_t logical = 0;
    for (const auto& [id, socket] : found.sockets) {
        physical += socket.cpuCores;
        logical += socket.siblings;
    }
    if (found.sockets.empty() || physical == 0) {
        std::uint64_t online =
            onlineProcessors < 1 ? 0 : static_cast<std::uint64_t>(onlineProcessors);
        info.socketCount = 1;
        info.physicalCoreCount = online;
        info.virtualCoreCount = online;
        return;
    }
    info.socketCount = found.sockets.size();
    info.physicalCoreCount = physical;
    info.virtualCoreCount = logical;
}

std::uint64_t frequencyFromBrand(std::string_view brand) {
    std::size_t p = brand.find("Hz");
    if (brand.size() < 7 || p == std::string_view::npos || p < 5) {
        return 0;
    }
    std::int64_t unit = 0;
    switch (brand[p - 1]) {
        case 'M':
            unit = 1000000;
            break;
        case 'G':
            unit = 1000000000;
            break;
        case 'T':
            unit = 1000000000000;
            break;
        default:
            return 0;
    }
    // Digits are not validated: any character counts as its distance from "0".
    auto d = [&](std::size_t i) { return std::int64_t{brand[p - i]} - '0'; };
    std::int64_t frequency = brand[p - 4] == '.'
                                 ? d(5) * unit + d(3) * (unit / 10) + d(2) * (unit / 100)
                                 : 1000 * d(5) + 100 * d(4) + 10 * d(3) + d(2);
    return static_cast<std::uint64_t>(frequency);
}

memory::memory_info memoryInfo(std::string_view meminfo) {
    unsigned long total = 0, free = 0, buffers = 0, cached = 0, swapTotal = 0, swapFree = 0;
    forEachLine(meminfo, [&](const std::string& line) {
        const char* s = line.c_str();
        if (line.starts_with("Cached")) {
            std::sscanf(s, "Cached: %lu kB", &cached);
        } else if (line.starts_with("Buffers")) {
            std::sscanf(s, "Buffers: %lu kB", &buffers);
        } else if (line.starts_with("MemTotal")) {
            std::sscanf(s, "MemTotal: %lu kB", &total);
        } else if (line.starts_with("MemFree")) {
            std::sscanf(s, "MemFree: %lu kB", &free);
        } else if (line.starts_with("SwapTotal")) {
            std::sscanf(s, "SwapTotal: %lu kB", &swapTotal);
        } else if (line.starts_with("SwapFree")) {
            std::sscanf(s, "SwapFree: %lu kB", &swapFree);
            return false;
        }
        return true;
    });
    return {total << 10, free << 10, buffers << 10, cached << 10, swapTotal << 10, swapFree << 10};
}

}  // namespace vlk::system::host_text
