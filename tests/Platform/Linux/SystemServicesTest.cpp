#include "VerdoDriver/Platform/Linux/LogindInhibitor.h"
#include "VerdoDriver/Platform/Linux/LogindWakeMonitor.h"
#include "tests/Platform/Linux/PrivateBus.h"
#include "tests/Support/AppLogCapture.h"

#include <QDBusArgument>

namespace verdo::test {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";

class Logind : public testing::Test {
 protected:
  void startLogind() {
    mock_ = bus_.start({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"});
    ASSERT_TRUE(bus_.waitForName(kLogind));
  }
  /// Waits until logind knows of one lock with this reason, or of none.
  bool waitForLock(const std::string& reason) {
    return spinUntil([&] {
      const auto list =
          bus_.call(kLogind, kPath, kManager, "ListInhibitors").value<QDBusArgument>();
      std::string found;
      for (list.beginArray(); !list.atEnd(); list.endStructure()) {
        QString what, who, why, mode;
        uint user = 0, process = 0;
        list.beginStructure();
        list >> what >> who >> why >> mode >> user >> process;
        found += (what + "|" + who + "|" + mode + "|" + why).toStdString();
      }
      list.endArray();
      return found == (reason.empty() ? "" : "idle|Verdo Driver|block|" + reason);
    });
  }
  /// Until all that was told or asked before has arrived: signals and answers come in order.
  void waitForTheBus() {
    bool isAnswered = false;
    link_->call({.service = kLogind,
                 .path = kPath,
                 .interface = "org.freedesktop.DBus.Peer",
                 .method = "Ping"},
                [&](const BusResult&) { isAnswered = true; });
    EXPECT_TRUE(spinUntil([&] { return isAnswered; }));
  }

  PrivateBus bus_;
  std::shared_ptr<BusLink> link_ = std::make_shared<BusLink>(bus_.address());
  std::unique_ptr<ChildProcess> mock_;
  AppLogCapture log_;
};

TEST_F(Logind, LockIsNotHeldOrNotReleased) {
  LogindInhibitor inhibitor(link_);
  for (int round = 0; round < 2; ++round) {
    inhibitor.hold("too early");
    ASSERT_TRUE(spinUntil([&] { return !inhibitor.isHeld(); }));
    EXPECT_EQ(log_.lines().size(), 1u) << "absence is told again and again";
  }
  startLogind();
  const auto descriptors = openDescriptors().size();
  inhibitor.hold("a reason");
  inhibitor.hold("another reason");
  EXPECT_TRUE(inhibitor.isHeld());
  ASSERT_TRUE(spinUntil([&] { return log_.has("sleep inhibitor held (a reason)"); }));
  ASSERT_TRUE(waitForLock("a reason"));
  inhibitor.release();
  EXPECT_FALSE(inhibitor.isHeld());
  EXPECT_TRUE(waitForLock(""));

  // Answers that come late are not mistaken for the latest.
  inhibitor.hold("first");
  inhibitor.release();
  inhibitor.hold("second");
  EXPECT_TRUE(waitForLock("second"));
  inhibitor.release();
  inhibitor.hold("third");
  inhibitor.release();
  waitForTheBus();
  EXPECT_TRUE(waitForLock(""));
  EXPECT_TRUE(spinUntil([&] { return openDescriptors().size() <= descriptors; }));

  LogindInhibitor busless(std::make_shared<BusLink>(""));
  busless.hold("a reason");
  EXPECT_TRUE(spinUntil([&] { return !busless.isHeld(); }));
}

TEST_F(Logind, WakeUpIsMissedOrFallingAsleepTakenForIt) {
  LogindWakeMonitor monitor(link_);  // logind comes later
  int wakeUps = 0;
  QObject::connect(&monitor, &WakeMonitor::woke, [&] { ++wakeUps; });
  startLogind();
  for (const bool isGoingToSleep : {true, false}) {
    bus_.call(kLogind, kPath, "org.freedesktop.DBus.Mock", "EmitSignal",
              {kManager, "PrepareForSleep", "b", QVariantList{isGoingToSleep}});
    waitForTheBus();
    EXPECT_EQ(wakeUps, isGoingToSleep ? 0 : 1);
  }
}

}  // namespace verdo::test
