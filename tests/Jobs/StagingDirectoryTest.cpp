#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "tests/Support/Children.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <filesystem>

#include <gmock/gmock.h>

namespace verdo {
namespace {

namespace fs = std::filesystem;
using namespace test;

TEST(StagingDirectory, IsPrivateAndGoesWithItsContent) {
  const TempDir home;
  const ScopedEnv variable("HOME", home.path());
  fs::create_directories(home / ".cache/verdo");
  fs::permissions(home / ".cache/verdo", fs::perms{0755});
  std::string path;
  {
    const StagingDirectory directory;
    path = directory.path();
    EXPECT_TRUE(path.starts_with(home / ".cache/verdo/verdo-")) << path;
    EXPECT_EQ(fs::status(path).permissions(), fs::perms{0700});
    EXPECT_EQ(fs::status(home / ".cache/verdo").permissions(), fs::perms{0700});
    fs::create_directories(path + "/deep/er");
    std::ofstream(path + "/deep/er/file") << "x";
    StagingDirectory::removeAbandoned();
    EXPECT_TRUE(fs::exists(path + "/deep/er/file")) << "its owner lives";
    EXPECT_NE(StagingDirectory().path(), path);
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST(StagingDirectory, OutlivesACrashOnlyUntilTheNextStart) {
  const TempDir cache;
  const auto child = launchRole({"stage", cache.path()});
  CollectedLines output(child->takeStdout());
  ASSERT_TRUE(output.start().waitForCount(2));
  const std::string path = output.now().front();
  ASSERT_TRUE(fs::exists(path)) << path;
  StagingDirectory::removeAbandoned(cache.path());
  EXPECT_TRUE(fs::exists(path)) << "its owner lives";
  child->release();
  EXPECT_TRUE(fs::exists(path));
  StagingDirectory::removeAbandoned(cache.path());
  EXPECT_FALSE(fs::exists(path));
}

TEST(StagingDirectory, RemovesNothingThatIsNotItsOwn) {
  const TempDir cache;
  const TempDir elsewhere;
  elsewhere.write("precious", "x");
  cache.write("verdo-file", "x");
  fs::create_directory(cache / "other");
  fs::create_directory_symlink(elsewhere.path(), cache / "verdo-link");
  fs::create_directory(cache / "verdo-old");
  fs::create_directory_symlink(elsewhere.path(), cache / "verdo-old/link");
  StagingDirectory::removeAbandoned(cache.path());
  EXPECT_FALSE(fs::exists(cache / "verdo-old"));
  EXPECT_TRUE(fs::exists(elsewhere / "precious"));
  EXPECT_TRUE(fs::exists(cache / "other"));
  StagingDirectory::removeAbandoned(cache / "missing");
  StagingDirectory::removeAbandoned(cache / "verdo-file");
}

TEST(StagingDirectory, SaysWhyItCannotBeMade) {
  const TempDir home;
  const auto file = home.write("file", "");
  try {
    StagingDirectory directory(file + "/cache");
    ADD_FAILURE() << "made " << directory.path();
  } catch (const PyError& error) {
    EXPECT_EQ(pyDescribe(error), "OSError: [Errno 20] Not a directory: '" + file + "/cache'");
  }
}

}  // namespace
}  // namespace verdo
