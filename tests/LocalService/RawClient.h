#pragma once

#include "LocalService/Handles.h"
#include "LocalService/LocalService.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/time.h>

namespace verdo::local::test {

/// What a raw connection saw of one reply.
struct Seen {
  enum class End { reply, closed, reset, timeout };
  End end = End::timeout;  ///< reply: a whole one came
  int status = 0;          ///< 0: no HTTP head came
  std::string head;
  std::string body;  ///< as much of it as came

  nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
};

/// A client over a bare socket, so that tests see how a connection really ended.
class RawClient {
 public:
  explicit RawClient(std::uint16_t port)
      : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval patience{.tv_sec = 10, .tv_usec = 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connectError_ =
        ::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0
            ? 0
            : errno;
  }

  int connectError() const { return connectError_; }
  void close() { socket_.reset(); }

  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  /// Reads one reply by its Content-Length, or up to the end of the connection.
  Seen receive() {
    Seen seen;
    while (true) {
      if (const auto end = input_.find("\r\n\r\n");
          end != std::string::npos && input_.starts_with("HTTP/1.1 ")) {
        seen.head = input_.substr(0, end + 4);
        seen.status = std::atoi(input_.c_str() + 9);
        const auto field = seen.head.find("Content-Length: ");
        const auto length =
            field == std::string::npos
                ? 0
                : static_cast<std::size_t>(std::atoll(seen.head.c_str() + field + 16));
        seen.body = input_.substr(end + 4, length);
        if (seen.body.size() == length) {
          input_.erase(0, end + 4 + length);
          seen.end = Seen::End::reply;
          return seen;
        }
      } else {
        seen.body = input_;
      }
      std::array<char, 65536> buffer;
      const auto got = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
      if (got <= 0) {
        seen.end = got == 0              ? Seen::End::closed
                   : errno == ECONNRESET ? Seen::End::reset
                                         : Seen::End::timeout;
        return seen;
      }
      input_.append(buffer.data(), static_cast<std::size_t>(got));
    }
  }

 private:
  UniqueFd socket_;
  int connectError_ = 0;
  std::string input_;
};

/// Calls a service as a driver does, over one kept connection.
class Driver {
 public:
  explicit Driver(const LocalService& service) : Driver(service.port(), service.token()) {}
  Driver(std::uint16_t port, std::string token) : client_(port), token_(std::move(token)) {}

  void start(const std::string& method, const std::string& target, const std::string& body = "") {
    client_.send(method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " +
                 token_ + "\r\nX-VERDO-Driver-Protocol: 2\r\nContent-Length: " +
                 std::to_string(body.size()) + "\r\n\r\n" + body);
  }
  Seen finish() { return client_.receive(); }
  Seen call(const std::string& method, const std::string& target, const std::string& body = "") {
    start(method, target, body);
    return finish();
  }

  Seen hello() { return call("GET", "/api/driver/hello"); }
  Seen poll(int wait = 0, const std::string& busy = "") {
    return call("GET", "/api/driver/poll?wait=" + std::to_string(wait) +
                           (busy.empty() ? "" : "&busy=" + busy));
  }
  /// Identifier of the job that a poll gave; 0: none.
  std::int64_t lease(int wait = 0, const std::string& busy = "") { return jobOf(poll(wait, busy)); }
  static std::int64_t jobOf(const Seen& seen) {
    return seen.status == 200 ? seen.json()["job"]["job_id"].get<std::int64_t>() : 0;
  }
  Seen lines(std::int64_t id, const std::string& body = R"({"lines":[]})") {
    return call("POST", "/api/driver/jobs/" + std::to_string(id) + "/lines", body);
  }
  Seen complete(std::int64_t id, const std::string& body = R"({"exit_code":0,"error":null})") {
    return call("POST", "/api/driver/jobs/" + std::to_string(id) + "/complete", body);
  }
  RawClient& client() { return client_; }

 private:
  RawClient client_;
  std::string token_;
};

}  // namespace verdo::local::test
