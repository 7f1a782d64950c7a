#include <vlk/logging/console_logger.hpp>

#include <iostream>

namespace vlk {
namespace _console_logger_detail {

void console_logger_impl::shutdown() {
    // Flushed, not closed: a later write still works.
    _stream->flush();
}

void console_logger_impl::log(const error_id& id, const char* line, unsigned long length) {
    if (!_accepts(id)) {
        return;
    }
    _stream->write(line, static_cast<std::streamsize>(length));
    _bytesWritten += length;
}

void console_logger_impl::flush() {
    _stream->flush();
}

bool console_logger_impl::getConsoleLoggerInfo(console_logging_info& info) {
    info.describe(*this);
    info.bytesWritten = _bytesWritten;
    info.useStderr = _stream == &std::cout ? 0 : 1;
    return true;
}

}  // namespace _console_logger_detail

base::shared_pointer<velk_logger::logger> console_logger::factory(target_config& config) {
    static const std::string standardOutput = "stdout";
    const bool toStderr = config["Protocol"].valueOr(standardOutput) == "stderr";
    auto* target =
        new _console_logger_detail::console_logger_impl(toStderr ? &std::cerr : &std::cout);
    target->_commonInit(config);
    return base::shared_pointer<velk_logger::logger>(target);
}

}  // namespace vlk
