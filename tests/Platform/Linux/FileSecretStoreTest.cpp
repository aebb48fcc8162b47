#include "VerdoDriver/Platform/Linux/FileSecretStore.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/TempDir.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace verdo::test {
namespace {

namespace fs = std::filesystem;
constexpr auto kToken = SecretAccount::driverToken;

class FileStore : public testing::Test {
 protected:
  auto modeOf(const std::string& path) { return static_cast<int>(fs::status(path).permissions()); }
  /// The files of the store, temporary ones included.
  auto fileCount() {
    return std::distance(fs::directory_iterator(home_ / "deep/secrets"), fs::directory_iterator());
  }

  TempDir home_;
  const std::string path_ = home_ / "deep/secrets/driver-token";
  FileSecretStore store_{home_ / "deep/secrets"};
  AppLogCapture log_;
};

TEST_F(FileStore, ShowsSecretsToOthersOrLosesThem) {
  EXPECT_EQ(store_.read(kToken).value(), std::nullopt);
  EXPECT_TRUE(store_.remove(kToken));
  for (const std::string value : {"secret-1234", "", "secret-Grüße"}) {
    ASSERT_TRUE(store_.write(value, kToken));
    EXPECT_EQ(store_.read(kToken).value(), value);
    fs::permissions(home_ / "deep/secrets", fs::perms(0755));  // narrowed by the next write
  }
  ASSERT_TRUE(store_.write("secret-key", SecretAccount::llmKey));
  EXPECT_EQ(modeOf(home_ / "deep/secrets"), 0700);
  EXPECT_EQ(modeOf(path_), 0600);
  EXPECT_TRUE(store_.remove(kToken));
  EXPECT_EQ(store_.read(kToken).value(), std::nullopt);
  EXPECT_EQ(store_.read(SecretAccount::llmKey).value(), "secret-key");
  EXPECT_EQ(fileCount(), 1);
  EXPECT_TRUE(log_.has("[FileSecretStore] stored driver-token (····1234)"));
  for (const auto& line : log_.lines()) EXPECT_EQ(line.find("secret-"), line.npos) << line;
}

TEST_F(FileStore, TrustsFilesThatOthersCanTouch) {
  ASSERT_TRUE(store_.write("secret", kToken));
  const auto other = home_.write("other", "planted");
  const struct {
    std::function<void()> plant;
    const char* complaint;
  } table[] = {
      {[&] { fs::permissions(path_, fs::perms(0640)); }, "chmod 600 "},
      {[&] { fs::create_symlink(other, path_); }, "is a symbolic link"},
      {[&] { ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0); }, "is not a regular file"},
      {[&] { fs::create_directories(path_ + "/in"); }, "is not a regular file"},
  };
  for (const auto& [plant, complaint] : table) {
    if (std::string(complaint) != "chmod 600 ") fs::remove(path_);
    plant();
    const auto secret = store_.read(kToken);
    ASSERT_FALSE(secret) << complaint;
    EXPECT_NE(secret.error().description.find(complaint), std::string::npos)
        << secret.error().description;
    const bool isDirectory = fs::is_directory(path_);
    EXPECT_EQ(store_.write("secret", kToken).has_value(), !isDirectory) << complaint;
    EXPECT_EQ(store_.remove(kToken).has_value(), !isDirectory) << complaint;
    EXPECT_EQ(fileCount(), isDirectory ? 1 : 0) << complaint;
  }
  EXPECT_EQ(contentOf(other), "planted");
}

TEST_F(FileStore, FailedWriteDestroysTheOldValue) {
  ASSERT_TRUE(store_.write("old", kToken));
  ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const struct rlimit small{4, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const auto written = store_.write("much longer", kToken);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().status, EFBIG);
  EXPECT_TRUE(log_.has("[FileSecretStore] write driver-token failed: 27"));
  EXPECT_EQ(store_.read(kToken).value(), "old");
  EXPECT_EQ(fileCount(), 1);
}

}  // namespace
}  // namespace verdo::test
