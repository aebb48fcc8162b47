#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Run/JobTraces.h"
#include "VerdoDriverCore/Run/SpaceClaim.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/TempDir.h"

#include <future>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <unistd.h>

namespace verdo::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class JobTracesTest : public testing::Test {
 protected:
  JobTracesTest() {
    for (const auto& directory : {cache + "/browser", runtime + "/verdo-browser"}) {
      fs::create_directories(directory + "/profile-1/Default");
    }
    fs::create_directories(state + "/verdo-browser/window-1");
    fs::create_directories(cache + "/verdo-left");
    home.write("cache/.lock", "");
  }
  std::vector<std::string> remove(const std::string& browser = "") const {
    return JobTraces({.cache = cache, .runtimeDir = runtime, .stateDir = state, .browser = browser})
        .remove();
  }

  const TempDir home;
  const std::string cache = home / "cache";
  const std::string runtime = home / "run";
  const std::string state = home / "state";
  const std::string profile = runtime + "/verdo-browser/profile-1";
};

TEST_F(JobTracesTest, TakesAwayWhatAnotherDriverUsesOrHidesThatItStays) {
  {
    SpaceClaim claim(cache, "https://verdo.example", 1, [](const auto&) {});
    ASSERT_TRUE(claim.take());
    const StagingDirectory job(cache);
    EXPECT_THAT(remove(), ElementsAre("the browser's task spaces (another driver, process " +
                                          std::to_string(::getpid()) + ", uses them)",
                                      HasSubstr("files of jobs (in use")));
    EXPECT_TRUE(fs::exists(profile) && fs::exists(job.path()));
    EXPECT_FALSE(fs::exists(cache + "/verdo-left"));
  }
  home.write("cache/somebody's", "");
  EXPECT_THAT(remove(), IsEmpty());
  EXPECT_THAT(std::vector(fs::directory_iterator(cache), {}),
              ElementsAre(fs::directory_entry(cache + "/somebody's")));
  EXPECT_TRUE(fs::is_empty(runtime) && fs::is_empty(state));
}

TEST_F(JobTracesTest, TakesTheProfileFromUnderARunningBrowserOrLeavesItRunning) {
  const std::string lock = runtime + "/verdo-browser/keeper.lock";
  UniqueFd browser(::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(browser.get(), LOCK_EX), 0);
  EXPECT_THAT(remove(), ElementsAre(HasSubstr("verdo-browser still runs, in " + runtime)));
  EXPECT_TRUE(fs::exists(profile));

  // It ends when it is told to in its own session, a moment later.
  const auto program =
      home.write("verdo-browser", "#!/bin/sh\n[ \"$1\" = stop ] && : >\"$XDG_RUNTIME_DIR/stop\"",
                 fs::perms(0700));
  auto ending = std::async(std::launch::async, [&] {
    EXPECT_TRUE(
        eventually([&] { return fs::exists(runtime + "/stop"); }, std::chrono::seconds(20)));
    ::usleep(50'000);
    browser.reset();
  });
  EXPECT_THAT(remove(program), IsEmpty());
  ending.get();
  EXPECT_FALSE(fs::exists(profile) || fs::exists(cache));
}

}  // namespace
}  // namespace verdo::test
