#include "VerdoDriverCore/Process/Spawn.h"
#include "tests/Support/Children.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>

namespace verdo {
namespace {

using namespace test;
using testing::ElementsAre;

Lines outputOf(const Lines& role, const Environment& env = currentEnvironment()) {
  const auto child = launchRole(role, env);
  return CollectedLines(child->takeStdout()).start().all();
}

TEST(Spawn, HandsDownNeitherDescriptorsNorEnvironmentNorSignals) {
  const UniqueFd inherited(::open("/dev/null", O_RDONLY));
  EXPECT_THAT(outputOf({"descriptors"}), ElementsAre("0", "1", "2"));
  const ScopedEnv secret("VERDO_DRIVER_TOKEN", "secret");
  EXPECT_THAT(outputOf({"environment"}, {{"B", "x=y"}, {"A", ""}}), ElementsAre("A=", "B=x=y"));

  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const auto handler = ::signal(SIGUSR1, SIG_IGN);
  const Lines lines = outputOf({"signals"});
  ::signal(SIGUSR1, handler);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_THAT(lines, ElementsAre("Group:\town", "SigBlk:\t0", "SigIgn:\t0"));
}

TEST(Spawn, ReportsWhatCannotStart) {
  const TempDir directory;
  const auto descriptors = openDescriptors();
  EXPECT_EQ(failureOf([&] { Spawn::launch("/no/such", {"such"}, {}, false); }),
            "OSError: [Errno 2] No such file or directory: '/no/such'");
  EXPECT_EQ(failureOf([&] { Spawn::launch(directory.path(), {"d"}, {}, true); }),
            "OSError: [Errno 13] Permission denied: '" + directory.path() + "'");
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(Spawn, MergesStandardErrorOnlyOnRequest) {
  const auto merged = launchRole({"print", "out", "err", "0"});
  EXPECT_FALSE(merged->takeStderr());
  EXPECT_THAT(CollectedLines(merged->takeStdout()).start().all(), ElementsAre("outerr"));
  const auto apart = launchRole({"print", "out", "err", "0"}, {}, false);
  EXPECT_THAT(CollectedLines(apart->takeStdout()).start().all(), ElementsAre("out"));
  EXPECT_THAT(CollectedLines(apart->takeStderr()).start().all(), ElementsAre("err"));
}

}  // namespace
}  // namespace verdo
