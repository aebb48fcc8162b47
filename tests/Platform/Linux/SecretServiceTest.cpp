#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Platform/Linux/SecretServiceStore.h"
#include "VerdoDriver/Platform/Linux/SecretStoreChoice.h"
#include "tests/Platform/Linux/PrivateBus.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/ErrorOf.h"
#include "tests/Support/ScopedEnv.h"

#include <QDBusObjectPath>
#include <QTimer>

#include <signal.h>

namespace verdo::test {

namespace fs = std::filesystem;
using Kind = SecretError::Kind;
using std::chrono::milliseconds;
constexpr auto kToken = SecretAccount::driverToken;
constexpr auto kKey = SecretAccount::llmKey;
constexpr const char* kSecrets = "org.freedesktop.secrets";

/// A real keyring daemon with a keyring of its own.
class Keyring : public testing::Test {
 protected:
  void start(bool unlocked) {
    daemon_.reset();
    ASSERT_TRUE(bus_.waitForName(kSecrets, false));
    daemon_ = bus_.start({"/usr/bin/gnome-keyring-daemon", "--foreground", "--components=secrets",
                          unlocked ? "--unlock" : "--foreground"},
                         "\n");
    ASSERT_TRUE(bus_.waitForName(kSecrets));
    ASSERT_TRUE(eventually([&] { return !unlocked || store_.read(kToken).has_value(); }));
  }
  void TearDown() override {
    for (const auto& line : log_.lines()) EXPECT_EQ(line.find("secret-"), line.npos) << line;
  }
  void expectFailure(Kind kind) {
    EXPECT_EQ(errorOf(store_.write("secret-new", kToken)).kind, kind);
    for (const auto account : {kToken, kKey}) {
      EXPECT_EQ(errorOf(store_.read(account)).kind, kind);
      EXPECT_EQ(errorOf(store_.remove(account)).kind, kind);
    }
  }

  PrivateBus bus_;
  const ScopedEnv session_{"DBUS_SESSION_BUS_ADDRESS", bus_.address()};
  AppLogCapture log_;
  std::unique_ptr<ChildProcess> daemon_;
  SecretServiceStore store_{"test.verdo"};
};

TEST_F(Keyring, LosesSecretsOrLooksEmptyWhenItIsLockedOrAbsent) {
  expectFailure(Kind::unavailable);
  start(true);
  for (const std::string value : {"secret-Grüße", "", "secret-1234"}) {
    EXPECT_TRUE(store_.write(value, kToken));
    EXPECT_EQ(store_.read(kToken).value(), value);
    EXPECT_EQ(store_.read(kKey).value(), std::nullopt);
  }
  EXPECT_TRUE(log_.has("verdo.keychain [SecretServiceStore] stored driver-token (····1234)"));
  const QList all{QDBusObjectPath("/org/freedesktop/secrets/aliases/default")};
  bus_.call(kSecrets, "/org/freedesktop/secrets", "org.freedesktop.Secret.Service", "Lock",
            {QVariant::fromValue(all)});
  expectFailure(Kind::locked);
  start(false);
  expectFailure(Kind::locked);
  EXPECT_TRUE(log_.has("verdo.keychain [SecretServiceStore] read driver-token failed: 2"));
  start(true);
  EXPECT_EQ(store_.read(kToken).value(), "secret-1234");
  EXPECT_TRUE(store_.remove(kToken));
  EXPECT_TRUE(store_.remove(kToken));
  EXPECT_EQ(store_.read(kToken).value(), std::nullopt) << "it was replaced by adding";
  EXPECT_TRUE(log_.lines().back().ends_with("[SecretServiceStore] removed driver-token"));
}

TEST_F(Keyring, HungServiceStopsTheAppOrLeaks) {
  start(true);
  ASSERT_TRUE(store_.write("secret-1234", kToken));
  const auto descriptors = openDescriptors().size();
  EXPECT_EQ(store_.read(kToken).value(), "secret-1234");
  ASSERT_TRUE(daemon_->signalGroup(SIGSTOP));
  int ticks = 0;
  QTimer timer;
  timer.callOnTimeout([&] { ++ticks; });
  timer.start(10);
  // The first call ends by its time limit, the second because the bus goes away.
  for (const auto limit : {milliseconds(400), milliseconds(60'000)}) {
    std::optional<SecretStore::Result<std::optional<std::string>>> answer;
    ticks = 0;
    runInBackground(
        "keyring", [limit] { return SecretServiceStore("test.verdo", {limit}).read(kToken); },
        [&answer](auto result) { answer = std::move(result); });
    ASSERT_TRUE(spinUntil([&] { return ticks >= 20; }));
    if (limit > milliseconds(400)) bus_.daemon->signalGroup(SIGKILL);
    ASSERT_TRUE(spinUntil([&] { return answer.has_value(); }));
    EXPECT_EQ(errorOf(*answer).kind, Kind::unavailable);
  }
  EXPECT_TRUE(eventually([&] { return openDescriptors().size() <= descriptors; }));
}

TEST_F(Keyring, IsLostWithTheBusForGood) {
  start(true);
  ASSERT_TRUE(store_.write("secret-1234", kToken));
  for (const bool isNoticed : {true, false}) {
    bus_.daemon->release();
    EXPECT_TRUE(!isNoticed || errorOf(store_.read(kToken)).kind == Kind::unavailable);
    fs::remove(bus_.home() + "/bus");
    bus_.startDaemon();
    bus_.connect();
    start(true);
    EXPECT_EQ(store_.read(kToken).value(), "secret-1234");
    EXPECT_TRUE(store_.write("secret-1234", kToken));
  }
}

TEST(SecretStoreChoice, PutsSecretsWhereTheyAreNotFoundAgain) {
  const PrivateBus empty, hung;
  const PrivateBus activatable("[D-BUS Service]\nName=org.freedesktop.secrets\nExec=/bin/false\n");
  ASSERT_TRUE(hung.daemon->signalGroup(SIGSTOP));
  // Where there is no bus none is started.
  const TempDir tools;
  tools.write("dbus-launch", "#!/bin/sh\n: >\"$0.started\"\nexec sleep 3\n", fs::perms(0700));
  const ScopedEnv path("PATH", tools.path() + ":/usr/bin:/bin"), display("DISPLAY", ":99"),
      runtime("XDG_RUNTIME_DIR", tools.path());
  const SecretPlace kFiles{SecretPlace::Kind::files, ""};
  const SecretPlace kKeyring{SecretPlace::Kind::secretService, "gnome-keyring-daemon"};
  // The bus, the place so far, whether it is known that nothing is stored, the place of a write.
  const std::tuple<std::optional<std::string>, std::optional<SecretPlace>, bool,
                   std::optional<SecretPlace>>
      table[] = {
          {empty.address(), {}, true, kFiles},
          {empty.address(), kKeyring, false, kFiles},
          {hung.address(), {}, false, {}},
          {activatable.address(), {}, true, kFiles},
          {activatable.address(), kFiles, true, kFiles},
          {"unix:path=" + empty.home() + "/nothing", kKeyring, false, kFiles},
          {"autolaunch:", {}, true, kFiles},
          {std::nullopt, {}, true, kFiles},
      };
  for (const auto& [address, before, absent, after] : table) {
    SCOPED_TRACE(address.value_or("none"));
    const ScopedEnv session("DBUS_SESSION_BUS_ADDRESS", address);
    const TempDir home;
    SecretStoreChoice store({"test.verdo", home / "s", {milliseconds(300)}, before});
    EXPECT_EQ(store.state(kToken), absent ? SecretState::absent : SecretState::unavailable);
    EXPECT_EQ(store.place(), before);
    EXPECT_EQ(store.write("s", kToken).has_value(), after.has_value());
    EXPECT_EQ(store.place(), after);
    EXPECT_EQ(store.state(kToken), after ? SecretState::found : SecretState::unavailable);
    if (after != kFiles) continue;
    // When nothing is stored any more, no trace of it is left, and the next place is told again.
    static_cast<void>(store.remove(kToken));
    store.forgetPlace();
    EXPECT_TRUE(store.place() == std::nullopt && !fs::exists(home / "s"));
  }
  EXPECT_FALSE(fs::exists(tools / "dbus-launch.started"));
}

}  // namespace verdo::test
