#include "VerdoDriver/Platform/Linux/FileSecretStore.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/ErrorOf.h"
#include "tests/Support/FullDisk.h"
#include "tests/Support/TempDir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo::test {

namespace fs = std::filesystem;

TEST(FileStore, ShowsSecretsToOthersOrLosesThem) {
  const TempDir home;
  const std::string directory = home / "deep/secrets", path = directory + "/driver-token";
  constexpr auto kToken = SecretAccount::driverToken;
  FileSecretStore store(directory);
  const AppLogCapture log;
  EXPECT_EQ(store.read(kToken).value(), std::nullopt);
  for (const std::string value : {"secret-1234", "", "secret-Grüße"}) {
    ASSERT_TRUE(store.write(value, kToken));
    EXPECT_EQ(store.read(kToken).value(), value);
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms(0700));
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
    fs::permissions(directory, fs::perms(0755));
  }
  EXPECT_TRUE(log.has("[FileSecretStore] stored driver-token (····1234)"));
  for (const auto& line : log.lines()) EXPECT_EQ(line.find("secret-"), line.npos) << line;

  // A write that fails half-way.
  {
    const FullDisk disk(4);
    EXPECT_EQ(errorOf(store.write("much longer", kToken)).status, EFBIG);
  }
  EXPECT_EQ(store.read(kToken).value(), "secret-Grüße");
  EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 1) << "left half a secret behind";
  EXPECT_TRUE(store.remove(kToken));
  EXPECT_TRUE(store.remove(kToken));

  // A crash in the middle of a first write.
  home.write("deep/secrets/.driver-token.new", "secret-half");
  EXPECT_TRUE(store.remove(kToken));
  EXPECT_TRUE(fs::is_empty(directory)) << "did not forget all of it";

  // What others can touch is not trusted, but replaced where that is possible.
  const auto other = home.write("other", "planted");
  const std::pair<const char*, std::function<void()>> table[] = {
      {"chmod 600 ", [&] { home.write("deep/secrets/driver-token", "x", fs::perms(0640)); }},
      {"belongs to another user",
       [&] {
         home.write("deep/secrets/driver-token", "x");
         if (::chown(path.c_str(), 12345, 12345) != 0) fs::remove(path);
       }},
      {"is a symbolic link", [&] { fs::create_symlink(other, path); }},
      {"is not a regular file", [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }},
      {"is not a regular file", [&] { fs::create_directories(path + "/in"); }},
  };
  for (const auto& [complaint, plant] : table) {
    plant();
    if (!fs::exists(fs::symlink_status(path))) continue;  // only root can give a file away
    EXPECT_NE(errorOf(store.read(kToken)).description.find(complaint), std::string::npos);
    const bool isDirectory = fs::is_directory(path);
    EXPECT_EQ(store.write("secret", kToken).has_value(), !isDirectory) << complaint;
    EXPECT_EQ(store.remove(kToken).has_value(), !isDirectory) << complaint;
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), isDirectory ? 1 : 0);
  }
  EXPECT_EQ(contentOf(other), "planted");

  // A directory of somebody else's, or one that leads elsewhere.
  const auto elsewhere = home / "elsewhere", link = home / "link";
  fs::create_directories(elsewhere);
  fs::create_directory_symlink(elsewhere, link);
  EXPECT_FALSE(FileSecretStore(link).write("secret", kToken));
  if (::chown(elsewhere.c_str(), 12345, 12345) == 0) {
    EXPECT_FALSE(FileSecretStore(elsewhere).write("secret", kToken));
  }
  EXPECT_TRUE(fs::is_empty(elsewhere));
}

}  // namespace verdo::test
