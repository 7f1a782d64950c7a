// The toolkit's exceptions, and errno values as text.
//
// vlk::exception carries a message. Every class of the tree overrides raise()
// and clone(), so a caught exception can be kept through a base pointer and
// thrown again, or copied, as what it was:
//
//     std::unique_ptr<vlk::exception> kept;
//     try { ... } catch (const vlk::exception& e) { kept.reset(e.clone()); }
//     kept->raise();   // a parse_exception is caught again as one
//
// The toolkit itself rarely throws (it reports failure by results); the
// string_convert_detail classes are declared for text conversion, and
// toDouble and the numeric parsers of <vlk/system/convert.hpp> do not throw
// them. The buffer form of strerror is in <vlk/system/string_utils.hpp>.
#pragma once

#include <exception>
#include <string>

namespace vlk {

class exception : public std::exception {
  public:
    exception() = default;
    explicit exception(const std::string& message);
    exception(const exception&) = default;
    exception& operator=(const exception&) = default;
    ~exception() override;

    // The message's characters; the same as why().c_str().
    const char* what() const noexcept override;

    // Throws a copy of *this with its dynamic type.
    [[noreturn]] virtual void raise() const;

    // A heap copy of *this with its dynamic type; the caller deletes it.
    virtual exception* clone() const;

    const std::string& why() const noexcept { return _message; }

  private:
    std::string _message;
};

namespace string_convert_detail {

class string_convert_exception : public exception {
  public:
    explicit string_convert_exception(const std::string& message);
    [[noreturn]] void raise() const override;
    string_convert_exception* clone() const override;
};

class parse_exception : public string_convert_exception {
  public:
    explicit parse_exception(const std::string& message);
    [[noreturn]] void raise() const override;
    parse_exception* clone() const override;
};

class overflow_exception : public string_convert_exception {
  public:
    explicit overflow_exception(const std::string& message);
    [[noreturn]] void raise() const override;
    overflow_exception* clone() const override;
};

}  // namespace string_convert_detail

namespace error {

// The text of an errno value, from the GNU strerror_r. When errno is EINVAL
// after that call the text is "Unknown errno value: <number>" instead. errno
// is not cleared first, and glibc does not set it for an unknown number, so
// it is an EINVAL left by an earlier call that selects this form, even for a
// known number; an unknown number with errno clear gives glibc's "Unknown
// error <number>". Callers that want the plain text clear errno first.
std::string strerror(int number);

}  // namespace error

}  // namespace vlk
