#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <stdexcept>

#include <arpa/inet.h>
#include <sys/socket.h>

namespace verdo::test {

/// A TCP listener on a free port of 127.0.0.1, for servers that misbehave below HTTP.
class Listener {
 public:
  explicit Listener(int backlog = 1) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    auto* generic = reinterpret_cast<sockaddr*>(&address_);
    if (::bind(socket_.get(), generic, size) != 0 || ::listen(socket_.get(), backlog) != 0 ||
        ::getsockname(socket_.get(), generic, &size) != 0) {
      throw std::runtime_error("cannot listen");
    }
  }
  const sockaddr_in& address() const { return address_; }
  int port() const { return ntohs(address_.sin_port); }
  /// Waits for a connection.
  UniqueFd accept() const {
    return UniqueFd(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  UniqueFd socket_;
  sockaddr_in address_{};
};

}  // namespace verdo::test
