#include <vlk/system/abort.hpp>

#include <vlk/system/fatal.hpp>

namespace vlk::system {

void abort(const std::string& message) {
    fatalReporters().abort(message);
    // A reporter that returned broke its contract; the process ends anyway.
    endProcess(endMode());
}

}  // namespace vlk::system
