#include "VerdoDriverCore/Process/Which.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <filesystem>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using test::ScopedEnv;
using test::TempDir;
constexpr std::filesystem::perms kRunnable{0755};

/// Two directories: "tool" in the first is not executable, "folder" is one; the second has both.
class WhichTest : public testing::Test {
 protected:
  WhichTest() {
    a.write("tool", "", std::filesystem::perms{0644});
    std::filesystem::create_directory(a / "folder");
    b.write("tool", "", kRunnable);
    b.write("folder", "", kRunnable);
    b.write("only-b", "", kRunnable);
    std::filesystem::create_symlink(b / "tool", a / "link");
    std::filesystem::create_symlink(b / "missing", a / "dangling");
  }
  TempDir a, b;
};

TEST_F(WhichTest, PassesOverWhatCannotRun) {
  const std::string path = a.path() + ":" + b.path();
  EXPECT_EQ(Which::find("tool", {}, path), b / "tool");
  EXPECT_EQ(Which::find("folder", {}, path), b / "folder");
  EXPECT_EQ(Which::find("link", {}, path), a / "link");
  EXPECT_EQ(Which::find("dangling", {}, path), std::nullopt);
  EXPECT_EQ(Which::find("", {}, path), std::nullopt);
}

TEST_F(WhichTest, SearchesTheExtraDirectoriesFirst) {
  a.write("tool", "", kRunnable);
  EXPECT_EQ(Which::find("tool", {}, b.path()), b / "tool");
  EXPECT_EQ(Which::find("tool", {"/no/such", a.path()}, b.path()), a / "tool");
}

TEST_F(WhichTest, DoesNotSearchForAPath) {
  const ScopedEnv path("PATH", b.path());
  EXPECT_EQ(Which::find(b / "tool"), b / "tool");
  EXPECT_EQ(Which::find(a / "tool"), std::nullopt);
  EXPECT_EQ(Which::find("./only-b", {b.path()}), std::nullopt);
}

TEST_F(WhichTest, ReadsAnEmptyPieceAsTheCurrentDirectory) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(b.path());
  for (const char* path : {"", ":", "/no/such:", ":/no/such", "/no::/such"}) {
    EXPECT_EQ(Which::find("only-b", {}, path), "./only-b") << path;
  }
  {
    const ScopedEnv none("PATH", "");
    EXPECT_EQ(Which::find("only-b"), "./only-b");
    EXPECT_EQ(Which::find("sh"), std::nullopt);
  }
  const ScopedEnv absent("PATH", std::nullopt);
  EXPECT_EQ(Which::find("only-b"), std::nullopt);
  EXPECT_TRUE(Which::find("sh")) << "the default search path";
  std::filesystem::current_path(before);
}

}  // namespace
}  // namespace verdo
