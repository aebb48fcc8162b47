#pragma once

#include "VerdoDriverCore/Values/PyError.h"

#include <map>
#include <string>
#include <string_view>

/// The env file in which a headless driver finds its secrets: KEY=VALUE lines, "#" comments.
namespace verdo::EnvFile {

/// The file can be read by others than its owner.
class InsecureError : public Error {
 public:
  explicit InsecureError(const std::string& path);
  std::string pyName() const override { return "InsecureError"; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// The file's keys and values; empty when there is no such file. Throws InsecureError when group
/// or others have any permission on it (the file is then not read), PyError "OSError" when it
/// cannot be read and "UnicodeDecodeError" when it is not UTF-8.
std::map<std::string, std::string> read(const std::string& path);

/// Reads KEY=VALUE lines. Blanks around key and value and quotes around the value are dropped;
/// blank lines, lines that begin with "#" and lines without "=" are skipped; a later line
/// overrides an earlier one. Nothing is expanded.
std::map<std::string, std::string> parse(std::string_view text);

}  // namespace verdo::EnvFile
