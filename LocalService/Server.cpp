#include "LocalService/Server.h"

#include "LocalService/Deadline.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace verdo::local {
namespace {

using std::chrono::milliseconds;

/// Connects that a thousand drivers make at once must not be refused.
constexpr int kBacklog = 4096;

std::runtime_error listenError(std::uint16_t port, int error) {
  if (error == EADDRINUSE) {
    return std::runtime_error("port " + std::to_string(port) +
                              " on 127.0.0.1 is taken by another program: choose another one with "
                              "--port, or --port 0 for any free one");
  }
  return std::runtime_error("cannot listen on port " + std::to_string(port) +
                            " of 127.0.0.1: " + std::strerror(error));
}

UniqueFd boundSocket(std::uint16_t port) {
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) throw listenError(port, errno);
  const int on = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw listenError(port, errno);
  }
  return socket;
}

std::uint16_t portOf(const UniqueFd& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

}  // namespace

Server::Server(Dispatcher& dispatcher, HangGate& hang) : dispatcher_(dispatcher), hang_(hang) {}

Server::~Server() { stop(); }

void Server::start(std::uint16_t port, SslCtxPtr tls) {
  if (running()) throw std::runtime_error("the local service is running already");
  auto listener = boundSocket(port);
  if (port == 0) {
    // Only a port that was named to bind() stays with its socket while that does not listen (see
    // outage()); so the one that was picked is named, before it is given up.
    port = portOf(listener);
    listener = boundSocket(port);
  }
  if (::listen(listener.get(), kBacklog) != 0) throw listenError(port, errno);

  stopEvent_.clear();
  acceptorWake_.clear();
  {
    const MutexLock lock(mutex_);
    tls_ = std::move(tls);
    listener_ = std::move(listener);
    running_ = true;
    port_ = port;
  }
  threads_.run([this] { acceptLoop(); });
}

void Server::stop() {
  {
    const MutexLock lock(mutex_);
    if (!running_) return;
    running_ = false;
    endOutageLocked();
    stopEvent_.set();
    for (auto* connection : connections_) connection->drop();
  }
  threads_.join();
  listener_.reset();
}

bool Server::running() const {
  const MutexLock lock(mutex_);
  return running_;
}

std::uint16_t Server::port() const {
  const MutexLock lock(mutex_);
  return port_;
}

bool Server::secure() const {
  const MutexLock lock(mutex_);
  return tls_ != nullptr;
}

void Server::acceptLoop() {
  while (true) {
    bool refusing = false;
    milliseconds untilOutageEnds{-1};
    {
      const MutexLock lock(mutex_);
      if (!running_) return;
      if (outage_ && Clock::now() >= outageEnd_) endOutageLocked();
      refusing = outage_ == OutageKind::refuse;
      if (outage_) {
        untilOutageEnds = std::chrono::ceil<milliseconds>(outageEnd_ - Clock::now());
      }
    }
    std::array<pollfd, 3> fds{{{stopEvent_.fd(), POLLIN, 0},
                               {acceptorWake_.fd(), POLLIN, 0},
                               {refusing ? -1 : listener_.get(), POLLIN, 0}}};
    const auto timeout = std::min<std::int64_t>(untilOutageEnds.count(), 3'600'000);
    ::poll(fds.data(), fds.size(), static_cast<int>(timeout));
    if (fds[1].revents != 0) acceptorWake_.clear();
    if (fds[2].revents != 0) acceptOne();
  }
}

void Server::acceptOne() {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  UniqueFd socket(
      ::accept4(listener_.get(), reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC));
  if (!socket) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) {
      // The connection stays in the backlog; a descriptor may be free in a moment.
      pollfd stop{stopEvent_.fd(), POLLIN, 0};
      ::poll(&stop, 1, 10);
    }
    return;
  }
  auto connection = admit(std::move(socket), ntohs(peer.sin_port));
  if (!connection) return;
  const auto task = [this, connection]() mutable {
    serve(*connection);
    {
      const MutexLock inner(mutex_);
      connections_.erase(connection.get());
    }
    connection.reset();
    const MutexLock inner(mutex_);
    connectionsChanged_.notifyAll();
  };
  try {
    threads_.run(task);
  } catch (const std::system_error&) {
    // No thread to be had: the client sees its connection closed, as on any overloaded server.
    const MutexLock inner(mutex_);
    connections_.erase(connection.get());
  }
}

std::shared_ptr<Connection> Server::admit(UniqueFd socket, std::uint16_t peerPort) {
  const MutexLock lock(mutex_);
  // Accepted just as the outage or the stop began.
  if (!running_ || outage_ == OutageKind::refuse) return nullptr;
  auto connection = std::make_shared<Connection>(std::move(socket), tls_.get(), stopEvent_,
                                                 ++accepted_, peerPort);
  connections_.insert(connection.get());
  return connection;
}

void Server::serve(Connection& connection) {
  if (!connection.handshake()) return;
  while (connection.waitForRequest(Dispatcher::kKeepAlive)) {
    if (!dispatcher_.serveOne(connection)) return;
  }
}

void Server::outage(OutageKind kind, milliseconds duration) {
  const MutexLock lock(mutex_);
  if (!running_) throw std::runtime_error("an outage needs a running service");
  endOutageLocked();
  outage_ = kind;
  outageEnd_ = Clock::now() + std::min<milliseconds>(duration, std::chrono::hours(24));
  if (kind == OutageKind::hang) {
    hang_.close();
  } else {
    // On Linux this ends the listening but keeps the port, so that it is picked for nobody else.
    ::shutdown(listener_.get(), SHUT_RD);
    for (auto* connection : connections_) connection->drop();
  }
  acceptorWake_.set();
}

void Server::endOutage() {
  const MutexLock lock(mutex_);
  endOutageLocked();
}

void Server::endOutageLocked() {
  if (!outage_) return;
  if (outage_ == OutageKind::refuse && running_) ::listen(listener_.get(), kBacklog);
  hang_.open();
  outage_.reset();
  acceptorWake_.set();
}

std::uint64_t Server::acceptedConnections() const {
  const MutexLock lock(mutex_);
  return accepted_;
}

std::uint64_t Server::openConnections() const {
  const MutexLock lock(mutex_);
  return connections_.size();
}

bool Server::waitForConnections(std::uint64_t atMost, milliseconds timeout) const {
  const auto deadline = deadlineAfter(timeout);
  const MutexLock lock(mutex_);
  while (running_ && connections_.size() > atMost) {
    if (!connectionsChanged_.waitUntil(mutex_, deadline)) break;
  }
  return !running_ || connections_.size() <= atMost;
}

}  // namespace verdo::local
