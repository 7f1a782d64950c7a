// A log target of the tests' own: it keeps every line its filter accepts,
// counts the logger's calls, and can be slowed down to hold up the logging
// thread. The factory keeps a reference to every target it makes, so a test
// can read one after the logger has released it.
#pragma once

#include <atomic>
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
    bool init() override { return true; }
    void shutdown() override { shutdowns.fetch_add(1); }
    void log(const vlk::error_id& id, const char* text, unsigned long length) override {
        if (!_accepts(id)) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(delayMicroseconds.load()));
        std::lock_guard guard(_mutex);
        _lines.emplace_back(text, length);
    }
    void rotate() override { rotations.fetch_add(1); }
    void flush() override { flushes.fetch_add(1); }

    std::vector<std::string> lines() const {
        std::lock_guard guard(_mutex);
        return _lines;
    }

    std::atomic<int> shutdowns{0};
    std::atomic<int> rotations{0};
    std::atomic<int> flushes{0};
    std::atomic<int> delayMicroseconds{0};

  private:
    mutable std::mutex _mutex;
    std::vector<std::string> _lines;
};

inline std::vector<vlk::base::shared_pointer<vlk::velk_logger::logger>>& madeTargets() {
    static std::vector<vlk::base::shared_pointer<vlk::velk_logger::logger>> targets;
    return targets;
}

// Registers the factory under "capture" and adds a target built from
// `config`; returns it.
inline capture_target& addCaptureTarget(vlk::target_config config) {
    vlk::velk_logger::addTargetFactory("capture", [](vlk::target_config& keys) {
        auto* target = new capture_target;
        target->_commonInit(keys);
        return madeTargets().emplace_back(target);
    });
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

}  // namespace vlk_test
