#include "VerdoDriverCore/Process/Spawn.h"
#include "tests/Support/Children.h"
#include "tests/Support/ScopedEnv.h"

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

}  // namespace
}  // namespace verdo
