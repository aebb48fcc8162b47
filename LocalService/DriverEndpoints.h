#pragma once

#include "LocalService/DriverToken.h"
#include "LocalService/HangGate.h"
#include "LocalService/JobStore.h"
#include "LocalService/JsonDocument.h"
#include "LocalService/Routes.h"

#include <string>

#include <nlohmann/json.hpp>

namespace verdo::local {

/// The driver protocol: hello, poll, lines and complete.
class DriverEndpoints final : public RouteGroup {
 public:
  /// All outlive this. `hello` is the reply to hello.
  DriverEndpoints(JobStore& jobs, const DriverToken& token, const JsonDocument& hello,
                  const HangGate& hang)
      : jobs_(jobs), token_(token), hello_(hello), hang_(hang) {}
  std::optional<Route> match(std::string_view method, std::string_view path) override;
  static nlohmann::ordered_json defaultHello();

 private:
  Route route(std::string endpoint, std::optional<std::int64_t> jobId,
              std::function<void(Exchange&)> handle) const;
  void authorize(const httplib::Request& request) const;
  void hello(Exchange& exchange) const;
  void poll(Exchange& exchange) const;
  void lines(Exchange& exchange, std::int64_t id) const;
  void complete(Exchange& exchange, std::int64_t id) const;

  JobStore& jobs_;
  const DriverToken& token_;
  const JsonDocument& hello_;
  const HangGate& hang_;
};

}  // namespace verdo::local
