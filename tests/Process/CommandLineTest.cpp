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
constexpr std::filesystem::perms kRunnable{0755};

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

TEST(Which, PassesOverWhatCannotRun) {
  const TempDir a, b;
  a.write("tool", "", std::filesystem::perms{0644});
  std::filesystem::create_directory(a / "folder");
  std::filesystem::create_symlink(a / "missing", a / "dangling");
  for (const char* name : {"tool", "folder", "dangling"}) {
    b.write(name, "", kRunnable);
    EXPECT_EQ(Which::find(name, {}, a.path() + ":" + b.path()), b / name);
    EXPECT_EQ(Which::find(name, {a.path(), b.path()}, ""), b / name);
    EXPECT_EQ(Which::find(a / name, {b.path()}), std::nullopt) << "a path is not searched for";
    EXPECT_EQ(Which::find(b / name, {}, ""), b / name);
  }
  EXPECT_EQ(Which::find("", {a.path()}), std::nullopt);
}

TEST(Which, ReadsAnEmptyPieceAsTheCurrentDirectory) {
  const TempDir directory;
  directory.write("own-tool", "", kRunnable);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(directory.path());
  for (const char* path : {"", ":", "/no/such:", ":/no/such", "/no::/such"}) {
    const ScopedEnv variable("PATH", path);
    EXPECT_EQ(Which::find("own-tool"), "./own-tool") << path;
    EXPECT_EQ(Which::find("./own-tool", {"/bin"}), "./own-tool");
    EXPECT_EQ(Which::find("sh"), std::nullopt) << path;
  }
  const ScopedEnv absent("PATH", std::nullopt);
  EXPECT_EQ(Which::find("own-tool"), std::nullopt);
  EXPECT_TRUE(Which::find("sh")) << "the default search path";
  std::filesystem::current_path(before);
}

}  // namespace
}  // namespace verdo
