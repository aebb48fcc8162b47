#include "VerdoDriverCore/Process/Shlex.h"
#include "fuzz/Targets.h"

#include <string>
#include <vector>

namespace verdo::fuzz {
namespace {

/// The words as a person would quote them: '…', with each ' outside as \'.
std::string quoted(const std::vector<std::string>& words) {
  std::string line;
  for (const auto& word : words) {
    line += " '";
    for (const char c : word) line += c == '\'' ? "'\\''" : std::string(1, c);
    line += '\'';
  }
  return line;
}

/// The same with "…", in which four characters want a backslash.
std::string doublyQuoted(const std::vector<std::string>& words) {
  std::string line;
  for (const auto& word : words) {
    line += "\t\"";
    for (const char c : word) {
      if (std::string_view("\"\\$`").find(c) != std::string_view::npos) line += '\\';
      line += c;
    }
    line += "\"\n";
  }
  return line;
}

}  // namespace

void words(std::string_view bytes) {
  std::vector<std::string> found;
  try {
    found = Shlex::split(bytes);
  } catch (const Shlex::Error&) {
    require(bytes.find_first_of("'\"\\") != bytes.npos, "only quotes can be left open");
    return;
  }
  require(Shlex::split(quoted(found)) == found, "quoted words come back");
  require(Shlex::split(doublyQuoted(found)) == found, "doubly quoted words come back");
  if (bytes.find_first_of("'\"\\") != bytes.npos) return;
  std::vector<std::string> plain;
  for (std::size_t begin = 0; (begin = bytes.find_first_not_of(" \t\r\n", begin)) != bytes.npos;) {
    const auto end = std::min(bytes.find_first_of(" \t\r\n", begin), bytes.size());
    plain.emplace_back(bytes.substr(begin, end - begin));
    begin = end;
  }
  require(found == plain, "plain words end at blanks");
}

}  // namespace verdo::fuzz
