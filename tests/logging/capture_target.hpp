// A log target of the tests' own: it keeps every line its filter accepts,
// counts the logger's calls, and can be slowed down to hold up the logging
// thread. The factory keeps a reference to every target it makes, so a test
// can read one after the logger has released it.
#pragma once

#include <atomic>
#include <cctype>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vlk/logging/target.hpp>
#include <vlk/logging/velk_logger.hpp>

namespace vlk_test {

class capture_target : public vlk::velk_logger::logger {
  public:
    struct line {
        vlk::error_id id;
        std::string text;
    };

    bool init() override { return true; }
    void shutdown() override { shutdowns.fetch_add(1); }
    void log(const vlk::error_id& id, const char* text, unsigned long length) override {
        if (!_accepts(id)) {
            return;
        }
        if (int delay = delayMicroseconds.load(); delay > 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(delay));
        }
        std::lock_guard guard(_mutex);
        _lines.push_back({id, std::string(text, length)});
    }
    void rotate() override { rotations.fetch_add(1); }
    void flush() override { flushes.fetch_add(1); }

    std::vector<line> lines() const {
        std::lock_guard guard(_mutex);
        return _lines;
    }

    std::atomic<int> shutdowns{0};
    std::atomic<int> rotations{0};
    std::atomic<int> flushes{0};
    std::atomic<int> delayMicroseconds{0};

  private:
    mutable std::mutex _mutex;
    std::vector<line> _lines;
};

inline std::vector<vlk::base::shared_pointer<vlk::velk_logger::logger>>& madeTargets() {
    static std::vector<vlk::base::shared_pointer<vlk::velk_logger::logger>> targets;
    return targets;
}

inline vlk::base::shared_pointer<vlk::velk_logger::logger> captureFactory(
    vlk::target_config& config) {
    auto* target = new capture_target;
    target->_commonInit(config);
    vlk::base::shared_pointer<vlk::velk_logger::logger> held(target);
    madeTargets().push_back(held);
    return held;
}

// Registers the factory under "capture" and adds a target built from
// `config`; returns it.
inline capture_target& addCaptureTarget(vlk::target_config config) {
    vlk::velk_logger::addTargetFactory("capture", captureFactory);
    config["Protocol"] = vlk::friendly_value("capture");
    vlk::velk_logger::addTarget(config);
    return static_cast<capture_target&>(*madeTargets().back());
}

// Returns once everything logged before the call has reached the targets.
// One flush may be answered by a pass that began earlier; the pass that ends
// the second flush began after the first one had returned.
inline void deliver() {
    vlk::velk_logger::flush();
    vlk::velk_logger::flush();
}

// A record line cut into its parts.
struct record {
    std::string timestamp, logId, level, identifier, body;
};

// Cuts "<timestamp> [<id>] <level>: <identifier> <body>" apart and checks
// the shape of each part; false for a line of any other shape.
inline bool parseRecord(const std::string& line, record& out) {
    auto digits = [](const std::string& text, std::size_t from, std::size_t count) {
        if (from + count > text.size()) {
            return false;
        }
        for (std::size_t i = from; i < from + count; ++i) {
            if (text[i] < '0' || text[i] > '9') {
                return false;
            }
        }
        return true;
    };
    // "2026-01-02T03:04:05.1234560", then "+01:00" unless the offset is 0.
    static const std::string stampShape = "dddd-dd-ddTdd:dd:dd.ddddddd";
    if (line.size() < stampShape.size()) {
        return false;
    }
    for (std::size_t i = 0; i < stampShape.size(); ++i) {
        if (stampShape[i] == 'd' ? !digits(line, i, 1) : line[i] != stampShape[i]) {
            return false;
        }
    }
    std::size_t at = stampShape.size();
    if (line[at] == '+' || line[at] == '-') {
        if (!digits(line, at + 1, 2) || line.compare(at + 3, 1, ":") != 0 ||
            !digits(line, at + 4, 2)) {
            return false;
        }
        at += 6;
    }
    out.timestamp = line.substr(0, at);
    if (line.compare(at, 2, " [") != 0) {
        return false;
    }
    const std::size_t idEnd = line.find("] ", at + 2);
    if (idEnd == std::string::npos || idEnd == at + 2 || !digits(line, at + 2, idEnd - at - 2)) {
        return false;
    }
    out.logId = line.substr(at + 2, idEnd - at - 2);
    const std::size_t levelEnd = line.find(": ", idEnd + 2);
    if (levelEnd == std::string::npos) {
        return false;
    }
    out.level = line.substr(idEnd + 2, levelEnd - idEnd - 2);
    // "0A-0007" or "1FB12345", then one blank.
    const std::size_t idAt = levelEnd + 2;
    const bool hyphen = line.compare(idAt + 2, 1, "-") == 0;
    const std::size_t idLength = hyphen ? 7 : 8;
    if (!std::isxdigit(static_cast<unsigned char>(line[idAt])) ||
        !std::isxdigit(static_cast<unsigned char>(line[idAt + 1])) ||
        (!hyphen && line.compare(idAt + 2, 1, "B") != 0) || !digits(line, idAt + 3, idLength - 3) ||
        line.compare(idAt + idLength, 1, " ") != 0) {
        return false;
    }
    out.identifier = line.substr(idAt, idLength);
    out.body = line.substr(idAt + idLength + 1);
    return true;
}

}  // namespace vlk_test
