#include "VerdoDriverCore/Network/FileDownload.h"
#include "tests/Support/TempDir.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>

namespace verdo {
namespace {

using test::contentOf;
using test::TempDir;
namespace fs = std::filesystem;

// The sums are those that sha256sum prints.
TEST(FileDownload, StoresAndHashesWhatComes) {
  const TempDir directory;
  FileDownload download(directory / "f");
  EXPECT_FALSE(fs::exists(directory / "f"));
  EXPECT_TRUE(download.onBytes(200, "ab"));
  EXPECT_TRUE(download.onBytes(200, "c"));
  EXPECT_EQ(download.finish(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(contentOf(directory / "f"), "abc");
  fs::create_symlink(directory / "f", directory / "link");
  EXPECT_FALSE(FileDownload(directory / "link").onBytes(200, "x")) << "no link is followed";
  EXPECT_EQ(fs::status(directory / "f").permissions(), fs::perms{0600});

  FileDownload empty(directory / "empty");
  EXPECT_EQ(empty.finish(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(fs::file_size(directory / "empty"), 0u);
}

TEST(FileDownload, TellsWhyItCannotWrite) {
  FileDownload nowhere("/no/such/folder/f");
  EXPECT_FALSE(nowhere.onBytes(200, "x"));
  ASSERT_TRUE(nowhere.failure());
  EXPECT_EQ(pyDescribe(*nowhere.failure()), "OSError: cannot write /no/such/folder/f");
  EXPECT_THROW(nowhere.finish(), PyError);
  const TempDir directory;
  FileDownload full(directory / "f");
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit tight{1, before.rlim_max};
  const auto handler = ::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &tight);
  EXPECT_FALSE(full.onBytes(200, "xx"));
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, handler);
  ASSERT_TRUE(full.failure());
  EXPECT_EQ(pyDescribe(*full.failure()), "OSError: write failed: File too large");
}

}  // namespace
}  // namespace verdo
