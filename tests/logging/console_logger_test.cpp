#include <vlk/logging/console_logger.hpp>

#include <gtest/gtest.h>

#include <cstring>
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

vlk::console_logging_info infoOf(vlk::velk_logger::logger& target) {
    vlk::console_logging_info info;
    EXPECT_TRUE(target.getConsoleLoggerInfo(info));
    return info;
}

class ConsoleLogger : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { vlk::error_manager::init(); }
};

// "stderr" chooses standard error, anything else standard output; the
// filter comes first, and what was handed over counts even when the stream
// fails.
TEST_F(ConsoleLogger, ProtocolChoosesTheStreamAndTheCountIncludesFailedWrites) {
    captured out(std::cout), err(std::cerr);
    target_config toErr{{"Protocol", {"stderr"}}, {"Level", {"error"}}};
    auto errTarget = vlk::console_logger::factory(toErr);
    ASSERT_TRUE(errTarget->init());
    errTarget->log(vlk::errors::E000046, "emergency line\n", 15);
    errTarget->log(vlk::errors::E000001, "info line\n", 10);  // below "error"
    EXPECT_EQ(infoOf(*errTarget.get()).useStderr, 1u);
    EXPECT_EQ(infoOf(*errTarget.get()).bytesWritten, 15u);

    for (const char* protocol : {"stdout", "", "ftp"}) {
        target_config config{{"Protocol", {protocol}}, {"Level", {"info"}}};
        auto target = vlk::console_logger::factory(config);
        target->log(vlk::errors::E000001, protocol, std::strlen(protocol));
        target->rotate();  // changes nothing
        EXPECT_EQ(infoOf(*target.get()).useStderr, 0u) << protocol;
        EXPECT_EQ(infoOf(*target.get()).bytesWritten, std::strlen(protocol)) << protocol;
    }
    auto target = vlk::console_logger::factory(toErr);
    std::cerr.setstate(std::ios::badbit);
    target->log(vlk::errors::E000046, "defg", 4);
    target->shutdown();  // flushes, forgets nothing
    EXPECT_EQ(infoOf(*target.get()).bytesWritten, 4u);
    std::cerr.clear();
    target->log(vlk::errors::E000046, "h", 1);
    EXPECT_EQ(out.text(), "stdoutftp");
    EXPECT_EQ(err.text(), "emergency line\nh");
}

}  // namespace
