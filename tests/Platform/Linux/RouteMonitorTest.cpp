#include "VerdoDriver/Platform/Linux/RouteMonitor.h"
#include "tests/Support/MainLoop.h"

#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>

namespace verdo::test {

using namespace std::chrono_literals;

TEST(RouteMonitor, MissesTheNetworkGoingOrComing) {
  // This thread, and the programs that it starts, get an empty network of their own up to the end.
  const UniqueFd before(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  if (::unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "no own network: " << std::strerror(errno);
  {
    // Without IPv6 a link that goes down takes its routes along without a message about them.
    const auto ip = [](const std::string& commands) {
      const auto batch = "printf '" + commands + "' | ip -batch -";
      EXPECT_EQ(std::system(batch.c_str()), 0) << commands;
    };
    EXPECT_EQ(std::system("echo 1 > /proc/sys/net/ipv6/conf/all/disable_ipv6"), 0);
    ip("link set lo up\nlink add one type veth peer name two\n"
       "addr add 10.0.0.1/24 dev one\naddr add 10.0.1.1/24 dev two\n"
       "link set one up\nlink set two up\nroute add default via 10.0.1.2 dev two table 77\n");

    RouteMonitor monitor;
    std::string reports;
    QObject::connect(&monitor, &PathMonitor::reported,
                     [&](bool satisfied) { reports += satisfied ? '+' : '-'; });
    monitor.start();
    ASSERT_TRUE(spinUntil([&] { return !reports.empty(); }));

    const std::pair<const char*, const char*> table[] = {
        {"route add default via 10.0.0.2 dev one", "-+"},
        {"link set one down", "-+-"},
        {"rule add table 77", "-+-+"},
        // Another way is no news while the first is used.
        {"link set one up\nroute add default via 10.0.0.2 dev one", "-+-+"},
        {"rule del table 77", "-+-++"},
        {"route del default", "-+-++-"},
        // As some private networks take everything over.
        {"route add 0.0.0.0/1 dev two\nroute add 128.0.0.0/1 dev two", "-+-++-+"},
        {"route flush dev two\nroute add unreachable default", "-+-++-+-"},
    };
    for (const auto& [commands, expected] : table) {
      const auto length = reports.size();
      ip(std::string(commands) + "\n");
      const bool isNews = length < std::strlen(expected);
      EXPECT_EQ(spinUntil([&] { return reports.size() > length; }, isNews ? 10s : 500ms), isNews)
          << commands;
      EXPECT_EQ(reports, expected) << commands;
    }
  }
  ASSERT_EQ(::setns(before.get(), CLONE_NEWNET), 0) << std::strerror(errno);
}

}  // namespace verdo::test
