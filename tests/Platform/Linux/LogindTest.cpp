#include "VerdoDriver/Platform/Linux/LogindInhibitor.h"
#include "VerdoDriver/Platform/Linux/LogindWakeMonitor.h"
#include "tests/Platform/Linux/PrivateBus.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/Leaks.h"

#include <QDBusArgument>
#include <QDBusVariant>

#include <gtest/gtest.h>

namespace verdo::test {
namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";

class Logind : public testing::Test {
 protected:
  void startLogind() {
    mock_ = bus_.start({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"});
    ASSERT_TRUE(bus_.waitForName(kLogind));
  }
  /// The locks that logind knows of.
  std::vector<std::string> locks() {
    const auto reply = bus_.call(kLogind, kPath, kManager, "ListInhibitors");
    const auto list = reply.arguments().value(0).value<QDBusArgument>();
    std::vector<std::string> found;
    for (list.beginArray(); !list.atEnd();) {
      QString what, who, why, mode;
      uint user = 0, process = 0;
      list.beginStructure();
      list >> what >> who >> why >> mode >> user >> process;
      list.endStructure();
      found.push_back((what + "|" + who + "|" + why + "|" + mode).toStdString());
    }
    return found;
  }
  bool waitForLocks(const std::vector<std::string>& expected) {
    return spinUntil([&] { return locks() == expected; });
  }
  std::ptrdiff_t logged(const std::string& text) {
    const auto lines = log_.lines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.find(text) != line.npos; });
  }

  PrivateBus bus_;
  std::unique_ptr<ChildProcess> mock_;
  AppLogCapture log_;
  LogindInhibitor inhibitor_{bus_.connection()};
};

TEST_F(Logind, LockIsNotHeldOrNotReleased) {
  startLogind();
  const auto descriptors = openDescriptors().size();
  for (int round = 0; round < 2; ++round) {
    inhibitor_.hold("Verdo Driver is running");
    inhibitor_.hold("another reason");
    EXPECT_TRUE(inhibitor_.isHeld());
    ASSERT_TRUE(waitForLocks({"idle:sleep|Verdo Driver|Verdo Driver is running|block"}));
    ASSERT_TRUE(spinUntil([&] { return logged("held (Verdo Driver is running)") == round + 1; }));
    inhibitor_.release();
    inhibitor_.release();
    EXPECT_FALSE(inhibitor_.isHeld());
    ASSERT_TRUE(waitForLocks({}));
  }
  EXPECT_EQ(logged("[KeepAwake] assertion released"), 2);
  EXPECT_TRUE(eventually([&] { return openDescriptors().size() <= descriptors; }));
}

TEST_F(Logind, AnswerThatComesLateIsMistakenForTheLatest) {
  startLogind();
  const auto descriptors = openDescriptors().size();
  inhibitor_.hold("first");
  inhibitor_.release();
  inhibitor_.hold("second");
  EXPECT_TRUE(waitForLocks({"idle:sleep|Verdo Driver|second|block"}));
  EXPECT_TRUE(inhibitor_.isHeld());
  inhibitor_.release();
  inhibitor_.hold("third");
  inhibitor_.release();
  EXPECT_TRUE(waitForLocks({}));
  EXPECT_FALSE(inhibitor_.isHeld());
  EXPECT_EQ(logged("held ("), 1);
  EXPECT_TRUE(eventually([&] { return openDescriptors().size() <= descriptors; }));
}

TEST_F(Logind, AbsenceIsToldAgainAndAgainOrForEver) {
  for (int round = 0; round < 3; ++round) {
    inhibitor_.hold("Verdo Driver is running");
    ASSERT_TRUE(spinUntil([&] { return !inhibitor_.isHeld(); }));
    inhibitor_.release();
  }
  EXPECT_EQ(logged("[KeepAwake] Inhibit failed: org.freedesktop.DBus.Error.ServiceUnknown"), 1);
  startLogind();
  inhibitor_.hold("Verdo Driver is running");
  EXPECT_TRUE(spinUntil([&] { return locks().size() == 1; }));

  LogindInhibitor busless{QDBusConnection("no such bus")};
  busless.hold("Verdo Driver is running");
  EXPECT_TRUE(spinUntil([&] { return !busless.isHeld(); }));
}

TEST_F(Logind, WakeUpIsMissedOrFallingAsleepTakenForIt) {
  LogindWakeMonitor monitor(bus_.connection());  // logind comes later
  int wakeUps = 0;
  QObject::connect(&monitor, &WakeMonitor::woke, [&] { ++wakeUps; });
  startLogind();
  const auto prepareForSleep = [this](bool isGoingToSleep) {
    // The signal comes before the answer.
    const auto reply = bus_.call(kLogind, kPath, "org.freedesktop.DBus.Mock", "EmitSignal",
                                 {kManager, "PrepareForSleep", "b", QVariantList{isGoingToSleep}});
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    spin();
  };
  prepareForSleep(true);
  EXPECT_EQ(wakeUps, 0);
  prepareForSleep(false);
  EXPECT_EQ(wakeUps, 1);
}

}  // namespace
}  // namespace verdo::test
