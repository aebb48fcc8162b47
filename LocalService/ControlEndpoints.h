#pragma once

#include "LocalService/ControlJobs.h"
#include "LocalService/LocalService.h"
#include "LocalService/Routes.h"

#include <vector>

namespace verdo::local {

/// /control/…: what the C++ interface of the service offers, for scripts (see README.md). No token
/// is asked for; requests that a web page made are refused.
class ControlEndpoints final : public RouteGroup {
 public:
  /// All outlive this; `service` may still be in the making, `jobs` and `files` are its own.
  ControlEndpoints(LocalService& service, Jobs& jobs, const FileStore& files)
      : service_(service), jobs_(jobs, files) {}
  std::optional<Route> match(std::string_view method, std::string_view path) override;

 private:
  using Words = std::vector<std::string>;  // of the path, behind /control/

  void dispatch(Exchange& exchange, const Words& words) const;
  bool faults(Exchange& exchange, const Words& words) const;
  bool outage(Exchange& exchange) const;
  bool pairings(Exchange& exchange, const Words& words) const;
  bool requests(Exchange& exchange) const;
  bool provider(Exchange& exchange) const;
  bool rest(Exchange& exchange, const std::string& word) const;

  LocalService& service_;
  const ControlJobs jobs_;
};

}  // namespace verdo::local
