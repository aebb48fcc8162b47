#include "LocalService/LocalService.h"
#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <array>
#include <cstdlib>
#include <map>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <httplib.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>

namespace verdo::test {
namespace {

using testing::StartsWith;

class LocalServiceRequest : public testing::Test {
 protected:
  /// The status of a POST without a body, as curl -X POST sends it, to the control interface; 0: no
  /// reply came. `header` is a further line of its head.
  int postNothing(const std::string& header) const {
    const UniqueFd connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval patience{.tv_sec = 5, .tv_usec = 0};
    ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(service.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(connection.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    const auto head = fmt::format(
        "POST /control/reset HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer {}\r\n{}\r\n",
        service.controlToken(), header);
    EXPECT_EQ(writeAll(connection.get(), head).error, 0);
    std::array<char, sizeof "HTTP/1.1 200"> reply{};
    ::recv(connection.get(), reply.data(), reply.size() - 1, MSG_WAITALL);
    return std::atoi(reply.data() + sizeof "HTTP/1.1");
  }
  /// The status and the body of the reply to a POST to the control interface.
  std::string post(const std::string& path, const std::string& body,
                   const std::string& authorization) {
    const auto reply =
        client.Post("/control/" + path, {{"Authorization", authorization}}, body, "");
    return reply ? fmt::format("{} {}", reply->status, reply->body) : "";
  }

  local::LocalService service;
  httplib::Client client{(service.start(), service.url())};
};

TEST_F(LocalServiceRequest, WaitsForABodyThatIsNotAnnouncedOrCannotBe) {
  EXPECT_EQ(postNothing(""), 200);
  for (const auto& [length, status] : std::map<std::string, int>{
           {"-1", 400}, {"1e3", 400}, {"268435457", 413}, {"99999999999999999999", 413}}) {
    EXPECT_EQ(postNothing("Content-Length: " + length + "\r\n"), status) << length;
  }
}

TEST_F(LocalServiceRequest, ServesThoseWhoDidNotStartIt) {
  for (const auto& [given, status] : std::map<std::string, const char*>{
           {"Bearer " + service.controlToken(), "200"},
           {"Bearer " + service.token(), "401"},
           {service.controlToken(), "401"},
           {"Bearer ", "401"},
       }) {
    EXPECT_THAT(post("jobs", "{}", given), StartsWith(status)) << given;
  }
  EXPECT_EQ(service.jobs().list().size(), 1u);
}

TEST_F(LocalServiceRequest, ServesAForeignWebPage) {
  const auto own = fmt::format("127.0.0.1:{}", service.port());
  const struct {
    std::string host;
    std::string origin;  ///< "": none
    int status;
  } table[] = {
      {own, "", 200},
      {"LocalHost:1", "", 200},
      {"10.0.0.1", "", 200},
      {"[::1]:8080", "", 200},
      {own, "http://" + own, 200},
      {fmt::format("evil.example:{}", service.port()), "", 421},
      {"127.0.0.1.evil.example", "", 421},
      {"127.0.0.1:80@evil.example", "", 421},
      {"[::1].evil.example", "", 421},
      {"", "", 421},
      {own, "http://evil.example", 403},
      {own, "null", 403},
  };
  for (const auto& [host, origin, status] : table) {
    httplib::Headers headers{{"Host", host},
                             {"Authorization", "Bearer " + service.token()},
                             {"X-VERDO-Driver-Protocol", "2"}};
    if (!origin.empty()) headers.emplace("Origin", origin);
    const auto reply = client.Get("/api/driver/hello", headers);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, status) << host << " " << origin << " " << reply->body;
  }
}

TEST_F(LocalServiceRequest, ApprovesForAForeignPageOrShowsMarkupOfTheHostsName) {
  const auto begun =
      client.Post("/api/driver/pair/start", R"({"host": "Ann's <b>"})", "application/json");
  const auto page = nlohmann::json::parse(begun->body)["verify_path"].get<std::string>();
  EXPECT_THAT(client.Get(page)->body, testing::HasSubstr("&lt;b&gt;"));
  // What another site sends in the user's name lacks what only the page knows.
  const auto sent = client.Post(page, "decision=approve", "application/x-www-form-urlencoded");
  EXPECT_EQ(sent->status, 403);
}

TEST_F(LocalServiceRequest, TakesAValueThatItCannotKeep) {
  const auto authorization = "Bearer " + service.controlToken();
  const struct {
    const char* path;
    const char* body;
    const char* complaint;
  } table[] = {
      {"faults", R"({"endpoint": "line"})", "known are any hello"},
      {"faults", R"({"status": 600})", "from 200 to 599"},
      {"faults", R"({"status": 4294967496})", "at most 2147483647"},
      {"faults", R"({"job_id": 9223372036854775808})", "at most 9223372036854775807"},
      {"faults", R"({"delay_ms": 86400001})", "from 0 to 86400000"},
      {"files", R"({"name": "a", "content_base64": "===="})", "base64"},
      {"files", R"({"name": "a", "content_base64": "QQ=A"})", "base64"},
      {"files", R"({"name": "a", "content_base64": "QQ"})", "base64"},
  };
  for (const auto& [path, body, complaint] : table) {
    EXPECT_THAT(post(path, body, authorization),
                testing::AllOf(StartsWith("400"), testing::HasSubstr(complaint)));
  }
  EXPECT_THAT(post("files", R"({"name": "a", "content_base64": "QUI="})", authorization),
              StartsWith("200"));
  EXPECT_EQ(client.Get("/files/a")->body, "AB");
}

}  // namespace
}  // namespace verdo::test
