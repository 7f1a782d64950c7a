// The configuration of one log target: a map of string values read with
// defaults.
//
// Keys compare bytewise and case-sensitively. Readers subscript the map, so
// reading a key that was absent leaves it present with an empty value; an
// empty value always means "not given" and yields the reader's default.
// Plain data: one thread at a time.
#pragma once

#include <map>
#include <string>
#include <utility>

namespace vlk {

// One configuration value; empty means "not given".
class friendly_value {
  public:
    friendly_value() = default;
    friendly_value(std::string text) : _text(std::move(text)) {}

    // The value, or `fallback` when it is empty.
    const std::string& valueOr(const std::string& fallback) const {
        return _text.empty() ? fallback : _text;
    }
    const std::string& text() const { return _text; }

  private:
    std::string _text;
};

using target_config = std::map<std::string, friendly_value>;

}  // namespace vlk
