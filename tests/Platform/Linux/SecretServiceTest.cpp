#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Platform/Linux/SecretServiceStore.h"
#include "VerdoDriver/Platform/Linux/SecretStoreChoice.h"
#include "tests/Platform/Linux/PrivateBus.h"
#include "tests/Support/AppLogCapture.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/ScopedEnv.h"

#include <QDBusObjectPath>
#include <QDBusReply>
#include <QDBusVariant>
#include <QTimer>

#include <gtest/gtest.h>
#include <signal.h>

namespace verdo::test {
namespace {

using Kind = SecretError::Kind;
constexpr auto kToken = SecretAccount::driverToken;
constexpr const char* kSecrets = "org.freedesktop.secrets";
constexpr const char* kRoot = "/org/freedesktop/secrets";

/// A real keyring daemon with a keyring of its own.
class Keyring : public testing::Test {
 protected:
  void start(bool unlocked) {
    daemon_.reset();
    ASSERT_TRUE(bus_.waitForName(kSecrets, false));
    std::vector<std::string> argv{"/usr/bin/gnome-keyring-daemon", "--foreground",
                                  "--components=secrets"};
    if (unlocked) argv.emplace_back("--unlock");
    daemon_ = bus_.start(argv, "\n");
    ASSERT_TRUE(bus_.waitForName(kSecrets));
    if (unlocked) {
      ASSERT_TRUE(eventually([this] { return store_.read(kToken).has_value(); }));
    }
  }
  void lock() {
    const QList<QDBusObjectPath> all{QDBusObjectPath("/org/freedesktop/secrets/aliases/default")};
    const auto reply = bus_.call(kSecrets, kRoot, "org.freedesktop.Secret.Service", "Lock",
                                 {QVariant::fromValue(all)});
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
  }
  void TearDown() override {
    for (const auto& line : log_.lines()) EXPECT_EQ(line.find("secret-"), line.npos) << line;
  }
  Kind failureOfRead() {
    const auto secret = store_.read(kToken);
    EXPECT_FALSE(secret) << secret->value_or("absent");
    return secret ? Kind::failed : secret.error().kind;
  }

  PrivateBus bus_;
  const ScopedEnv session_{"DBUS_SESSION_BUS_ADDRESS", bus_.address()};
  AppLogCapture log_;
  std::unique_ptr<ChildProcess> daemon_;
  SecretServiceStore store_{"test.verdo"};
};

TEST_F(Keyring, KeepsSomethingElse) {
  start(true);
  const auto descriptors = openDescriptors().size();
  EXPECT_EQ(store_.read(kToken).value(), std::nullopt);
  for (const std::string value : {"secret-1234", "secret-Grüße", ""}) {
    EXPECT_TRUE(store_.write(value, kToken));
    EXPECT_EQ(store_.read(kToken).value(), value);
    EXPECT_EQ(store_.read(SecretAccount::llmKey).value(), std::nullopt);
  }
  EXPECT_TRUE(log_.has("verdo.keychain [SecretServiceStore] stored driver-token (····1234)"));
  EXPECT_TRUE(log_.has("stored driver-token ((none))"));

  // As any other program sees it: one item, with a label.
  const QDBusReply<QVariant> items = bus_.call(
      kSecrets, "/org/freedesktop/secrets/collection/login", "org.freedesktop.DBus.Properties",
      "Get", {"org.freedesktop.Secret.Collection", "Items"});
  const auto paths = qdbus_cast<QList<QDBusObjectPath>>(items.value());
  ASSERT_EQ(paths.size(), 1);
  const QDBusReply<QVariant> label =
      bus_.call(kSecrets, paths[0].path().toUtf8(), "org.freedesktop.DBus.Properties", "Get",
                {"org.freedesktop.Secret.Item", "Label"});
  EXPECT_EQ(label.value().toString().toStdString(), "Verdo Driver driver-token");

  EXPECT_TRUE(store_.remove(kToken));
  EXPECT_TRUE(store_.remove(kToken));
  EXPECT_EQ(store_.read(kToken).value(), std::nullopt);
  const auto lines = log_.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "verdo.keychain [SecretServiceStore] removed driver-token"),
            1);
  EXPECT_TRUE(eventually([&] { return openDescriptors().size() <= descriptors; }));
}

TEST_F(Keyring, LockedLooksEmpty) {
  start(true);
  ASSERT_TRUE(store_.write("secret-1234", kToken));
  const auto expectLocked = [this] {
    EXPECT_EQ(failureOfRead(), Kind::locked);
    EXPECT_EQ(store_.read(SecretAccount::llmKey).error().kind, Kind::locked);
    EXPECT_EQ(store_.write("secret-new", kToken).error().kind, Kind::locked);
    EXPECT_EQ(store_.remove(kToken).error().kind, Kind::locked);
    EXPECT_EQ(store_.remove(SecretAccount::llmKey).error().description,
              "The keyring is locked — unlock it and try again.");
  };
  lock();
  expectLocked();
  start(false);
  expectLocked();
  EXPECT_TRUE(log_.has("verdo.keychain [SecretServiceStore] write driver-token failed: 2"));
  start(true);
  EXPECT_EQ(store_.read(kToken).value(), "secret-1234");
}

TEST_F(Keyring, AbsentServiceLooksEmpty) {
  EXPECT_EQ(failureOfRead(), Kind::unavailable);
  EXPECT_EQ(store_.write("secret-1234", kToken).error().kind, Kind::unavailable);
  const ScopedEnv nowhere("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + bus_.home() + "/nothing");
  EXPECT_EQ(failureOfRead(), Kind::unavailable);
}

TEST_F(Keyring, HungServiceStopsTheAppOrLooksEmpty) {
  using std::chrono::milliseconds;
  start(true);
  ASSERT_TRUE(store_.write("secret-1234", kToken));
  ASSERT_TRUE(daemon_->signalGroup(SIGSTOP));
  EXPECT_EQ(makeSecretStore({"test.verdo", bus_.home(), milliseconds(300)}).kind,
            SecretStoreKind::secretService);

  int ticks = 0;
  QTimer timer;
  timer.callOnTimeout([&] { ++ticks; });
  timer.start(10);
  // The first call ends by its time limit, the second because the bus goes away.
  for (const auto limit : {milliseconds(400), milliseconds(20'000)}) {
    std::optional<SecretStore::Result<std::optional<std::string>>> answer;
    ticks = 0;
    runInBackground(
        "keyring", [limit] { return SecretServiceStore("test.verdo", limit).read(kToken); },
        [&answer](auto result) { answer = std::move(result); });
    if (limit > milliseconds(1'000)) {
      ASSERT_TRUE(spinUntil([&] { return ticks >= 30; }));
      bus_.daemon().signalGroup(SIGKILL);
    }
    ASSERT_TRUE(spinUntil([&] { return answer.has_value(); }, milliseconds(5'000)));
    EXPECT_GT(ticks, 10);
    ASSERT_FALSE(*answer);
    EXPECT_EQ(answer->error().kind, Kind::unavailable) << answer->error().description;
  }
}

TEST(SecretStoreChoice, PutsSecretsWhereTheyAreNotFoundAgain) {
  const PrivateBus empty;
  const PrivateBus activatable("[D-BUS Service]\nName=org.freedesktop.secrets\nExec=/bin/false\n");
  const TempDir files;
  const struct {
    std::string address;
    SecretStoreKind kind;
  } table[] = {{empty.address(), SecretStoreKind::files},
               {activatable.address(), SecretStoreKind::secretService},
               {"unix:path=" + files / "nothing", SecretStoreKind::files}};
  for (const auto& [address, kind] : table) {
    const ScopedEnv session("DBUS_SESSION_BUS_ADDRESS", address);
    const auto choice = makeSecretStore({"test.verdo", files / "secrets"});
    EXPECT_EQ(choice.kind, kind) << address;
    EXPECT_EQ(choice.store->write("secret", kToken).has_value(), kind == SecretStoreKind::files);
  }
  EXPECT_EQ(contentOf(files / "secrets/driver-token"), "secret");
}

}  // namespace
}  // namespace verdo::test
