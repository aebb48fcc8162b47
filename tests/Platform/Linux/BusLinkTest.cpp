#include "VerdoDriver/Platform/Linux/BusLink.h"
#include "tests/Platform/Linux/PrivateBus.h"
#include "tests/Support/ScopedEnv.h"

#include <optional>

#include <gtest/gtest.h>
#include <signal.h>

namespace verdo::test {

using namespace std::chrono_literals;

constexpr const char* kBus = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

/// The answer to a question that every bus can answer.
struct Question {
  explicit Question(BusLink& link) {
    link.call({.service = kBus,
               .path = kBusPath,
               .interface = kBus,
               .method = "GetId",
               .replyType = "(s)"},
              [answer = answer](BusResult result) { *answer = result ? "ok" : result.error(); });
  }
  bool waitFor(const std::string& text) const {
    return spinUntil([&] { return !answer->empty(); }) && answer->find(text) != std::string::npos;
  }
  const std::shared_ptr<std::string> answer = std::make_shared<std::string>();
};

TEST(BusLink, FreezesTheMainThreadWhenTheBusHangs) {
  const PrivateBus bus;
  BusLink connected(bus.address(), {.callTimeout = 500ms});
  EXPECT_TRUE(Question(connected).waitFor("ok"));
  auto patient = std::make_unique<BusLink>(bus.address());
  EXPECT_TRUE(Question(*patient).waitFor("ok"));
  ASSERT_EQ(::kill(bus.daemon->pid(), SIGSTOP), 0);
  const auto start = std::chrono::steady_clock::now();
  {
    BusLink link(bus.address(), {.connectTimeout = 100ms});
    const Question first(link);
    const Question second(connected);
    EXPECT_TRUE(first.waitFor("does not answer"));
    EXPECT_TRUE(second.waitFor("Timeout"));
    // These are let go of while they wait.
    BusLink connecting(bus.address());
    const Question third(connecting);
    const Question fourth(*patient);
    patient.reset();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  ::kill(bus.daemon->pid(), SIGCONT);
  EXPECT_TRUE(Question(connected).waitFor("ok"));
}

TEST(BusLink, StaysDeafAfterTheBusWasRestarted) {
  PrivateBus bus;
  BusLink link(bus.address(), {.reconnectDelay = 10ms});
  int heard = 0;
  link.subscribe(kBus, kBusPath, kBus, "NameOwnerChanged", [&](GVariant*) { ++heard; });
  const auto hears = [&] {
    heard = 0;
    return spinUntil([&] {
      const auto name = QString("somebody@%1").arg(bus.home().c_str());
      QDBusConnection::connectToBus(bus.address().c_str(), name);
      QDBusConnection::disconnectFromBus(name);
      return heard > 0;
    });
  };
  EXPECT_TRUE(hears());
  bus.daemon->release();
  EXPECT_TRUE(spinUntil([&] { return !Question(link).waitFor("ok"); }));
  std::filesystem::remove(bus.home() + "/bus");
  bus.startDaemon();
  EXPECT_TRUE(hears());
  EXPECT_TRUE(Question(link).waitFor("ok"));
}

TEST(BusLink, StartsABusWhereThereIsNone) {
  const PrivateBus bus;
  const std::string path = "unix:path=" + bus.home();
  const std::tuple<std::optional<std::string>, std::optional<std::string>, std::string> table[] = {
      {"unix:path=/x", bus.home(), "unix:path=/x"},
      {std::nullopt, bus.home(), path + "/bus"},
      {"", bus.home(), path + "/bus"},
      {"autolaunch:", bus.home(), ""},
      {std::nullopt, "/nowhere", ""},
  };
  for (const auto& [address, directory, expected] : table) {
    const ScopedEnv one("DBUS_SESSION_BUS_ADDRESS", address);
    const ScopedEnv two("XDG_RUNTIME_DIR", directory);
    EXPECT_EQ(BusLink::sessionAddress(), expected) << address.value_or("-");
  }
}

}  // namespace verdo::test
