#pragma once

#include "VerdoDriver/Model/AppManifest.h"
#include "VerdoDriver/Model/ModelHttp.h"

#include <QObject>
#include <functional>
#include <optional>
#include <string>

#include <tl/expected.hpp>

namespace verdo {

/// Why there is no manifest.
struct UpdateError {
  enum class Kind {
    badURL,             ///< the server's URL gives no address to ask
    refused,            ///< the server must not be used
    transport,          ///< no reply
    badServerResponse,  ///< a status outside of 200–299
    badReply,           ///< not a manifest
  };
  Kind kind;
  std::string description;  ///< one sentence for a person
  bool operator==(const UpdateError&) const = default;
};

/// Fetches the server's manifest of releases and keeps the last one. It never tries again by
/// itself. Main thread only.
class UpdateChecker : public QObject {
  Q_OBJECT
 public:
  using Outcome = tl::expected<AppManifest, UpdateError>;
  using Completion = std::function<void(const Outcome&)>;

  /// `currentVersion` is that of the running app.
  explicit UpdateChecker(std::string currentVersion, ProxyFor proxyFor = {},
                         std::string extraCaCertPath = {})
      : currentVersion_(std::move(currentVersion)),
        http_(std::move(proxyFor), std::move(extraCaCertPath)) {}

  /// Where a server keeps its manifest; absent when its URL is not one.
  [[nodiscard]] static std::optional<std::string> manifestURL(const std::string& server);

  /// Asks the server. The completion comes asynchronously, once, after `latest` was replaced; not
  /// when the checker is gone by then.
  void check(const std::string& server, bool allowInsecure, Completion completion);

  /// The manifest names a greater version than the running one. False when either is no version.
  bool isNewer(const AppManifest& manifest) const;
  const std::string& currentVersion() const { return currentVersion_; }
  /// The last manifest that was fetched; a failed check leaves it.
  const std::optional<AppManifest>& latest() const { return latest_; }

 private:
  void finish(const Outcome& outcome, const Completion& completion);

  const std::string currentVersion_;
  std::optional<AppManifest> latest_;
  ModelHttp http_;
};

}  // namespace verdo
