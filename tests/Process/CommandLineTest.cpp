#include "VerdoDriverCore/Process/Shlex.h"
#include "VerdoDriverCore/Process/Which.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <filesystem>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace test;

TEST(Shlex, SplitsLikeAShell) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {" \t\r\n ", {}},
      {"  a\tb\nc\rd  ", {"a", "b", "c", "d"}},
      {"a 'b c' \"d\\\"e\"", {"a", "b c", "d\"e"}},
      {"'' \"\" x", {"", "", "x"}},
      {"a''b\"\"c'd'", {"abcd"}},
      {"'a\\b\"c'", {"a\\b\"c"}},
      {"\"\\\\ \\$ \\` \\\" \\n \\'\"", {"\\ $ ` \" \\n \\'"}},
      {"\"a\\\nb\" a\\\nb", {"ab", "ab"}},
      {"a\\ b \\'c \\\"d \\\\", {"a b", "'c", "\"d", "\\"}},
      {"a#b #c $d | > *", {"a#b", "#c", "$d", "|", ">", "*"}},
      {"'grüße 😀' \\é", {"grüße 😀", "é"}}};
  for (const auto& [text, words] : cases) EXPECT_EQ(Shlex::split(text), words) << text;
  for (const char* text : {"'a", "a \"b", "'a\\", "\"a\\\""}) {
    EXPECT_EQ(failureOf([&] { Shlex::split(text); }), "ValueError: No closing quotation") << text;
  }
  for (const char* text : {"a\\", "\"a\\"}) {
    EXPECT_EQ(failureOf([&] { Shlex::split(text); }), "ValueError: No escaped character") << text;
  }
}

}  // namespace
}  // namespace verdo
