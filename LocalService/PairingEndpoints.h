#pragma once

#include "LocalService/DriverToken.h"
#include "LocalService/PairingStore.h"
#include "LocalService/Routes.h"

#include <string>

namespace verdo::local {

/// Pairing: an app asks for a code and polls, a person decides on the approve page. None of it asks
/// for a driver token; it is how one is got.
class PairingEndpoints final : public RouteGroup {
 public:
  /// Both outlive this. The token that is handed out is the one that is good at that moment.
  PairingEndpoints(PairingStore& pairings, const DriverToken& token)
      : pairings_(pairings), token_(token) {}
  std::optional<Route> match(std::string_view method, std::string_view path) override;

 private:
  void start(Exchange& exchange) const;
  void poll(Exchange& exchange) const;
  void showPage(Exchange& exchange) const;
  void decide(Exchange& exchange) const;

  PairingStore& pairings_;
  const DriverToken& token_;
};

}  // namespace verdo::local
