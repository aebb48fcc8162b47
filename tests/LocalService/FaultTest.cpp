#include "LocalService/LocalService.h"

#include <string>

#include <gtest/gtest.h>
#include <httplib.h>

namespace verdo::test {
namespace {

TEST(LocalServiceFault, RefusesABodyThatIsWithinTheLimit) {
  local::LocalService service;
  service.start();
  service.faults().add(local::bodyLimit("complete", 100));
  httplib::Client client(service.url());
  const auto status = [&](const std::string& action, std::size_t size) {
    const auto reply = client.Post("/api/driver/jobs/1/" + action, std::string(size, ' '), "");
    return reply ? reply->status : 0;
  };
  EXPECT_EQ(status("complete", 101), 413);
  EXPECT_EQ(status("complete", 100), 401);
  EXPECT_EQ(status("lines", 101), 401);
}

}  // namespace
}  // namespace verdo::test
