#pragma once

#include "VerdoDriverCore/Network/HttpSession.h"

#include <QObject>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace verdo {

/// The proxy for a URL; empty: what the environment says. Any thread; may block for some seconds.
using ProxyFor = std::function<std::string(const std::string& url)>;

/// Short requests of the model, answered on the main thread. Redirects are not followed, a reply
/// longer than 1 MiB is an error, and so is one that takes more than a minute, however steadily it
/// trickles in. The system's roots are trusted, and what the user adds. Main thread only.
///
/// Completions come asynchronously, each exactly once, but not after this object has gone: its
/// owner may therefore capture itself.
class ModelHttp : public QObject {
 public:
  using Completion = std::function<void(const HttpResult&)>;

  /// `proxyFor` may be null; `extraCaCertPath`, a PEM file of certificates to trust, empty.
  explicit ModelHttp(ProxyFor proxyFor = {}, std::string extraCaCertPath = {})
      : proxyFor_(std::move(proxyFor)), extraCaCertPath_(std::move(extraCaCertPath)) {}

  /// Sends the request with this limit of inactivity. The network thread starts with the first
  /// request, and ends, cancelling what is in flight, with this object.
  void send(HttpRequest request, std::chrono::seconds timeout, Completion completion);
  /// Runs `block` as a completion is run: for outcomes that need no request.
  void later(std::function<void()> block);

 private:
  void failLater(const Completion& completion, const std::string& text);
  void sendThrough(const std::string& proxy, HttpRequest request, Completion completion);

  const ProxyFor proxyFor_;
  const std::string extraCaCertPath_;
  std::string proxy_;  ///< of the session
  std::unique_ptr<HttpSession> session_;
};

}  // namespace verdo
