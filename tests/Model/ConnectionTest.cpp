#include "VerdoDriver/Model/Connection.h"

#include <gtest/gtest.h>

namespace verdo::test {

TEST(Connection, TooltipNamesTheUserOrAnotherState) {
  const struct {
    Connection connection;
    std::vector<std::string> lanes;
    bool updateAvailable;
    const char* tooltip;
  } table[] = {
      {Connection::notSetUp, {}, false, "Verdo Driver — not set up"},
      {Connection::online, {}, true, "Verdo Driver — online · update available"},
      {Connection::busy,
       {"ada:mail", "ada:crm:eu"},
       false,
       "Verdo Driver — online · busy: mail, crm:eu"},
      {Connection::busy, {"mail"}, true, "Verdo Driver — online · busy:  · update available"},
      {Connection::busy, {}, false, "Verdo Driver — online · busy"},
      {Connection::offline, {"ada:mail"}, false, "Verdo Driver — offline"},
      {Connection::stopped, {}, false, "Verdo Driver — stopped"},
  };
  for (const auto& [connection, lanes, updateAvailable, tooltip] : table) {
    EXPECT_EQ(tooltipOf(connection, lanes, updateAvailable), tooltip);
  }
}

}  // namespace verdo::test
