#pragma once

#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/Model/SecretTask.h"
#include "tests/Support/AppFixture.h"
#include "tests/Support/ScriptedPairing.h"

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace verdo::test {

/// Keeps secrets in memory, may be locked, and tells what it is told to tell.
class TellingStore : public MemorySecretStore {
 public:
  Result<std::optional<std::string>> read(SecretAccount account) override {
    if (!isLocked) return MemorySecretStore::read(account);
    return tl::make_unexpected(SecretError{SecretError::Kind::locked, 0, "The keyring is locked."});
  }
  void tell(SecretEvent event) const { announcer()(event); }

  std::atomic<bool> isLocked = false;
};

/// The app's model over scripted parts. It asks no server of its own accord.
class ScriptedModel {
 public:
  static constexpr const char* kServer = "https://verdo.example";

  ScriptedModel() : model(parts()) {}

  /// As after a pairing: a server, a token and a key are stored.
  void setUp(const std::string& server = kServer) {
    static_cast<void>(secrets->write("token-5a1c", SecretAccount::driverToken));
    static_cast<void>(secrets->write("sk-0123459f2c", SecretAccount::llmKey));
    model.settings().setServerURL(server);
    askStore();
  }
  /// The model learns what the store holds.
  void askStore() {
    secrets->tell(SecretEvent::changed);
    spin();  // the model asks now, and what is asked later is answered later
    bool told = false;
    askSecretStore([] { return SecretStore::Result<void>(); }, [&](const auto&) { told = true; });
    EXPECT_TRUE(spinUntil([&] { return told; }));
    spin();
  }
  /// A run that has been launched, and not said hello.
  ScriptedDriver& launch() {
    const auto before = factory->runs.size();
    model.restartDriver();
    EXPECT_TRUE(spinUntil([&] { return factory->runs.size() > before; }));
    return *factory->runs.back();
  }
  /// What the run reports to.
  std::shared_ptr<DriverObserver> observer() { return factory->runs.back()->observer.lock(); }
  void goOnline(const std::string& user = "ada") {
    launch();
    observer()->driverConnected(user, 1, "1");
    spin();
  }
  void end(const ExitReason& reason) {
    factory->runs.back()->end(reason);
    EXPECT_TRUE(spinUntil([&] { return !model.supervisor().hasCurrentRun(); }));
  }
  /// Waits for the doctor of a check that was begun.
  ScriptedDoctor& doctor(std::size_t number = 1) {
    EXPECT_TRUE(spinUntil([&] { return factory->doctors.size() == number; }));
    return *factory->doctors.back();
  }
  /// Pairs up to the code.
  void pair(const std::string& code = "K7QM-2XWA") {
    model.startPairing(kServer, false, "sk-typed");
    pairing->starts.back().answer(
        PairingStart{"code", code, "/pair", std::chrono::seconds(581), std::chrono::seconds(5)});
    spin();
  }
  /// The user has approved it in the browser.
  void approve() {
    clock->advance(std::chrono::seconds(5));
    pairing->polls.back().answer(PairingPoll{PairingPoll::Status::approved, "token-1234", "ada"});
    spin();
  }

  const TempDir home;
  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  const std::shared_ptr<RecordingDriverLog> log = std::make_shared<RecordingDriverLog>();
  const std::shared_ptr<ScriptedFactory> factory = std::make_shared<ScriptedFactory>();
  const std::shared_ptr<TellingStore> secrets = std::make_shared<TellingStore>();
  const std::shared_ptr<ScriptedPairing> pairing = std::make_shared<ScriptedPairing>();
  std::vector<std::string> opened;  ///< addresses
  Removal::Left traces;             ///< of jobs, that cannot be removed
  bool isProgramReplaced = false;
  AppModel model;

 private:
  struct InertAssertion : PowerAssertion {
    void hold(const std::string&) override {}
    void release() override {}
    bool isHeld() const override { return false; }
  };

  AppModel::Parts parts() {
    AppModel::Parts parts{.system = {.clock = clock,
                                     .secrets = secrets,
                                     .powerAssertion = std::make_shared<InertAssertion>(),
                                     .loginItems = std::make_shared<NoopLoginItemManager>(),
                                     .wakeMonitor = {},
                                     .pathMonitor = {},
                                     .browserPackage = "verdo-browser",
                                     .isProgramReplaced = [this] { return isProgramReplaced; }},
                          .settings = std::make_unique<SettingsStore>(std::make_unique<QSettings>(
                              QString::fromStdString(home / "settings"), QSettings::IniFormat)),
                          .factory = factory,
                          .log = log,
                          .migration = {home.path(), home / "no-launchctl", 501},
                          .updateChecker = std::make_unique<UpdateChecker>("2026.09.04"),
                          .pairingService = pairing,
                          .egoPath = [] { return "/bin/ego-browser"; },
                          .hostName = [] { return "box"; },
                          .openURL = [this](const std::string& url) { opened.push_back(url); },
                          .removeTraces = [this] { return traces; },
                          .logPath = home / "log",
                          .llmBase = "http://127.0.0.1:1",
                          .clientHeader = "app/0.0.0"};
    return parts;
  }
};

}  // namespace verdo::test
