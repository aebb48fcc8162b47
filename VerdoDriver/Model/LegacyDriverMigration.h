#pragma once

#include "VerdoDriver/Model/KeepAwakeMode.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <tl/expected.hpp>

namespace verdo {

/// A driver that was installed for the terminal before the app existed. Holds no secrets.
struct LegacyInstall {
  std::string plistPath;    ///< of its launch agent
  std::string envFilePath;  ///< of its settings
  std::string appDirPath;   ///< of its data directory
  bool plistExists = false;
  bool agentLoaded = false;  ///< launchd knows the agent, which may outlive its plist
  bool envFileExists = false;
  std::optional<std::string> server;
  std::optional<std::string> tokenLast4;  ///< masked
  std::optional<std::string> keyLast4;    ///< masked
  std::optional<KeepAwakeMode> keepAwakeMode;
  bool operator==(const LegacyInstall&) const = default;
};

/// What its env file says. What is missing or empty there is absent.
struct LegacySecrets {
  std::optional<std::string> server;
  std::optional<std::string> token;
  std::optional<std::string> llmKey;
  std::optional<std::string> llmBase;
  std::optional<KeepAwakeMode> keepAwakeMode;
};

/// Finds, reads and removes the terminal driver of one user. Blocks while launchctl runs, for
/// `launchctlLimit` at most each time. Any thread may call it, one at a time.
class LegacyDriverMigration {
 public:
  /// Failures are one sentence for the user.
  using Result = tl::expected<void, std::string>;

  /// `home`: the user's home directory, absolute; `uid`: the user's.
  LegacyDriverMigration(std::string home, std::string launchctlPath, std::uint32_t uid,
                        std::chrono::milliseconds launchctlLimit = std::chrono::seconds(10));
  /// That of the user who runs this process.
  LegacyDriverMigration();

  /// Absent when there is neither a launch agent nor its plist: an env file or a data directory
  /// alone belongs to whoever uses the driver without the agent.
  [[nodiscard]] std::optional<LegacyInstall> detect() const;
  /// Everything is absent when the env file is missing, unreadable or no UTF-8.
  LegacySecrets readSecrets() const;
  /// Stops the agent, then removes its plist and the data directory. Stops at the first that
  /// cannot be removed. That there is nothing to stop or to remove is success; the env file stays.
  [[nodiscard]] Result removeAgent() const;
  [[nodiscard]] Result deleteEnvFile() const;

  std::string plistPath() const;
  std::string envFilePath() const;
  std::string appDirPath() const;

  /// The entries of an env file. Unlike the driver's own reader (EnvFile.h) it strips one pair of
  /// double quotes, then one of single quotes, and takes the first of two entries with one key.
  static std::map<std::string, std::string> parseEnvFile(const std::string& text);

 private:
  bool agentLoaded() const;
  std::int32_t launchctl(const std::vector<std::string>& arguments) const;
  std::string serviceTarget() const;

  std::string home_;
  std::string launchctlPath_;
  std::uint32_t uid_;
  std::chrono::milliseconds launchctlLimit_;
};

}  // namespace verdo
