#include "VerdoDriver/Platform/macOS/NetworkPathMonitor.h"
#include "VerdoDriver/Platform/macOS/WorkspaceWakeMonitor.h"
#include "tests/Platform/macOS/FakeSystem.h"
#include "tests/Support/MainLoop.h"

#include <QThread>
#include <optional>

namespace verdo::test {
namespace {

class SystemEventsTest : public FakeSystem {};

TEST_F(SystemEventsTest, AWakingIsMissedOrToldToNobody) {
  int wakings = 0;
  {
    WorkspaceWakeMonitor monitor;
    QObject::connect(&monitor, &WakeMonitor::woke, [&] { ++wakings; });
    fake::wakeUp();
    fake::wakeUp();
    EXPECT_EQ(wakings, 2);
  }
  EXPECT_EQ(fake::observers(), 0);
  fake::wakeUp();
  EXPECT_EQ(wakings, 2);
}

TEST_F(SystemEventsTest, APathIsReportedOnAnotherThreadOrToNobody) {
  std::string reports;
  const auto* const mainThread = QThread::currentThread();
  auto monitor = std::make_optional<NetworkPathMonitor>();
  QObject::connect(&*monitor, &PathMonitor::reported, [&](bool satisfied) {
    EXPECT_EQ(QThread::currentThread(), mainThread);
    reports += satisfied ? '+' : '-';
  });
  fake::reportPath(nw_path_status_satisfied);
  spin();
  EXPECT_EQ(reports, "") << "before the start";
  monitor->start();
  monitor->start();
  for (const auto status :
       {nw_path_status_satisfied, nw_path_status_satisfied, nw_path_status_unsatisfied,
        nw_path_status_satisfiable, nw_path_status_invalid, nw_path_status_satisfied}) {
    fake::reportPath(status);
  }
  EXPECT_EQ(reports, "") << "inside the system's call";
  spin();
  EXPECT_EQ(reports, "++---+");
  fake::reportPath(nw_path_status_satisfied);
  monitor.emplace();  // another one, at the same place
  QObject::connect(&*monitor, &PathMonitor::reported, [&] { reports += '!'; });
  fake::reportPath(nw_path_status_satisfied);
  spin();
  EXPECT_EQ(reports, "++---+") << "when it is gone";
  EXPECT_THAT(fake::calls(), testing::ElementsAre("dispatch_queue_create verdo.pathmonitor"));
}

}  // namespace
}  // namespace verdo::test
