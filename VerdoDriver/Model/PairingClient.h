#pragma once

#include "VerdoDriver/Model/ModelHttp.h"
#include "VerdoDriver/Model/PairingService.h"
#include "VerdoDriverCore/Values/JV.h"

#include <string>

namespace verdo {

/// Pairing over HTTP. It logs addresses and refusals, neither codes nor tokens.
class PairingClient : public PairingService {
 public:
  /// `clientHeader` names the app and its version to the server: "app/1.2.3".
  explicit PairingClient(std::string clientHeader, ProxyFor proxyFor = {},
                         std::string extraCaCertPath = {})
      : clientHeader_(std::move(clientHeader)),
        http_(std::move(proxyFor), std::move(extraCaCertPath)) {}

  void start(const std::string& server, bool allowInsecure, const std::string& host,
             StartCompletion completion) override;
  void poll(const std::string& server, bool allowInsecure, const std::string& code,
            PollCompletion completion) override;

 private:
  using Body = tl::expected<std::string, PairingError>;

  void post(const std::string& server, bool allowInsecure, const std::string& path,
            const JV& payload, std::function<void(const Body&)> completion);

  const std::string clientHeader_;
  ModelHttp http_;
};

}  // namespace verdo
