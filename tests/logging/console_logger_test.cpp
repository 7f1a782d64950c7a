#include <vlk/logging/console_logger.hpp>

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include <vlk/catalogue/errors.hpp>

namespace {

using vlk::target_config;

// Sends standard error into a string for the life of the object.
struct captured_stderr {
    std::ostringstream text;
    std::streambuf* const saved = std::cerr.rdbuf(text.rdbuf());
    ~captured_stderr() {
        std::cerr.rdbuf(saved);
        std::cerr.clear();
    }
};

// The stream and the filter are checked end to end by the demo program's
// test. What was handed over counts even when the stream fails.
TEST(ConsoleLogger, TheCountIncludesFailedWrites) {
    vlk::error_manager::init();
    const captured_stderr err;
    target_config toErr{{"Protocol", {"stderr"}}, {"Level", {"error"}}};
    auto target = vlk::console_logger::factory(toErr);
    ASSERT_TRUE(target->init());
    target->log(vlk::errors::E000046, "abc\n", 4);
    std::cerr.setstate(std::ios::badbit);
    target->log(vlk::errors::E000046, "defg", 4);
    target->shutdown();  // flushes, forgets nothing
    std::cerr.clear();
    target->log(vlk::errors::E000046, "h", 1);
    vlk::console_logging_info info;
    ASSERT_TRUE(target->getConsoleLoggerInfo(info));
    EXPECT_EQ(info.bytesWritten, 9u);
    EXPECT_EQ(err.text.str(), "abc\nh");
}

}  // namespace
