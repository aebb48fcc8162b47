#include "FakeFrameworks/FakeFrameworks.h"
#include "VerdoDriverCore/Network/Poller.h"
#include "VerdoDriverCore/Network/SocketOptions.h"
#include "VerdoDriverCore/Process/SpawnPlatform.h"
#include "VerdoDriverCore/System/LargeBlocks.h"
#include "VerdoDriverCore/System/Pipe.h"
#include "VerdoDriverCore/System/ProcessList.h"
#include "VerdoDriverCore/System/SuspendClock.h"
#include "VerdoDriverCore/System/ThreadName.h"

#include <cerrno>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/socket.h>

namespace verdo::test {
namespace {

class MacOSCore : public testing::Test {
 protected:
  MacOSCore() { fake::reset(); }
};

TEST_F(MacOSCore, ADeadPathIsNotLookedFor) {
  detectDeadPath(3);
  const auto set = [](int level, int option, int value) {
    return "setsockopt " + std::to_string(level) + " " + std::to_string(option) + " " +
           std::to_string(value);
  };
  EXPECT_THAT(
      fake::calls(),
      testing::ElementsAre(set(SOL_SOCKET, SO_KEEPALIVE, 1), set(IPPROTO_TCP, TCP_KEEPALIVE, 10),
                           set(IPPROTO_TCP, TCP_KEEPINTVL, 2), set(IPPROTO_TCP, TCP_KEEPCNT, 3),
                           set(IPPROTO_TCP, TCP_RXT_CONNDROPTIME, 15)));
}

TEST_F(MacOSCore, TimeAsleepIsTakenForTimeAwake) {
  fake::setStatus("CLOCK_MONOTONIC_RAW", 1'000'000'007);
  fake::setStatus("CLOCK_UPTIME_RAW", 1'000'000'000);
  EXPECT_EQ(timeSuspended(), std::chrono::nanoseconds(7));
}

TEST_F(MacOSCore, ChildrenInheritDescriptors) {
  const Pipe pipe = Pipe::make();
  for (const int end : {pipe.readEnd.get(), pipe.writeEnd.get()}) {
    EXPECT_EQ(::fcntl(end, F_GETFD), FD_CLOEXEC);
  }
  posix_spawn_file_actions_t actions;
  short flags = POSIX_SPAWN_SETPGROUP;
  EXPECT_EQ(Spawn::inheritOnlyStandardDescriptors(actions, flags), 0);
  EXPECT_EQ(flags, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_CLOEXEC_DEFAULT);
}

TEST_F(MacOSCore, AThreadGoesByAnotherName) {
  std::thread([] {
    setThreadName("verdo-named");
    char name[16];
    ASSERT_EQ(::pthread_getname_np(::pthread_self(), name, sizeof name), 0);
    EXPECT_STREQ(name, "verdo-named");
  }).join();
  giveBackLargeBlocks();
}

TEST_F(MacOSCore, AProcessIsTakenForAnother) {
  fake::setProcesses({{.pid = 7, .group = 7, .isZombie = true, .startSeconds = 1},
                      {.pid = 8, .group = 7, .startSeconds = 2, .startMicroseconds = 5},
                      {.pid = 9, .group = 9, .startSeconds = 3}});
  EXPECT_EQ(ProcessList::startOf(7), 1'000'000);
  EXPECT_EQ(ProcessList::startOf(5), std::nullopt);
  const auto members = ProcessList::inGroup(7);
  ASSERT_EQ(members.size(), 1u);
  EXPECT_EQ(members[0].pid, 8);
  EXPECT_EQ(members[0].start, 2'000'005);
  EXPECT_GT(ProcessList::now(), 1'700'000'000'000'000);
  EXPECT_EQ(ProcessList::scope(), "D0D3C4CA-0000-0000-0000-000000000001");
}

TEST_F(MacOSCore, AQueueThatIsNotThereIsUsed) {
  fake::setStatus("kqueue", EMFILE);
  EXPECT_THROW(Poller(), std::system_error);
}

}  // namespace
}  // namespace verdo::test
