#include "VerdoDriverCore/Network/Poller.h"

#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;

class PollerTest : public testing::Test {
 protected:
  PollerTest() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    ours = UniqueFd(ends[0]);
    theirs = UniqueFd(ends[1]);
  }
  /// Which of our end is ready, within a second where something is expected.
  std::string ready(bool isExpected = true) {
    std::string found;
    for (const auto& it : poller.wait(isExpected ? 1000ms : 0ms)) {
      EXPECT_EQ(it.fd, ours.get());
      if (it.readable) found += 'r';
      if (it.writable) found += 'w';
    }
    return found;
  }
  void say() { EXPECT_EQ(::write(theirs.get(), "x", 1), 1); }

  UniqueFd ours;
  UniqueFd theirs;
  Poller poller;
};

}  // namespace

TEST_F(PollerTest, TellsOfWhatNobodyWatchesOrMissesWhatSomebodyDoes) {
  say();
  EXPECT_EQ(ready(false), "") << "not watched yet";
  poller.watch(ours.get(), true, false);
  EXPECT_EQ(ready(), "r");
  EXPECT_EQ(ready(), "r") << "as long as it is not read";
  poller.watch(ours.get(), true, true);
  EXPECT_THAT(ready(), testing::AnyOf("rw", "wr"));
  poller.watch(ours.get(), false, true);
  EXPECT_EQ(ready(), "w");
  poller.watch(ours.get(), false, false);
  EXPECT_EQ(ready(false), "");
  poller.watch(ours.get(), false, false);  // twice
  poller.watch(ours.get(), true, false);
  EXPECT_EQ(ready(), "r") << "anew";
}

TEST_F(PollerTest, MissesThatTheOtherEndIsGone) {
  poller.watch(ours.get(), true, false);
  EXPECT_EQ(ready(false), "");
  theirs.reset();
  EXPECT_EQ(ready(), "r");
  poller.watch(ours.get(), false, true);
  EXPECT_EQ(ready().substr(0, 1), "r") << "also by one who writes";
}

TEST_F(PollerTest, ConfusesADescriptorWithTheClosedOneOfItsNumber) {
  poller.watch(ours.get(), true, true);
  poller.watch(ours.get(), false, false);
  const int number = ours.get();
  ours.reset();
  ours = UniqueFd(::fcntl(theirs.get(), F_DUPFD_CLOEXEC, number));
  ASSERT_EQ(ours.get(), number);
  EXPECT_EQ(ready(false), "");
  poller.watch(number, false, true);
  EXPECT_NE(ready(), "");
}

TEST_F(PollerTest, SleepsThroughAWakeUpOrNeverSleepsAgain) {
  poller.wakeUp();
  poller.wakeUp();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(poller.wait(20s).empty()) << "called before the wait";
  std::thread caller([&] { poller.wakeUp(); });
  EXPECT_TRUE(poller.wait(20s).empty()) << "called meanwhile";
  caller.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  const auto quiet = std::chrono::steady_clock::now();
  EXPECT_TRUE(poller.wait(50ms).empty());
  EXPECT_GE(std::chrono::steady_clock::now() - quiet, 50ms) << "it spins";
}

}  // namespace verdo::test
