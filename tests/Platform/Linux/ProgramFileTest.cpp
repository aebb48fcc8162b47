#include "VerdoDriver/Platform/Linux/ProgramFile.h"
#include "tests/Support/TempDir.h"

#include <gtest/gtest.h>

namespace verdo::test {

TEST(ProgramFile, CallsARemovalAnUpgradeOrMissesOne) {
  namespace fs = std::filesystem;
  const TempDir dir;
  const std::string path = dir.write("program", "old", fs::perms(0755));
  const ProgramFile program(path);
  const ProgramFile nothing(dir / "none");
  const auto put = [&](fs::perms mode) { fs::rename(dir.write("new", "new", mode), path); };
  const fs::path old = dir / "old";  // as long as it runs, its number is its own
  fs::create_hard_link(path, old);
  EXPECT_FALSE(program.isReplaced());
  fs::last_write_time(path, fs::file_time_type::clock::now() + std::chrono::hours(1));
  EXPECT_FALSE(program.isReplaced());
  put(fs::perms(0755));
  EXPECT_TRUE(program.isReplaced());
  put(fs::perms(0644));
  EXPECT_FALSE(program.isReplaced());
  fs::remove(path);
  EXPECT_FALSE(program.isReplaced());
  fs::create_directory(path);
  EXPECT_FALSE(program.isReplaced());
  fs::remove(path);
  put(fs::perms(0755));
  EXPECT_TRUE(program.isReplaced());
  fs::rename(old, path);
  EXPECT_FALSE(program.isReplaced());
  dir.write("none", "", fs::perms(0755));
  EXPECT_FALSE(nothing.isReplaced());
}

}  // namespace verdo::test
