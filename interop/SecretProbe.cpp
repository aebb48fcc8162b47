#include "VerdoDriver/Model/SecretTask.h"
#include "VerdoDriver/Platform/Linux/SecretStoreChoice.h"

#include <QCoreApplication>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <thread>

#include <unistd.h>

// Does with the secret store of this session what its standard input says, one command a line, and
// answers each on standard output, for the checks against real password managers:
//   read|state|remove ACCOUNT, write ACCOUNT VALUE, unlock, cancel, place
// Usage: verdo-secret-probe DIRECTORY [PLACE [PROMPT_SECONDS]]

namespace verdo {
namespace {

void say(const std::string& text) {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

std::string textOf(const SecretError& error) {
  static constexpr const char* kKinds[] = {"locked", "unavailable", "failed"};
  return std::string(kKinds[static_cast<int>(error.kind)]) + " " + error.description;
}

std::string run(SecretStore& store, const std::string& command) {
  std::istringstream words(command);
  std::string operation, name, value;
  words >> operation >> name >> value;
  const auto account =
      name == nameOf(SecretAccount::llmKey) ? SecretAccount::llmKey : SecretAccount::driverToken;
  const auto outcome = [](const SecretStore::Result<void>& result) {
    return result ? "done" : textOf(result.error());
  };
  if (operation == "read") {
    const auto secret = store.read(account);
    if (!secret) return textOf(secret.error());
    return *secret ? "found " + **secret : "absent";
  }
  if (operation == "state") {
    static constexpr const char* kStates[] = {"found", "absent", "locked", "unavailable"};
    return kStates[static_cast<int>(store.state(account))];
  }
  if (operation == "write") return outcome(store.write(value, account));
  if (operation == "remove") return outcome(store.remove(account));
  if (operation == "unlock") return outcome(store.unlock());
  if (operation == "place") return store.place() ? toText(*store.place()) : "undecided";
  return "no such command";
}

int probe(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  SecretStoreOptions options{.service = "com.pellmar.verdodriver",
                             .fileDirectory = argv[1],
                             .limits = {},
                             .usedBefore = std::nullopt};
  if (argc > 2) options.usedBefore = secretPlaceOf(argv[2]);
  if (argc > 3) options.limits.prompt = std::chrono::seconds(std::stoi(argv[3]));
  SecretStoreChoice store(options);
  MainThread::require("probe");
  store.listen([](SecretEvent event) {
    static constexpr const char* kEvents[] = {"changed", "placeChanged", "promptOpened",
                                              "promptClosed"};
    say(std::string("event ") + kEvents[static_cast<int>(event)]);
  });
  std::thread([&store] {
    for (std::string line; std::getline(std::cin, line);) {
      if (line == "cancel") {
        store.cancelPrompt();
        continue;
      }
      MainThread::post([&store, line] {
        askSecretStore(
            [&store, line]() -> SecretStore::Result<std::string> { return run(store, line); },
            [](const auto& answer) {
              say("answer " + (answer ? *answer : answer.error().description));
            });
      });
    }
    ::_exit(0);
  }).detach();
  return QCoreApplication::exec();
}

}  // namespace
}  // namespace verdo

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  return verdo::probe(argc, argv);
}
