#include "VerdoDriver/Platform/Linux/GioPathMonitor.h"
#include "VerdoDriverCore/Process/UniqueFd.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/MainLoop.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <net/route.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace verdo::test {
namespace {

/// The calling thread and those that it starts are in an empty network of their own.
class OwnNetwork {
 public:
  OwnNetwork() : isMade_(::unshare(CLONE_NEWNET) == 0) {}
  ~OwnNetwork() { EXPECT_TRUE(!isMade_ || ::setns(before_.get(), CLONE_NEWNET) == 0); }
  bool isMade() const { return isMade_; }

 private:
  const UniqueFd before_{::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)};
  const bool isMade_;
};

void changeDefaultRoute(int socket, unsigned long request) {
  char loopback[] = "lo";
  struct rtentry route{};
  route.rt_dst.sa_family = route.rt_genmask.sa_family = AF_INET;
  route.rt_flags = RTF_UP;
  route.rt_dev = loopback;
  ASSERT_EQ(::ioctl(socket, request, &route), 0) << std::strerror(errno);
}

TEST(PathMonitor, MissesTheNetworkGoingOrComing) {
  const OwnNetwork network;
  if (!network.isMade()) GTEST_SKIP() << "no network namespace: " << std::strerror(errno);
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  struct ifreq loopback{};
  std::strcpy(loopback.ifr_name, "lo");
  loopback.ifr_flags = IFF_UP | IFF_RUNNING;
  ASSERT_EQ(::ioctl(socket.get(), SIOCSIFFLAGS, &loopback), 0) << std::strerror(errno);

  auto monitor = std::make_unique<GioPathMonitor>();
  std::optional<bool> latest;
  QObject::connect(monitor.get(), &PathMonitor::reported,
                   [&](bool satisfied) { latest = satisfied; });
  monitor->start();
  EXPECT_TRUE(spinUntil([&] { return latest == false; }));
  for (int round = 0; round < 2; ++round) {
    changeDefaultRoute(socket.get(), SIOCADDRT);
    EXPECT_TRUE(spinUntil([&] { return latest == true; }));
    changeDefaultRoute(socket.get(), SIOCDELRT);
    EXPECT_TRUE(spinUntil([&] { return latest == false; }));
  }
  changeDefaultRoute(socket.get(), SIOCADDRT);
  monitor.reset();
  EXPECT_THAT(threadNames(), testing::Not(testing::Contains("verdo-routes")));
  spin();
  EXPECT_EQ(latest, false) << "reported after its end";
}

}  // namespace
}  // namespace verdo::test
