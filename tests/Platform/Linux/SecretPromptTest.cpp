#include "VerdoDriver/Model/SecretTask.h"
#include "VerdoDriver/Platform/Linux/SecretStoreChoice.h"
#include "tests/Platform/Linux/FakeSecretService.h"
#include "tests/Support/ErrorOf.h"
#include "tests/Support/NoThreads.h"
#include "tests/Support/ScopedEnv.h"

namespace verdo::test {

namespace fs = std::filesystem;
using Answer = FakeSecretService::Answer;
using Kind = SecretError::Kind;
using std::chrono::milliseconds;
using Secret = SecretStore::Result<std::optional<std::string>>;
constexpr auto kToken = SecretAccount::driverToken;

/// Stores that ask a Secret Service which asks the user.
class SecretPromptTest : public testing::Test {
 protected:
  static constexpr SecretServiceLimits kLimits{milliseconds(8000), milliseconds(500)};

  /// Does some secret work as the app does, and gives its result.
  template <typename Work>
  auto ask(Work work) {
    std::optional<decltype(work())> result;
    askSecretStore(work, [&result](const auto& got) { result.emplace(got); });
    EXPECT_TRUE(spinUntil([&] { return result.has_value(); }));
    return *result;
  }
  Secret read(SecretStore& from) {
    return ask([&] { return from.read(kToken); });
  }
  SecretStore::Result<void> write(SecretStore& to, const std::string& value) {
    return ask([&to, value] { return to.write(value, kToken); });
  }
  SecretStore::Result<void> unlock(SecretStore& what) {
    return ask([&] { return what.unlock(); });
  }
  void listenTo(SecretStore& what) {
    what.listen([this](SecretEvent event) { ++events[event]; });
  }

  PrivateBus bus;
  const ScopedEnv session{"DBUS_SESSION_BUS_ADDRESS", bus.address()};
  FakeSecretService service{bus};
  std::map<SecretEvent, int> events;
  SecretServiceStore store{"test.verdo", kLimits};
  SecretServiceStore again{"test.verdo", kLimits};  ///< the app, started anew
};

TEST_F(SecretPromptTest, AsksTheUserForAReadOrTakesALostWriteForSaved) {
  {
    const NoThreads shortage;  // must not end the app
    EXPECT_EQ(errorOf(store.read(kToken)).kind, Kind::unavailable);
    EXPECT_EQ(errorOf(read(store)).kind, Kind::unavailable);
  }
  EXPECT_EQ(read(store).value(), std::nullopt);
  ASSERT_TRUE(write(store, "one"));
  EXPECT_EQ(read(store).value(), "one");
  ASSERT_TRUE(write(store, "two"));
  EXPECT_EQ(service.clients.size(), 1) << "a new connection for each call";
  EXPECT_EQ(errorOf(read(again)).kind, Kind::locked);
  listenTo(store);
  service.lock();
  ASSERT_TRUE(spinUntil([&] { return events[SecretEvent::changed] > 0; }));
  EXPECT_EQ(errorOf(read(store)).kind, Kind::locked);
  EXPECT_EQ(service.searchesWhileLocked, 0);
  EXPECT_EQ(service.windows, 0);
  EXPECT_TRUE(unlock(store));
  service.answer = Answer::refuse;
  EXPECT_EQ(errorOf(write(again, "new")).kind, Kind::locked);
  service.losesWrites = true;
  EXPECT_EQ(errorOf(write(store, "new")).kind, Kind::failed);
  EXPECT_EQ(read(store).value(), "two");
  service.sessions.clear();  // it was switched off and on again
  EXPECT_EQ(errorOf(read(store)).kind, Kind::failed);
  EXPECT_EQ(read(store).value(), "two") << "for good";
}

TEST_F(SecretPromptTest, PilesUpWindowsOrWaitsForEver) {
  ASSERT_TRUE(write(store, "old"));
  service.answer = Answer::none;
  listenTo(again);
  EXPECT_EQ(errorOf(unlock(again)).kind, Kind::locked) << "after its time";
  EXPECT_EQ(errorOf(write(again, "new")).kind, Kind::locked);
  EXPECT_EQ(service.windows, 1);
  EXPECT_TRUE(spinUntil([&] { return events[SecretEvent::promptClosed] == 2; }));
  EXPECT_EQ(events[SecretEvent::promptOpened], 2);
  service.reply(true);
  EXPECT_TRUE(spinUntil([&] { return read(again).has_value(); }));
  EXPECT_EQ(read(again).value(), "old") << "was stored after it had failed";
  EXPECT_TRUE(unlock(again));
  EXPECT_EQ(service.windows, 1);

  // A user who gives up, and a service that goes, end the waiting at once.
  SecretServiceStore patient{"test.verdo", {milliseconds(8000), milliseconds(60'000)}};
  listenTo(patient);
  for (const bool cancelled : {true, false}) {
    events.clear();
    std::optional<Kind> kind;
    askSecretStore([&] { return patient.unlock(); },
                   [&](const auto& result) { kind = errorOf(result).kind; });
    ASSERT_TRUE(spinUntil([&] { return events[SecretEvent::promptOpened] == 1; }));
    if (cancelled) patient.cancelPrompt();
    if (!cancelled) bus.daemon->signalGroup(SIGKILL);
    ASSERT_TRUE(spinUntil([&] { return kind.has_value(); }));
    EXPECT_EQ(*kind, cancelled ? Kind::locked : Kind::unavailable);
  }
}

TEST_F(SecretPromptTest, MissingDefaultOrAnotherProgramReadsAsAbsent) {
  const TempDir home;
  const auto choice = [&](const std::string& provider) {
    SecretStoreOptions options{"test.verdo", home / "s", kLimits, std::nullopt};
    if (!provider.empty()) options.usedBefore = {SecretPlace::Kind::secretService, provider};
    return std::make_unique<SecretStoreChoice>(options);
  };
  EXPECT_EQ(errorOf(read(*choice("another"))).kind, Kind::unavailable);
  EXPECT_EQ(read(*choice("")).value(), std::nullopt);
  EXPECT_TRUE(write(*choice("another"), "moved")) << "the user has decided";
  const std::string us = fs::path(selfPath()).filename();
  const auto found = choice("");  // as after the settings were lost
  EXPECT_TRUE(unlock(*found));
  EXPECT_EQ(read(*found).value(), "moved");
  EXPECT_EQ(found->place(), (SecretPlace{SecretPlace::Kind::secretService, us}));
  service.hasDefault = false;
  EXPECT_EQ(errorOf(read(*choice("another"))).kind, Kind::locked) << "it was found";
  EXPECT_EQ(errorOf(write(*choice(us), "new")).kind, Kind::unavailable);
  const auto fresh = choice("");
  EXPECT_EQ(read(*fresh).value(), std::nullopt);
  EXPECT_TRUE(write(*fresh, "in files"));
  EXPECT_EQ(fresh->place()->kind, SecretPlace::Kind::files);
  service.hasDefault = true;
  EXPECT_EQ(read(*choice("")).value(), "in files");
}

TEST(SecretServiceStart, StartsAKeyringThatIsNotTheUsers) {
  const PrivateBus bus;
  const std::string secrets = "org.freedesktop.secrets", gnome = "org.gnome.keyring",
                    kde5 = "org.kde.kwalletd5", kde6 = "org.kde.kwalletd6";
  const auto markOf = [&](const std::string& name) { return bus.home() + "/started-" + name; };
  for (const auto& name : {secrets, gnome, kde5, kde6}) {
    // Leaves its mark and fails at once.
    std::ofstream(bus.home() + "/" + name + ".service")
        << "[D-BUS Service]\nName=" << name << "\nExec=/usr/bin/touch " << markOf(name)
        << " /no/such/place\n";
  }
  bus.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReloadConfig");
  const ScopedEnv session("DBUS_SESSION_BUS_ADDRESS", bus.address());
  const TempDir none, wallets;
  fs::create_directories(wallets / "kwalletd");
  wallets.write("kwalletd/one.kwl", "");
  // The program that has kept the secrets, the user's data, and what is started.
  const std::tuple<std::string, const TempDir*, std::set<std::string>> table[] = {
      {"", &none, {}},
      {"keepassxc", &wallets, {}},
      {"gnome-keyring-daemon", &none, {gnome}},
      {"kwalletd6", &none, {kde6}},
      {"", &wallets, {kde5, kde6}},
  };
  for (const auto& [provider, data, expected] : table) {
    const ScopedEnv home("XDG_DATA_HOME", data->path()), desktop("XDG_CURRENT_DESKTOP", {});
    SecretServiceStore store("test.verdo", {milliseconds(8000)}, provider);
    EXPECT_EQ(errorOf(store.read(kToken)).kind, Kind::unavailable);
    std::set<std::string> started;
    for (const auto& name : {secrets, gnome, kde5, kde6}) {
      if (fs::remove(markOf(name))) started.insert(name);
    }
    EXPECT_EQ(started, expected) << provider;
  }
}

}  // namespace verdo::test
