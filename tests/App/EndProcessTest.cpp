#include "VerdoDriver/App/EndProcess.h"
#include "VerdoDriver/App/FileLog.h"
#include "VerdoDriver/Platform/NativeSettings.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <QSettings>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>

namespace verdo::test {

TEST(EndProcess, RunsDestructorsUnderWorkingThreadsOrLosesWhatWasSaid) {
  const TempDir dir;
  const ScopedEnv config("XDG_CONFIG_HOME", dir / "config");
  // Another process has its turn at the log: the last lines are still on their way at the end.
  const UniqueFd other(::open(dir.write("driver.log", "").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  const auto end = [&] {
    std::atexit([] { std::fputs("exit handlers ran", stderr); });
    FileLog log(dir.path());
    for (int i = 0; i < 1000; ++i) log.write("a line");
    log.write("the last line");
    const auto settings = nativeSettings();
    const auto chooser = nativeSettings();
    chooser->setValue("choice", "kept");
    std::printf("buffered");
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    endProcess(3, log, *settings);
  };
  EXPECT_EXIT(end(), testing::ExitedWithCode(3),
              testing::AllOf(testing::HasSubstr("buffered"),
                             testing::Not(testing::HasSubstr("exit handlers"))));
  EXPECT_THAT(contentOf(dir / "driver.log"), testing::EndsWith(" the last line\n"));
  EXPECT_THAT(contentOf(dir / "config/verdo-driver/settings.ini"),
              testing::HasSubstr("choice=kept"));
}

TEST(RestartProcess, LosesWhatWasSaidOrLeavesNothingRunning) {
  const TempDir dir;
  const ScopedEnv config("XDG_CONFIG_HOME", dir / "config");
  const auto restart = [&](const std::string& program) {
    FileLog log(dir.path());
    log.write("the last line");
    ::signal(SIGPIPE, SIG_IGN);
    ::dup2(STDERR_FILENO, 77);
    const auto settings = nativeSettings();
    settings->setValue("choice", "kept");
    restartProcess(program, log, *settings);
  };
  // "yes" ends by the signal once nobody reads it.
  const auto program = dir.write("program", R"(#!/bin/sh
[ -e /proc/$$/fd/77 ] && echo leaks >&2
{ yes; echo $? >&2; } | head -c1 >&2
echo "with $1" >&2
exit 4)",
                                 std::filesystem::perms(0700));
  EXPECT_EXIT(restart(program), testing::ExitedWithCode(4),
              testing::AllOf(testing::HasSubstr("with --show"), testing::HasSubstr("141"),
                             testing::Not(testing::HasSubstr("leaks"))));
  EXPECT_THAT(contentOf(dir / "driver.log"), testing::EndsWith(" the last line\n"));
  EXPECT_THAT(contentOf(dir / "config/verdo-driver/settings.ini"),
              testing::HasSubstr("choice=kept"));
  EXPECT_EXIT(restart(dir / "none"), testing::ExitedWithCode(1), "");
}

}  // namespace verdo::test
