#include "VerdoDriver/Model/StatusText.h"

#include <gtest/gtest.h>

namespace verdo::test {

// The titles and buttons are those that a connect shows (ConnectFlowTest.cpp).
TEST(StatusText, LosesTheReasonOrShowsNone) {
  const struct {
    ExitReason reason;
    std::optional<int> retryIn;
    const char* detail;
  } table[] = {
      {ExitReason::serverUnreachable("m"), 7, "m — retrying in 7 s"},
      {ExitReason::serverUnreachable(""), {}, "retrying"},
      {ExitReason::badConfig("m"), {}, "m"},
      {ExitReason::badConfig(""), {}, "The server URL or token is missing."},
      {ExitReason::outOfDate("m"), {}, "m"},
      {ExitReason::outOfDate(""),
       {},
       "The server speaks a newer driver protocol — download the new Verdo Driver."},
      {ExitReason::noExecutor("m"), {}, "m"},
      {ExitReason::clean(), {}, "The driver finished its run."},
  };
  for (const auto& [reason, retryIn, detail] : table) {
    EXPECT_EQ(StatusText::describe(reason, {}, retryIn).detail, detail);
  }
  EXPECT_EQ(StatusText::describe(ExitReason::llmKeyRejected("")).title,
            "DeepSeek rejected the key ····");
}

}  // namespace verdo::test
