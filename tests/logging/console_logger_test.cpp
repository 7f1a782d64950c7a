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

TEST_F(ConsoleLogger, ProtocolChoosesTheStreamAndTheFilterComesFirst) {
    captured out(std::cout), err(std::cerr);
    target_config toErr{{"Protocol", {"stderr"}}, {"Level", {"error"}}};
    auto errTarget = vlk::console_logger::factory(toErr);
    ASSERT_TRUE(errTarget->init());
    errTarget->log(vlk::errors::E000046, "emergency line\n", 15);
    errTarget->log(vlk::errors::E000001, "info line\n", 10);  // below "error"
    EXPECT_EQ(err.text(), "emergency line\n");
    EXPECT_EQ(infoOf(*errTarget.get()).useStderr, 1u);
    EXPECT_EQ(infoOf(*errTarget.get()).bytesWritten, 15u);
    EXPECT_EQ(infoOf(*errTarget.get()).levels, "error,critical,emergency");

    for (const char* protocol : {"stdout", "", "ftp"}) {
        target_config config{{"Protocol", {protocol}}, {"Level", {"info"}}};
        auto target = vlk::console_logger::factory(config);
        target->log(vlk::errors::E000001, protocol, std::strlen(protocol));
        EXPECT_EQ(infoOf(*target.get()).useStderr, 0u) << protocol;
    }
    EXPECT_EQ(out.text(), "stdoutftp");
    EXPECT_EQ(err.text(), "emergency line\n");
}

TEST_F(ConsoleLogger, CountsWhatWasHandedOverEvenWhenTheStreamFails) {
    captured out(std::cout);
    target_config config{{"Protocol", {"stdout"}}, {"Levels", {"info"}}};
    auto target = vlk::console_logger::factory(config);
    target->log(vlk::errors::E000001, "abc", 3);
    target->rotate();
    EXPECT_EQ(infoOf(*target.get()).bytesWritten, 3u);  // rotate changes nothing
    std::cout.setstate(std::ios::badbit);
    target->log(vlk::errors::E000001, "defg", 4);
    target->flush();
    EXPECT_EQ(out.text(), "abc");
    EXPECT_EQ(infoOf(*target.get()).bytesWritten, 7u);
    target->shutdown();  // flushes, forgets nothing
    std::cout.clear();
    target->log(vlk::errors::E000001, "h", 1);
    EXPECT_EQ(out.text(), "abch");
}

}  // namespace
