#include "VerdoDriverCore/Contract/EnvFile.h"
#include "tests/Support/TempDir.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo {
namespace {

using test::TempDir;
using Values = std::map<std::string, std::string>;

/// "{name}: {message}" of the failure, or "" for none.
std::string failureOf(const std::string& path) try {
  EnvFile::read(path);
  return "";
} catch (const Error& error) {
  return pyDescribe(error);
}

TEST(EnvFile, ParsesLines) {
  const struct {
    std::string_view text;
    Values values;
  } cases[] = {
      {"", {}},
      {"\n\r\n \t\n# A=1\n  # B=2\nno equals sign\n", {}},
      {"KEY = \"a b\" ", {{"KEY", "a b"}}},
      {"K='\"x\"'", {{"K", "x"}}},
      {"K=\"'x", {{"K", "x"}}},
      {"K=' x '", {{"K", " x "}}},
      {"K=x'y", {{"K", "x'y"}}},
      {"K=a=b", {{"K", "a=b"}}},
      {"K=", {{"K", ""}}},
      {"K=\"\"", {{"K", ""}}},
      {"K=a # b", {{"K", "a # b"}}},
      {"A=1\r\nB=2\r\n", {{"A", "1"}, {"B", "2"}}},
      {"\tA\t=\t1\t\n A = 2", {{"A", "2"}}},
      {"export A=1", {{"export A", "1"}}},
      {"A=$HOME\\n", {{"A", "$HOME\\n"}}},
      {"=x", {{"", "x"}}},
  };
  for (const auto& [text, values] : cases) EXPECT_EQ(EnvFile::parse(text), values) << text;
}

// Only the mode counts, so the table holds for root as well, whom no mode keeps from reading.
TEST(EnvFile, IsReadOnlyWhenNobodyElseCan) {
  const TempDir directory;
  for (const unsigned mode : {0600u, 0400u, 0700u}) {
    const auto path = directory.write("private", "A=1\n", std::filesystem::perms{mode});
    EXPECT_EQ(EnvFile::read(path), (Values{{"A", "1"}})) << std::oct << mode;
  }
  for (const unsigned mode : {0644u, 0640u, 0620u, 0610u, 0604u, 0602u, 0601u, 0004u, 0666u}) {
    const auto path = directory.write("open", "A=1\n", std::filesystem::perms{mode});
    EXPECT_EQ(failureOf(path), "InsecureError: " + path +
                                   " is readable by others — fix it first:  chmod 600 " + path)
        << std::oct << mode;
  }
  const auto secret = directory.write("open", "A=1\n", std::filesystem::perms{0640});
  std::filesystem::create_symlink(secret, directory / "link");
  EXPECT_THROW(EnvFile::read(directory / "link"), EnvFile::InsecureError);
}

TEST(EnvFile, SaysWhyItCannotBeRead) {
  const TempDir directory;
  EXPECT_EQ(EnvFile::read(directory / "missing"), Values{});
  EXPECT_EQ(EnvFile::read(directory / "no/such/folder"), Values{});
  const auto file = directory.write("file", "A=1");
  EXPECT_EQ(failureOf(file + "/x"), "OSError: [Errno 20] Not a directory: '" + file + "/x'");
  std::filesystem::create_directory(directory / "d");
  std::filesystem::permissions(directory / "d", std::filesystem::perms{0700});
  EXPECT_EQ(failureOf(directory / "d"),
            "OSError: [Errno 21] Is a directory: '" + (directory / "d") + "'");
  EXPECT_THAT(failureOf(directory.write("latin", "A=\xe9\n")),
              testing::StartsWith("UnicodeDecodeError: "));
  const auto closed = directory.write("closed", "A=1", std::filesystem::perms{0});
  if (::geteuid() == 0) {
    EXPECT_EQ(EnvFile::read(closed), (Values{{"A", "1"}}));
  } else {
    EXPECT_EQ(failureOf(closed), "OSError: [Errno 13] Permission denied: '" + closed + "'");
  }
}

TEST(EnvFile, DoesNotHangOnAFifo) {
  const TempDir directory;
  ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(EnvFile::read(directory / "fifo"), Values{});
}

}  // namespace
}  // namespace verdo
