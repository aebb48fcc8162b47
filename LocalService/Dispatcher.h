#pragma once

#include "LocalService/Connection.h"
#include "LocalService/Faults.h"
#include "LocalService/HangGate.h"
#include "LocalService/RequestLog.h"
#include "LocalService/Routes.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace verdo::local {

/// What happens to a request: cpp-httplib reads it, it is logged, a fault may hit it, the route's
/// handler answers it, and the reply leaves as the fault wants. Many threads at once, one for each
/// connection.
class Dispatcher {
 public:
  /// How long an idle connection is kept. It costs a sleeping thread and nothing else, and drivers
  /// must find theirs open again after the 30 s that they wait at most between two polls.
  static constexpr std::chrono::seconds kKeepAlive{75};

  /// All three outlive this.
  Dispatcher(Faults& faults, RequestLog& log, const HangGate& hang);
  ~Dispatcher();
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  /// Groups are asked in the order in which they were added. Before the first request only; they
  /// outlive this.
  void addRoutes(RouteGroup& group) { groups_.push_back(&group); }

  /// Reads one request and answers it. False: the connection must end.
  bool serveOne(Connection& connection);

 private:
  class Engine;
  struct Current;

  void handle(Current& current, const httplib::Request& request, httplib::Response& response);
  Route findRoute(const std::string& method, const std::string& path) const;
  void logArrival(Current& current, const Route& route, const httplib::Request& request);
  void deliver(Current& current, Exchange& exchange);
  void finish(Current& current);
  void abandon(Current& current);

  Faults& faults_;
  RequestLog& log_;
  const HangGate& hang_;
  std::vector<RouteGroup*> groups_;
  std::unique_ptr<Engine> engine_;
};

}  // namespace verdo::local
