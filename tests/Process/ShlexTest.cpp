#include "VerdoDriverCore/Process/Shlex.h"

#include <gmock/gmock.h>

namespace verdo {
namespace {

TEST(Shlex, SplitsLikeAShell) {
  const struct {
    std::string_view text;
    std::vector<std::string> words;
  } cases[] = {
      {"", {}},
      {" \t\r\n ", {}},
      {"ego-browser nodejs", {"ego-browser", "nodejs"}},
      {"  a\tb\nc\rd  ", {"a", "b", "c", "d"}},
      {"a 'b c' \"d\\\"e\"", {"a", "b c", "d\"e"}},
      {"''", {""}},
      {"'' \"\" x", {"", "", "x"}},
      {"a''b\"\"c", {"abc"}},
      {"'a'\"b\"c", {"abc"}},
      {"'a\\b\"c'", {"a\\b\"c"}},
      {"\"it's\"", {"it's"}},
      {"\"\\\\ \\$ \\` \\\" \\n \\'\"", {"\\ $ ` \" \\n \\'"}},
      {"\"a\\\nb\"", {"ab"}},
      {"a\\\nb", {"ab"}},
      {"\\\n", {""}},
      {"a\\ b \\'c \\\"d \\\\", {"a b", "'c", "\"d", "\\"}},
      {"a#b #c $d | > *", {"a#b", "#c", "$d", "|", ">", "*"}},
      {"'grüße 😀' \\é", {"grüße 😀", "é"}},
      {"a\v\fb", {"a\v\fb"}},
  };
  for (const auto& [text, words] : cases) EXPECT_EQ(Shlex::split(text), words) << text;
}

TEST(Shlex, RefusesWhatIsUnfinished) {
  const struct {
    const char *text, *message;
  } cases[] = {
      {"'a", "No closing quotation"},   {"a \"b", "No closing quotation"},
      {"'a\\", "No closing quotation"}, {"\"a\\\"", "No closing quotation"},
      {"a\\", "No escaped character"},  {"\"a\\", "No escaped character"},
  };
  for (const auto& [text, message] : cases) {
    try {
      Shlex::split(text);
      ADD_FAILURE() << "accepted: " << text;
    } catch (const Shlex::Error& error) {
      EXPECT_STREQ(error.what(), message) << text;
    }
  }
}

}  // namespace
}  // namespace verdo
