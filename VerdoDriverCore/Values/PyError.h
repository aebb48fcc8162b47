#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace verdo {

/// The base of the driver's own errors. what() is the message, UTF-8; pyName() is the name under
/// which the service knows this kind of error.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  virtual std::string pyName() const = 0;
};

/// An error that carries the name of a Python exception, such as "ValueError".
class PyError : public Error {
 public:
  PyError(std::string pyName, const std::string& message)
      : Error(message), pyName_(std::move(pyName)) {}
  std::string pyName() const override { return pyName_; }

 private:
  std::string pyName_;
};

/// The name of an error as the service expects it: pyName() of an Error, the type's own
/// unqualified name for anything else.
std::string pyTypeName(const std::exception& error);

/// "{pyTypeName}: {message}", the form in which Python prints an error.
std::string pyDescribe(const std::exception& error);

/// "[Errno {code}] {strerror}: '{path}'", the message of Python's OSError.
std::string pyErrnoText(int code, std::string_view path);

/// Throws PyError "OSError" with the current errno and the path that the failed call was about.
[[noreturn]] void failWithErrno(std::string_view path);

}  // namespace verdo
