#pragma once

#include "LocalService/DriverEndpoints.h"
#include "LocalService/PairingStore.h"
#include "LocalService/Routes.h"

#include <string>

namespace verdo::local {

/// Pairing: an app asks for a code and polls, a person decides on the approve page. None of it asks
/// for a driver token; it is how one is got.
class PairingEndpoints final : public RouteGroup {
 public:
  /// Both outlive this. The token that is handed out is that of `settings` at that moment.
  PairingEndpoints(PairingStore& pairings, const DriverSettings& settings)
      : pairings_(pairings), settings_(settings) {}
  std::optional<Route> match(std::string_view method, std::string_view path) override;

 private:
  void start(Exchange& exchange) const;
  void poll(Exchange& exchange) const;
  void showPage(Exchange& exchange) const;
  void decide(Exchange& exchange) const;

  PairingStore& pairings_;
  const DriverSettings& settings_;
};

}  // namespace verdo::local
