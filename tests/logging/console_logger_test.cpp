#include <vlk/logging/console_logger.hpp>

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include <vlk/catalogue/errors.hpp>

namespace {

using vlk::target_config;

// Sends a standard stream into a string for the life of the object.
class captured {
  public:
    explicit captured(std::ostream& stream)
        : _stream(stream), _saved(stream.rdbuf(_text.rdbuf())) {}
    ~captured() {
        _stream.rdbuf(_saved);
        _stream.clear();
    }
    std::string text() const { return _text.str(); }

  private:
    std::ostream& _stream;
    std::ostringstream _text;
    std::streambuf* _saved;
};

class ConsoleLogger : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { vlk::error_manager::init(); }
};

// The stream and the filter are checked end to end by the demo program's
// test. What was handed over counts even when the stream fails.
TEST_F(ConsoleLogger, TheCountIncludesFailedWrites) {
    captured out(std::cout), err(std::cerr);
    target_config toErr{{"Protocol", {"stderr"}}, {"Level", {"error"}}};
    auto target = vlk::console_logger::factory(toErr);
    ASSERT_TRUE(target->init());
    target->log(vlk::errors::E000046, "abc\n", 4);
    target->log(vlk::errors::E000001, "info line\n", 10);  // below "error"
    std::cerr.setstate(std::ios::badbit);
    target->log(vlk::errors::E000046, "defg", 4);
    target->shutdown();  // flushes, forgets nothing
    std::cerr.clear();
    target->log(vlk::errors::E000046, "h", 1);
    vlk::console_logging_info info;
    ASSERT_TRUE(target->getConsoleLoggerInfo(info));
    EXPECT_EQ(info.useStderr, 1u);
    EXPECT_EQ(info.bytesWritten, 9u);
    EXPECT_EQ(err.text(), "abc\nh");
    EXPECT_EQ(out.text(), "");
}

}  // namespace
