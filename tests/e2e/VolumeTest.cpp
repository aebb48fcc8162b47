#include "LocalService/Sha256.h"
#include "tests/Support/DriverFixture.h"
#include "tests/Support/ExecutorRole.h"
#include "tests/Support/Program.h"

namespace verdo::test {
namespace {

/// SHA-256 over the first numbered lines, each with its line end.
std::string shaOfNumbered(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += numberedLine(i) + "\n";
  return local::sha256Hex(text);
}

class Volume : public DriverFixture {};

TEST_F(Volume, FloodIsLostReorderedOrKeptInMemory) {
  // 200 MB of output, and a file of 64 MiB before it.
  const int lines = kSanitized ? 200'000 : 2'000'000;
  const auto id = addJob(
      "number " + std::to_string(lines),
      {.files = {{.name = "big", .content = std::string(64u << 20, 'b')}}, .keepLines = false});
  Program program(
      {"--server", service.url(), "--exec", config.execCommand},
      {{"PATH", "/usr/bin:/bin"}, {"HOME", home()}, {"VERDO_DRIVER_TOKEN", service.token()}});
  // However long it takes, it goes on.
  std::uint64_t seen = 0;
  const auto growsOrEnds = [&](const local::JobSnapshot& job) {
    return job.state == local::JobState::done || job.lineCount > seen;
  };
  auto job = *service.jobs().find(id);
  while (job.state != local::JobState::done) {
    ASSERT_TRUE(service.jobs().waitFor(id, growsOrEnds, kLong)) << "no line after " << seen;
    job = *service.jobs().find(id);
    seen = job.lineCount;
  }
  EXPECT_EQ(job.exitCode, 0);
  EXPECT_EQ(job.lineCount, static_cast<std::uint64_t>(lines));
  EXPECT_EQ(job.linesSha256, shaOfNumbered(lines));
  EXPECT_LT(program.peakMemory(), kSanitized ? 1000u << 20 : 80u << 20);
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 130);
}

}  // namespace
}  // namespace verdo::test
