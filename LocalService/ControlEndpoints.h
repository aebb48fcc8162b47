#pragma once

#include "LocalService/FileStore.h"
#include "LocalService/LocalService.h"
#include "LocalService/Routes.h"

#include <vector>

namespace verdo::local {

/// /control/…: what the C++ interface of the service offers, for scripts (see README.md). No token
/// is asked for; requests that a web page made are refused.
class ControlEndpoints final : public RouteGroup {
 public:
  ControlEndpoints(LocalService& service, const FileStore& files)
      : service_(service), files_(files) {}
  std::optional<Route> match(std::string_view method, std::string_view path) override;

 private:
  using Words = std::vector<std::string>;  // of the path, behind /control/

  void dispatch(Exchange& exchange, const Words& words) const;
  bool jobs(Exchange& exchange, const Words& words) const;
  bool oneJob(Exchange& exchange, const Words& words) const;
  void jobLines(Exchange& exchange, std::int64_t id) const;
  void jobWait(Exchange& exchange, std::int64_t id) const;
  bool faults(Exchange& exchange, const Words& words) const;
  bool outage(Exchange& exchange) const;
  bool pairings(Exchange& exchange, const Words& words) const;
  bool hello(Exchange& exchange) const;
  bool manifest(Exchange& exchange) const;
  bool document(Exchange& exchange, nlohmann::ordered_json (LocalService::*get)() const,
                void (LocalService::*set)(nlohmann::ordered_json),
                void (LocalService::*patch)(const nlohmann::ordered_json&)) const;
  bool requests(Exchange& exchange) const;
  bool provider(Exchange& exchange) const;
  bool rest(Exchange& exchange, const std::string& word) const;
  nlohmann::ordered_json known(std::int64_t id) const;

  LocalService& service_;
  const FileStore& files_;
};

}  // namespace verdo::local
