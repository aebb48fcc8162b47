#include "VerdoDriver/Model/StatusText.h"

#include <fmt/format.h>

namespace verdo {
namespace {

std::string orElse(const std::string& message, const char* text) {
  return message.empty() ? text : message;
}

}  // namespace

StatusText StatusText::describe(const ExitReason& reason,
                                const std::optional<std::string>& keyLast4,
                                std::optional<int> retryIn) {
  const std::string& message = reason.message();
  switch (reason.kind()) {
    case ExitReason::Kind::serverUnreachable: {
      const std::string retry = retryIn ? fmt::format("retrying in {} s", *retryIn) : "retrying";
      return {"Server unreachable", message.empty() ? retry : message + " — " + retry,
              Action::fixServer};
    }
    case ExitReason::Kind::badConfig:
      return {"Check the setup", orElse(message, "The server URL or token is missing."),
              Action::fixServer};
    case ExitReason::Kind::tokenRevoked:
      return {"Disconnected",
              "The website no longer accepts this Mac — press Connect to website in Setup to pair "
              "again.",
              Action::fixToken};
    case ExitReason::Kind::outOfDate:
      return {"App out of date",
              orElse(message,
                     "The server speaks a newer driver protocol — download the new Verdo Driver."),
              Action::downloadUpdate};
    case ExitReason::Kind::llmKeyRejected:
      return {"DeepSeek rejected the key " + keyLast4.value_or("····"),
              "Nothing saved — check the key and try again.", Action::fixKey};
    case ExitReason::Kind::noExecutor:
      return {"ego lite not found",
              orElse(message, "Install ego lite and log in to LinkedIn there once."),
              Action::installEgo};
    case ExitReason::Kind::clean:
      return {"Done", "The driver finished its run.", Action::none};
    case ExitReason::Kind::stopped:
      break;
  }
  return {"Stopped", "The driver is not running.", Action::none};
}

}  // namespace verdo
