#include "VerdoDriver/Model/LegacyDriverMigration.h"
#include "VerdoDriverCore/Contract/EnvFile.h"
#include "VerdoDriverCore/Values/Utf8.h"
#include "fuzz/Targets.h"

#include <map>
#include <regex>
#include <string>

namespace verdo::fuzz {
namespace {

using Entries = std::map<std::string, std::string>;

/// The core's rules, written as expressions. Keys with their blanks are no keys.
Entries model(std::string_view bytes) {
  Entries entries;
  while (!bytes.empty()) {
    std::string line(takeLine(bytes));
    static const std::regex kAround("^[ \\t\\r\\n\\v\\f]+|[ \\t\\r\\n\\v\\f]+$");
    line = std::regex_replace(line, kAround, "");
    const auto equals = line.find('=');
    if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
    static const std::regex kBlanks("^[ \\t]+|[ \\t]+$");
    static const std::regex kQuotes("^['\"]+|['\"]+$");
    const auto key = std::regex_replace(line.substr(0, equals), kBlanks, "");
    const auto value = std::regex_replace(line.substr(equals + 1), kBlanks, "");
    entries[key] = std::regex_replace(value, kQuotes, "");
  }
  return entries;
}

/// Where the two readers agree: printable ASCII without quotes, each key once.
bool isPlain(std::string_view bytes) {
  std::map<std::string, int> keys;
  for (std::string_view rest = bytes; !rest.empty();) {
    const auto line = takeLine(rest);
    const auto key = line.substr(0, line.find('='));
    if (key.find_first_of(" #") != key.npos || ++keys[std::string(key)] > 1) return false;
    for (const char c : line) {
      if (c < ' ' || c > '~' || c == '\'' || c == '"') return false;
    }
  }
  return true;
}

}  // namespace

void env(std::string_view bytes) {
  // A longer line exhausts the stack of the expressions.
  const bool isShort = bytes.size() < 2000;
  const std::string text = repairUtf8(bytes);  // other files are refused
  const Entries entries = EnvFile::parse(text);
  if (isShort && text.find('\0') == text.npos) require(entries == model(text), "as the rules say");
  const Entries legacy = LegacyDriverMigration::parseEnvFile(text);
  if (isPlain(text)) require(entries == legacy, "plain files read the same");
}

}  // namespace verdo::fuzz
