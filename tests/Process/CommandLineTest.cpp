#include "VerdoDriverCore/Process/Shlex.h"
#include "VerdoDriverCore/Process/Which.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <filesystem>

#include <gtest/gtest.h>

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

/// Makes a directory the current one for a scope.
struct InDirectory {
  explicit InDirectory(const std::string& path) { std::filesystem::current_path(path); }
  ~InDirectory() { std::filesystem::current_path(before); }
  const std::filesystem::path before = std::filesystem::current_path();
};

TEST(Which, FindsWhatAShellWouldNot) {
  const TempDir root;
  const auto put = [&](const std::string& directory, const char* name, unsigned mode) {
    std::filesystem::create_directories(root / directory);
    root.write(directory + "/" + name, "", std::filesystem::perms{mode});
    return root / directory;
  };
  const auto first = put("first", "tool", 0700);
  const auto second = put("second", "tool", 0700);
  const auto plain = put("plain", "tool", 0600);
  const auto folder = root / "folder";
  std::filesystem::create_directories(folder + "/tool");
  put("here", "tool", 0700);
  const InDirectory here(root / "here");
  const std::string none = root / "none";

  const struct {
    std::string name;
    std::vector<std::string> extra;
    std::string path;
    std::optional<std::string> found;
  } cases[] = {
      {"tool", {}, first + ":" + second, first + "/tool"},
      {"tool", {none, second, first}, none, second + "/tool"},
      {"tool", {plain, folder}, plain + ":" + folder + ":" + second, second + "/tool"},
      {"tool", {}, "", "./tool"},
      {"tool", {}, ":" + first, "./tool"},
      {"tool", {}, none + "::" + first, "./tool"},
      {"tool", {}, none + ":" + first + ":", first + "/tool"},
      {"", {first}, first, std::nullopt},
      {first + "/tool", {}, second, first + "/tool"},
      {"sub/tool", {first}, first, std::nullopt},
      {plain + "/tool", {}, "", std::nullopt},
      {"other", {first}, second, std::nullopt},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(Which::find(row.name, row.extra, row.path), row.found) << row.name << row.path;
    const ScopedEnv path("PATH", row.path);
    EXPECT_EQ(Which::find(row.name, row.extra), row.found) << row.name << row.path;
  }
  const ScopedEnv path("PATH", std::nullopt);
  EXPECT_EQ(Which::find("sh").value_or("").substr(0, 5), "/usr/");
}

}  // namespace
}  // namespace verdo
