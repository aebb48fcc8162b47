#include "VerdoDriver/Model/StatusText.h"

#include <gtest/gtest.h>

namespace verdo::test {

TEST(StatusText, ReadsOrOffersSomethingElse) {
  using Action = StatusText::Action;
  const std::string unpaired =
      "The website no longer accepts this Mac — press Connect to website in Setup to pair again.";
  const struct {
    ExitReason reason;
    const char* title;
    std::string detail;
    Action action;
  } table[] = {
      {ExitReason::clean(), "Done", "The driver finished its run.", Action::none},
      {ExitReason::stopped(), "Stopped", "The driver is not running.", Action::none},
      {ExitReason::serverUnreachable("m"), "Server unreachable", "m — retrying", Action::fixServer},
      {ExitReason::serverUnreachable(""), "Server unreachable", "retrying", Action::fixServer},
      {ExitReason::badConfig("m"), "Check the setup", "m", Action::fixServer},
      {ExitReason::badConfig(""), "Check the setup", "The server URL or token is missing.",
       Action::fixServer},
      {ExitReason::tokenRevoked("m"), "Disconnected", unpaired, Action::fixToken},
      {ExitReason::outOfDate("m"), "App out of date", "m", Action::downloadUpdate},
      {ExitReason::outOfDate(""), "App out of date",
       "The server speaks a newer driver protocol — download the new Verdo Driver.",
       Action::downloadUpdate},
      {ExitReason::llmKeyRejected("m"), "DeepSeek rejected the key ····",
       "Nothing saved — check the key and try again.", Action::fixKey},
      {ExitReason::noExecutor("m"), "ego lite not found", "m", Action::installEgo},
      {ExitReason::noExecutor(""), "ego lite not found",
       "Install ego lite and log in to LinkedIn there once.", Action::installEgo},
  };
  for (const auto& [reason, title, detail, action] : table) {
    EXPECT_EQ(StatusText::describe(reason), (StatusText{title, detail, action})) << title;
  }
  EXPECT_EQ(StatusText::describe(ExitReason::llmKeyRejected("m"), "····9876").title,
            "DeepSeek rejected the key ····9876");
  EXPECT_EQ(StatusText::describe(ExitReason::serverUnreachable("m"), {}, 7).detail,
            "m — retrying in 7 s");
  EXPECT_EQ(StatusText::describe(ExitReason::serverUnreachable(""), {}, 7).detail,
            "retrying in 7 s");
}

}  // namespace verdo::test
