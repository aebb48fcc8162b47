#pragma once

#include "LocalService/HangGate.h"
#include "LocalService/JobStore.h"
#include "LocalService/Routes.h"
#include "VerdoDriverCore/System/Sync.h"

#include <string>

#include <nlohmann/json.hpp>

namespace verdo::local {

/// The token that is good now, and the reply to hello. Every member may be called from any thread.
class DriverSettings {
 public:
  explicit DriverSettings(std::string token);

  std::string token() const;
  void setToken(std::string token);
  void revokeToken();
  bool accepts(const std::string& authorization) const;  ///< value of an Authorization header

  nlohmann::ordered_json hello() const;
  void setHello(nlohmann::ordered_json reply);
  void patchHello(const nlohmann::ordered_json& patch);
  static nlohmann::ordered_json defaultHello();

 private:
  mutable Mutex mutex_;
  std::string token_ GUARDED_BY(mutex_);
  bool revoked_ GUARDED_BY(mutex_) = false;
  nlohmann::ordered_json hello_ GUARDED_BY(mutex_);
};

/// The driver protocol: hello, poll, lines and complete.
class DriverEndpoints final : public RouteGroup {
 public:
  DriverEndpoints(JobStore& jobs, const DriverSettings& settings, const HangGate& hang)
      : jobs_(jobs), settings_(settings), hang_(hang) {}
  std::optional<Route> match(std::string_view method, std::string_view path) override;

 private:
  Route route(std::string endpoint, std::optional<std::int64_t> jobId,
              std::function<void(Exchange&)> handle) const;
  void authorize(const httplib::Request& request) const;
  void hello(Exchange& exchange) const;
  void poll(Exchange& exchange) const;
  void lines(Exchange& exchange, std::int64_t id) const;
  void complete(Exchange& exchange, std::int64_t id) const;

  JobStore& jobs_;
  const DriverSettings& settings_;
  const HangGate& hang_;
};

}  // namespace verdo::local
