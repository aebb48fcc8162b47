#include "VerdoDriver/Model/StatusText.h"

#include <gtest/gtest.h>

namespace verdo::test {
namespace {

TEST(StatusTextOfAnExit, SaysSomethingElse) {
  using Action = StatusText::Action;
  const struct {
    ExitReason reason;
    std::optional<int> retryIn;
    StatusText text;
  } table[] = {
      {ExitReason::serverUnreachable("gone"),
       30,
       {"Server unreachable", "gone — retrying in 30 s", Action::fixServer}},
      {ExitReason::serverUnreachable(""),
       {},
       {"Server unreachable", "retrying", Action::fixServer}},
      {ExitReason::badConfig(""),
       {},
       {"Check the setup", "The server URL or token is missing.", Action::fixServer}},
      {ExitReason::badConfig("m"), {}, {"Check the setup", "m", Action::fixServer}},
      {ExitReason::tokenRevoked("not shown"),
       {},
       {"Disconnected",
        "The website no longer accepts this Mac — press Connect to website in Setup to pair again.",
        Action::fixToken}},
      {ExitReason::outOfDate(""),
       {},
       {"App out of date",
        "The server speaks a newer driver protocol — download the new Verdo Driver.",
        Action::downloadUpdate}},
      {ExitReason::llmKeyRejected("not shown"),
       {},
       {"DeepSeek rejected the key ····1234", "Nothing saved — check the key and try again.",
        Action::fixKey}},
      {ExitReason::noExecutor(""),
       {},
       {"ego lite not found", "Install ego lite and log in to LinkedIn there once.",
        Action::installEgo}},
      {ExitReason::clean(), {}, {"Done", "The driver finished its run.", Action::none}},
      {ExitReason::stopped(), {}, {"Stopped", "The driver is not running.", Action::none}},
  };
  for (const auto& [reason, retryIn, text] : table) {
    const auto described = StatusText::describe(reason, "····1234", retryIn);
    EXPECT_EQ(described.title, text.title);
    EXPECT_EQ(described.detail, text.detail);
    EXPECT_EQ(described.action, text.action) << text.title;
  }
  EXPECT_EQ(StatusText::describe(ExitReason::llmKeyRejected("")).title,
            "DeepSeek rejected the key ····");
}

}  // namespace
}  // namespace verdo::test
