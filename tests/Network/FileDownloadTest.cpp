#include "VerdoDriverCore/Network/FileDownload.h"
#include "tests/Support/TempDir.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <sys/stat.h>

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
  EXPECT_EQ(fs::status(directory / "f").permissions(), fs::perms{0600});

  FileDownload empty(directory / "empty");
  EXPECT_EQ(empty.finish(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(fs::file_size(directory / "empty"), 0u);
}

TEST(FileDownload, LeavesNoFileOfAFailure) {
  const TempDir directory;
  FileDownload refused(directory / "refused");
  for (const int status : {199, 302, 404, 500}) EXPECT_TRUE(refused.onBytes(status, "text"));
  refused.discard();
  FileDownload broken(directory / "broken");
  EXPECT_TRUE(broken.onBytes(206, "half"));
  broken.discard();
  EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST(FileDownload, ReplacesAFileButFollowsNoLink) {
  const TempDir directory;
  FileDownload again(directory.write("f", "longer than before"));
  EXPECT_TRUE(again.onBytes(200, "new"));
  again.finish();
  EXPECT_EQ(contentOf(directory / "f"), "new");
  fs::create_symlink(directory / "f", directory / "link");
  FileDownload link(directory / "link");
  EXPECT_FALSE(link.onBytes(200, "x"));
  EXPECT_EQ(contentOf(directory / "f"), "new");
}

TEST(FileDownload, TellsWhyItCannotWrite) {
  FileDownload nowhere("/no/such/folder/f");
  EXPECT_FALSE(nowhere.onBytes(200, "x"));
  ASSERT_TRUE(nowhere.failure());
  EXPECT_EQ(pyDescribe(*nowhere.failure()), "OSError: cannot write /no/such/folder/f");
  EXPECT_THROW(nowhere.finish(), PyError);
  FileDownload full("/dev/full");
  EXPECT_FALSE(full.onBytes(200, "x"));
  ASSERT_TRUE(full.failure());
  EXPECT_EQ(pyDescribe(*full.failure()), "OSError: write failed: No space left on device");
}

}  // namespace
}  // namespace verdo
