#include <vlk/system/abort.hpp>

#include <vlk/catalogue/errors.hpp>
#include <vlk/logging/velk_logger.hpp>

namespace vlk::system {

void abort(const std::string& message) {
    const auto& row = errors::E000041;
    velk_logger::abort(velk_error_stream3<std::string, std::string, std::string>(
        row, row.fragments[0], message, row.fragments[1]));
}

}  // namespace vlk::system
