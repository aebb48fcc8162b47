#include "VerdoDriverCore/Values/Utf8.h"

#include <string>
#include <utility>

#include <gmock/gmock.h>

namespace verdo::test {
namespace {

TEST(ForLog, LetsATextPassForAnotherEntry) {
  const std::pair<std::string, const char*> table[] = {
      {"plain grüß 日本 😀", "plain grüß 日本 😀"},
      {"a\n✗ b\r\nc\td", "a\\x0a✗ b\\x0d\\x0ac\\x09d"},
      {"\x1b[2J\x7f\xc2\x9b\xff", "\\x1b[2J\\x7f\\x9b\xef\xbf\xbd"},
      {std::string("\0", 1), "\\x00"},
      {"\u2028\u2029\u202e\u2066\u2069\u200f", "\\u2028\\u2029\\u202e\\u2066\\u2069\u200f"},
  };
  for (const auto& [text, expected] : table) EXPECT_EQ(forLog(text), expected);
}

}  // namespace
}  // namespace verdo::test
