#include "bench/ByteServer.h"

#include "VerdoDriverCore/System/Files.h"

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace verdo::bench {

ByteServer::ByteServer(std::uint64_t bytes)
    : bytes_(bytes), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_.get(), generic, size) != 0 || ::listen(listener_.get(), 8) != 0 ||
      ::getsockname(listener_.get(), generic, &size) != 0) {
    throw std::runtime_error("cannot listen on loopback");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

ByteServer::~ByteServer() {
  ending_ = true;
  ::shutdown(listener_.get(), SHUT_RDWR);
  thread_.join();
}

std::string ByteServer::url() const { return fmt::format("http://127.0.0.1:{}/bytes", port_); }

void ByteServer::serve() {
  while (!ending_) {
    const UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection) answer(connection.get());
  }
}

void ByteServer::answer(int connection) const {
  char request[8192];
  if (::read(connection, request, sizeof request) <= 0) return;
  WriteOutcome outcome = writeAll(
      connection,
      fmt::format("HTTP/1.1 200 OK\r\nContent-Length: {}\r\nConnection: close\r\n\r\n", bytes_));
  const std::string block(1 << 20, 'x');
  for (std::uint64_t left = bytes_; left > 0 && outcome.error == 0;) {
    const auto piece = std::min<std::uint64_t>(left, block.size());
    outcome = writeAll(connection, std::string_view(block).substr(0, piece));
    left -= piece;
  }
}

}  // namespace verdo::bench
