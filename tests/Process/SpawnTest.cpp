#include "VerdoDriverCore/Process/Spawn.h"
#include "tests/Support/Children.h"
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

TEST(Spawn, GivesTheChildItsThreeDescriptorsOnly) {
  const UniqueFd inherited(::open("/dev/null", O_RDONLY));
  EXPECT_THAT(outputOf({"descriptors"}), ElementsAre("0", "1", "2"));
}

TEST(Spawn, GivesTheChildExactlyTheEnvironment) {
  const ScopedEnv secret("VERDO_DRIVER_TOKEN", "secret");
  EXPECT_THAT(outputOf({"environment"}, {{"B", "x=y"}, {"A", ""}}), ElementsAre("A=", "B=x=y"));
}

TEST(Spawn, ResetsSignalsAndMakesAGroup) {
  sigset_t blocked, before;
  sigfillset(&blocked);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &blocked, &before), 0);
  const auto oldHandler = ::signal(SIGUSR1, SIG_IGN);
  const Lines lines = outputOf({"signals"});
  ::signal(SIGUSR1, oldHandler);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_THAT(lines, ElementsAre("Group:\town", "SigBlk:\t0", "SigIgn:\t0"));
}

TEST(Spawn, ReportsWhatCannotStart) {
  const TempDir directory;
  const struct {
    std::string path, message;
    int code;
  } cases[] = {
      {"/no/such/tool", "[Errno 2] No such file or directory: '/no/such/tool'", ENOENT},
      {directory.path(), "[Errno 13] Permission denied: '" + directory.path() + "'", EACCES},
  };
  for (const auto& [path, message, code] : cases) {
    const auto descriptors = openDescriptors();
    try {
      Spawn::launch(path, {path}, {}, false);
      ADD_FAILURE() << "started: " << path;
    } catch (const Spawn::Error& error) {
      EXPECT_EQ(error.what(), message);
      EXPECT_EQ(error.code(), code);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
  }
}

TEST(Spawn, KeepsOrMergesStandardError) {
  for (const bool merge : {false, true}) {
    const auto child = launchRole({"print", "out", "err", "0"}, currentEnvironment(), merge);
    UniqueFd errors = child->takeStderr();
    EXPECT_EQ(static_cast<bool>(errors), !merge);
    CollectedLines out(child->takeStdout());
    EXPECT_THAT(out.start().all(), ElementsAre(merge ? "outerr" : "out"));
    if (!merge) {
      EXPECT_THAT(CollectedLines(std::move(errors)).start().all(), ElementsAre("err"));
    }
  }
}

}  // namespace
}  // namespace verdo
