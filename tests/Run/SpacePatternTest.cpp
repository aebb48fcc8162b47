#include "VerdoDriverCore/Run/SpacePattern.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <chrono>

#include <gmock/gmock.h>

namespace verdo {
namespace {

TEST(SpacePattern, KnowsTheDriversOwnNames) {
  const SpacePattern pattern;
  for (const char* own :
       {"u1-x", "u42-", "replay-1", "apply-", "audit-x", "agent-x", "co-sweep-x", "co-id-7"}) {
    EXPECT_TRUE(pattern.isFoundIn(own)) << own;
  }
  for (const char* other : {"", "u-1", "ux1-", "my u1-x", "Replay-1", "co-", "personal"}) {
    EXPECT_FALSE(pattern.isFoundIn(other)) << other;
  }
}

TEST(SpacePattern, SpeaksPerlAndPython) {
  const struct {
    const char *pattern, *name;
    bool found;
  } cases[] = {
      {"b+", "abbc", true},
      {"^b", "abbc", false},
      {"(?i)^ABC$", "abc", true},
      {"(?P<n>\\w+)-(?P=n)", "ab-ab", true},
      {"(?<!x)y", "xy", false},
      {"^\\d{2,3}(?:a|b)$", "123b", true},
      {"^.$", "é", true},
      {"^\\w+$", "größe", true},
      {"a(?=b)", "ab", true},
      {"", "", true},
      {"x",
       "\xff"
       "x",
       true},
  };
  for (const auto& [pattern, name, found] : cases) {
    EXPECT_EQ(SpacePattern(pattern).isFoundIn(name), found) << pattern;
  }
}

TEST(SpacePattern, GivesUpOnAHopelessSearch) {
  const auto begin = std::chrono::steady_clock::now();
  for (const char* pattern : {"^(a+)+$", "^(a|aa)+$", "(.*a){20}b", "(?:(?:a*)*)*b"}) {
    EXPECT_FALSE(SpacePattern(pattern).isFoundIn(std::string(5000, 'a') + "!")) << pattern;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST(SpacePattern, SaysWhyItDoesNotCompile) {
  const struct {
    std::string_view pattern, reason;
  } cases[] = {
      {"(a", "missing closing parenthesis at position 2"},
      {"a[b", "missing terminating ] for character class at position 3"},
      {"*a", "quantifier does not follow a repeatable item at position 0"},
  };
  for (const auto& [pattern, reason] : cases) {
    try {
      SpacePattern compiled(pattern);
      ADD_FAILURE() << "compiled: " << pattern;
    } catch (const PyError& error) {
      EXPECT_EQ(error.pyName(), "re.error");
      EXPECT_EQ(error.what(), reason);
    }
  }
  EXPECT_THROW(SpacePattern("\xff"), PyError);
  EXPECT_THROW(SpacePattern(std::string(100'000, '(')), PyError);
  EXPECT_THROW(SpacePattern("((a{1,1000}){1,1000}){1,1000}"), PyError);
}

}  // namespace
}  // namespace verdo
