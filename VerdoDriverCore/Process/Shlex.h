#pragma once

#include "VerdoDriverCore/Values/PyError.h"

#include <string>
#include <string_view>
#include <vector>

/// Splits a command line into words with the quoting rules of a POSIX shell.
namespace verdo::Shlex {

/// A command line that cannot be split: "No closing quotation" or "No escaped character".
class Error : public verdo::Error {
 public:
  using verdo::Error::Error;
  std::string pyName() const override { return "ValueError"; }
};

/// The words of the text; none for blank text. Throws Shlex::Error.
std::vector<std::string> split(std::string_view text);

}  // namespace verdo::Shlex
