#include "VerdoDriverCore/Process/GroupRecord.h"
#include "tests/Support/Children.h"
#include "tests/Support/TempDir.h"

#include <filesystem>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace verdo {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

/// A process group as a crashed driver leaves it.
class LeftGroup {
 public:
  explicit LeftGroup(const Lines& role)
      : child_(launchRole(role)), output_(child_->takeStdout()), id(child_->pid()) {
    EXPECT_TRUE(output_.start().waitFor("ready"));
    start = ProcessList::startOf(id).value_or(0);
  }
  /// Of a leader that has ended, somebody else has learnt it.
  void forgetLeader() const { ::waitpid(id, nullptr, 0); }
  std::string line() const { return fmt::format("{} {} .\n", id, start); }
  bool lives() const { return !ProcessList::inGroup(id).empty(); }
  bool isGone() const {
    return eventually([this] { return !lives(); });
  }

 private:
  std::unique_ptr<ChildProcess> child_;
  CollectedLines output_;

 public:
  const pid_t id;
  ProcessList::Time start = 0;
};

std::string head(ProcessList::Time lastSign) {
  return fmt::format("{} {}\n", ProcessList::scope(), lastSign);
}

TEST(GroupRecord, LeavesProcessesOfACrashedDriver) {
  const TempDir cache;
  const LeftGroup deaf({"deaf"});
  const LeftGroup leaderless({"leave", "sleep", "60"});
  leaderless.forgetLeader();
  const std::string damaged = "\n-1 5 .\n1 1 .\n0 0 .\n7 x\n";
  cache.write("groups-a", head(ProcessList::now()) + deaf.line() + damaged);
  cache.write("groups-b", head(ProcessList::now()) + leaderless.line());
  cache.write("groups-c", "");
  std::filesystem::resize_file(cache.write("groups-d", ""), std::uintmax_t{1} << 40);
  EXPECT_THAT(GroupRecord::endAbandoned(cache.path()),
              testing::UnorderedElementsAre(deaf.id, leaderless.id));
  EXPECT_TRUE(deaf.isGone());
  EXPECT_TRUE(leaderless.isGone());
  EXPECT_TRUE(std::filesystem::is_empty(cache.path()));
}

TEST(GroupRecord, EndsProcessesOfOthers) {
  const TempDir cache;
  const LeftGroup other({"sleep", "60"});
  const LeftGroup leaderless({"leave", "sleep", "60"});
  leaderless.forgetLeader();
  const auto now = ProcessList::now();
  const std::pair<const char*, std::string> records[] = {
      {"a number that was given away",
       head(now) + fmt::format("{} {} .\n", other.id, other.start - 1)},
      {"another start of the system", "boot/pid:[1] " + std::to_string(now) + "\n" + other.line()},
      {"younger than the crash", head(leaderless.start - 1) + leaderless.line()},
      {"older than the job", head(now) + fmt::format("{} {} .\n", leaderless.id, now + 1)},
      {"damaged", other.line()},
      {"cut short", head(now) + fmt::format("{} {}", other.id, other.start)},
      {"cut short in the middle of an older line",
       head(now) + fmt::format("{} {} 7 .\n", other.id, other.start)},
      {"of an earlier, longer record", head(now) + "end" + other.line()}};
  for (const auto& [name, record] : records) {
    cache.write("groups-a", record);
    EXPECT_THAT(GroupRecord::endAbandoned(cache.path()), IsEmpty()) << name;
    EXPECT_TRUE(other.lives() && leaderless.lives()) << name;
  }
}

TEST(GroupRecord, HangsOnOrObeysWhatIsNoRecord) {
  const TempDir cache;
  const LeftGroup group({"sleep", "60"});
  const std::string record = head(ProcessList::now()) + group.line();
  std::filesystem::create_directory(cache / "groups-directory");
  ASSERT_EQ(::mkfifo((cache / "groups-pipe").c_str(), 0600), 0);
  std::filesystem::create_symlink(cache.write("elsewhere", record), cache / "groups-link");
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(cache.write("groups-of-another", record).c_str(), 1, 1), 0);
  }
  EXPECT_THAT(GroupRecord::endAbandoned(cache.path()), IsEmpty());
  EXPECT_TRUE(group.lives());
}

TEST(GroupRecord, LosesTheGroupsWhenTheCacheIsClearedOrShowsThem) {
  const TempDir home;
  const auto cache = home / "cache";
  const LeftGroup group({"sleep", "60"});
  GroupRecord record(cache);
  for (const char* pass : {"a first record", "one that was removed"}) {
    std::filesystem::remove_all(cache);
    const mode_t before = ::umask(0);
    record.add(group.id);
    ::umask(before);
    ASSERT_TRUE(std::filesystem::exists(cache)) << pass;
    EXPECT_EQ(std::filesystem::status(cache).permissions(), std::filesystem::perms::owner_all);
    EXPECT_FALSE(std::filesystem::is_empty(cache)) << pass;
  }
}

TEST(GroupRecord, EndsJobsOfALivingDriverOrLosesThemFromTheRecord) {
  const TempDir cache;
  const LeftGroup first({"sleep", "60"});
  const LeftGroup second({"sleep", "60"});
  const LeftGroup third({"sleep", "60"});
  {
    GroupRecord record(cache.path());
    for (const auto* group : {&first, &second, &third}) record.add(group->id);
    record.remove(second.id);
    EXPECT_THAT(GroupRecord::endAbandoned(cache.path()), IsEmpty());
    EXPECT_TRUE(first.lives());
    const auto path = std::filesystem::directory_iterator(cache.path())->path();
    std::filesystem::copy_file(path, cache / "groups-copy");
    for (const auto* group : {&first, &third}) record.remove(group->id);
    EXPECT_FALSE(std::filesystem::exists(path)) << "a process may end without destructors";
  }
  EXPECT_THAT(GroupRecord::endAbandoned(cache.path()),
              testing::UnorderedElementsAre(first.id, third.id));
  EXPECT_TRUE(second.lives());
  EXPECT_TRUE(std::filesystem::is_empty(cache.path()));
}

}  // namespace
}  // namespace verdo
