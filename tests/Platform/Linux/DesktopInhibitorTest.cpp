#include "VerdoDriver/Platform/Linux/DesktopInhibitor.h"
#include "tests/Platform/Linux/PrivateBus.h"
#include "tests/Support/AppLogCapture.h"

#include <QDBusVirtualObject>

#include <gmock/gmock.h>

namespace verdo::test {

constexpr const char* kBus = "org.freedesktop.DBus";
constexpr const char* kPowerPath = "/org/freedesktop/PowerManagement/Inhibit";

/// A desktop's service, on a connection of its own. Notes who inhibits and how.
class Desktop : public QDBusVirtualObject {
 public:
  Desktop(const PrivateBus& bus, const char* service, const char* path)
      : name_(QString("%1@%2").arg(service, bus.home().c_str())),
        connection_(QDBusConnection::connectToBus(bus.address().c_str(), name_)) {
    EXPECT_TRUE(connection_.registerVirtualObject(path, this));
    EXPECT_TRUE(connection_.registerService(service));
  }
  ~Desktop() override { QDBusConnection::disconnectFromBus(name_); }

  QString introspect(const QString&) const override { return {}; }
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& bus) override {
    std::string call = message.member().toStdString();
    for (const auto& value : message.arguments()) call += "|" + value.toString().toStdString();
    calls.push_back(call);
    whileAsked();
    if (refuses) return bus.send(message.createErrorReply("org.example.Refused", "no"));
    return bus.send(message.member() == "Inhibit" ? message.createReply(++cookie)
                                                  : message.createReply());
  }

  std::vector<std::string> calls;
  bool refuses = false;
  std::function<void()> whileAsked = [] {};
  uint cookie = 40;

 private:
  const QString name_;
  QDBusConnection connection_;
};

TEST(DesktopInhibitor, AsksTheWrongOneKeepsALockOrForgetsToAskAgain) {
  using testing::ElementsAre;
  const PrivateBus bus;
  const AppLogCapture log;
  const auto link = std::make_shared<BusLink>(bus.address());
  DesktopInhibitor inhibitor(link);
  inhibitor.hold("too early");
  ASSERT_TRUE(spinUntil([&] { return !inhibitor.isHeld(); }));

  auto power = std::make_unique<Desktop>(bus, "org.freedesktop.PowerManagement", kPowerPath);
  Desktop session(bus, "org.gnome.SessionManager", "/org/gnome/SessionManager");
  const Desktop saver(bus, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver");
  power->refuses = true;
  inhibitor.hold("work");
  EXPECT_TRUE(inhibitor.isHeld());
  ASSERT_TRUE(spinUntil([&] { return session.calls.size() == 1; }));
  inhibitor.release();
  EXPECT_FALSE(inhibitor.isHeld());
  ASSERT_TRUE(spinUntil([&] { return session.calls.size() == 2; }));
  EXPECT_THAT(session.calls, ElementsAre("Inhibit|verdo-driver|0|work|8", "Uninhibit|41"));
  EXPECT_THAT(power->calls, ElementsAre("Inhibit|Verdo Driver|work"));
  session.calls.clear();
  power->calls.clear();

  // An agreement that comes too late is taken back; one that holds is not asked for again.
  power->refuses = false;
  power->whileAsked = [&] { inhibitor.release(); };
  inhibitor.hold("first");
  ASSERT_TRUE(spinUntil([&] { return power->calls.size() == 2; }));
  power->whileAsked = [] {};
  inhibitor.hold("second");
  ASSERT_TRUE(spinUntil([&] { return log.has("PowerManagement keeps awake (second)"); }));
  for (int i = 0; i < 3; ++i) {
    inhibitor.hold("third");
    bool isAnswered = false;  // answers come in order
    link->call({.service = kBus, .path = "/", .interface = kBus, .method = "GetId"},
               [&](const BusResult&) { isAnswered = true; });
    ASSERT_TRUE(spinUntil([&] { return isAnswered; }));
  }
  inhibitor.release();
  ASSERT_TRUE(spinUntil([&] { return power->calls.size() == 4; }));
  EXPECT_THAT(power->calls, ElementsAre("Inhibit|Verdo Driver|first", "UnInhibit|41",
                                        "Inhibit|Verdo Driver|second", "UnInhibit|42"));
  inhibitor.hold("fourth");
  ASSERT_TRUE(spinUntil([&] { return log.has("PowerManagement keeps awake (fourth)"); }));

  // The one that had agreed goes; another takes its place.
  power.reset();
  ASSERT_TRUE(spinUntil([&] {
    inhibitor.hold("fifth");
    return log.has("SessionManager keeps awake (fifth)");
  }));
  EXPECT_THAT(session.calls, ElementsAre("Inhibit|verdo-driver|0|fifth|8"));
  EXPECT_TRUE(saver.calls.empty());
}

}  // namespace verdo::test
