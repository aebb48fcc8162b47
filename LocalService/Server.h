#pragma once

#include "LocalService/Connection.h"
#include "LocalService/Dispatcher.h"
#include "LocalService/EventFd.h"
#include "LocalService/Fault.h"
#include "LocalService/Faults.h"
#include "LocalService/HangGate.h"
#include "LocalService/RequestLog.h"
#include "LocalService/Routes.h"
#include "LocalService/ThreadCache.h"
#include "LocalService/Tls.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>

namespace verdo::local {

/// The sockets and threads of the service. It owns them, rather than cpp-httplib, because failures
/// on demand are about those. Every member may be called from any thread.
///
/// A connection has a thread of its own that sleeps in poll(2) while the connection is idle, so a
/// thousand idle connections cost a thousand sleeping threads and no processor time.
class Server {
 public:
  using Clock = std::chrono::steady_clock;

  /// Both outlive this.
  Server(Dispatcher& dispatcher, HangGate& hang);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Serves on 127.0.0.1; port 0 picks one. `tls` may be null. Throws std::runtime_error.
  void start(std::uint16_t port, SslCtxPtr tls);
  void stop();
  bool running() const;
  std::uint16_t port() const;
  bool secure() const;

  void outage(OutageKind kind, std::chrono::milliseconds duration);
  void endOutage();

  std::uint64_t acceptedConnections() const;
  std::uint64_t openConnections() const;
  bool waitForConnections(std::uint64_t atMost, std::chrono::milliseconds timeout) const;

 private:
  void acceptLoop();
  void acceptOne();
  /// Takes a new connection into connections_; null: it is not wanted any more.
  std::shared_ptr<Connection> admit(UniqueFd socket, std::uint16_t peerPort);
  void serve(Connection& connection);
  void endOutageLocked() REQUIRES(mutex_);

  Dispatcher& dispatcher_;
  HangGate& hang_;
  EventFd stopEvent_;     // up while stopping or stopped
  EventFd acceptorWake_;  // the accept loop shall look at the state
  ThreadCache threads_;
  SslCtxPtr tls_;  // constant while running
  UniqueFd listener_;

  mutable Mutex mutex_;  // also for the listening state of listener_
  mutable Condition connectionsChanged_;
  bool running_ GUARDED_BY(mutex_) = false;
  std::uint16_t port_ GUARDED_BY(mutex_) = 0;
  std::optional<OutageKind> outage_ GUARDED_BY(mutex_);
  Clock::time_point outageEnd_ GUARDED_BY(mutex_);
  std::set<Connection*> connections_ GUARDED_BY(mutex_);
  std::uint64_t accepted_ GUARDED_BY(mutex_) = 0;
};

}  // namespace verdo::local
