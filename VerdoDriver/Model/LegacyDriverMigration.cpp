#include "VerdoDriver/Model/LegacyDriverMigration.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/Process/Which.h"
#include "VerdoDriverCore/Values/Url.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <QString>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

#include <fmt/format.h>
#include <unistd.h>

namespace verdo {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCaffeinateEnv = "VERDO_CAFFEINATE";
constexpr std::uintmax_t kMaxEnvFile = 1 << 20;     ///< bytes; a few lines are usual
constexpr std::chrono::milliseconds kChildPoll(5);  ///< between two looks at launchctl

/// Empty when the file is missing, unreadable, far too large or no UTF-8.
std::string textOf(const std::string& path) {
  std::error_code ignored;
  // Reading a FIFO would not end.
  if (!fs::is_regular_file(path, ignored) || fs::file_size(path, ignored) > kMaxEnvFile) return {};
  std::ostringstream content;  // which, unlike an iterator, throws nothing where reading fails
  content << std::ifstream(path, std::ios::binary).rdbuf();
  const std::string text = content.str();
  return repairUtf8(text) == text ? text : std::string();
}

QString withoutQuotes(const QString& text, QChar quote) {
  const bool isQuoted = text.size() >= 2 && text.startsWith(quote) && text.endsWith(quote);
  return isQuoted ? text.mid(1, text.size() - 2) : text;
}

std::optional<std::string> maskedIfPresent(const std::optional<std::string>& secret) {
  return secret ? std::optional(masked(*secret)) : std::nullopt;
}

LegacyDriverMigration::Result removed(const std::string& path, const std::error_code& error) {
  if (!error) return {};
  return tl::make_unexpected(fmt::format("could not delete {}: {}", path, error.message()));
}

std::int32_t failedToRun(const std::string& reason) {
  AppLog::migration.error("[Migration] launchctl failed to run: " + reason);
  return -1;
}

}  // namespace

LegacyDriverMigration::LegacyDriverMigration(std::string home, std::string launchctlPath,
                                             std::uint32_t uid,
                                             std::chrono::milliseconds launchctlLimit)
    : home_(std::move(home)),
      launchctlPath_(std::move(launchctlPath)),
      uid_(uid),
      launchctlLimit_(launchctlLimit) {}

LegacyDriverMigration::LegacyDriverMigration()
    : LegacyDriverMigration(DriverConstants::expandTilde("~"), "/bin/launchctl", ::getuid()) {}

std::string LegacyDriverMigration::plistPath() const {
  return home_ + "/Library/LaunchAgents/com.verdo.driver.plist";
}

std::string LegacyDriverMigration::envFilePath() const {
  return home_ + "/.config/verdo/driver.env";
}

std::string LegacyDriverMigration::appDirPath() const { return home_ + "/.local/share/verdo"; }

std::string LegacyDriverMigration::serviceTarget() const {
  return fmt::format("gui/{}/com.verdo.driver", uid_);
}

std::optional<LegacyInstall> LegacyDriverMigration::detect() const {
  std::error_code ignored;
  LegacyInstall install;
  install.plistPath = plistPath();
  install.envFilePath = envFilePath();
  install.appDirPath = appDirPath();
  install.plistExists = fs::exists(plistPath(), ignored);
  install.agentLoaded = agentLoaded();
  if (!install.plistExists && !install.agentLoaded) {
    AppLog::migration.info("[Migration] no legacy driver");
    return std::nullopt;
  }
  install.envFileExists = fs::exists(envFilePath(), ignored);
  const LegacySecrets secrets = readSecrets();
  if (secrets.server) install.server = withoutUserInfo(*secrets.server);
  install.tokenLast4 = maskedIfPresent(secrets.token);
  install.keyLast4 = maskedIfPresent(secrets.llmKey);
  install.keepAwakeMode = secrets.keepAwakeMode;
  AppLog::migration.info(
      fmt::format("[Migration] legacy driver found: plist={} loaded={} env={} token={} key={}",
                  install.plistExists, install.agentLoaded, install.envFileExists,
                  secrets.token.has_value(), secrets.llmKey.has_value()));
  return install;
}

LegacySecrets LegacyDriverMigration::readSecrets() const {
  const auto entries = parseEnvFile(textOf(envFilePath()));
  const auto valueOf = [&](const char* key) -> std::optional<std::string> {
    const auto found = entries.find(key);
    if (found == entries.end() || found->second.empty()) return std::nullopt;
    return found->second;
  };
  LegacySecrets secrets{.server = valueOf(DriverConstants::serverEnv),
                        .token = valueOf(DriverConstants::tokenEnv),
                        .llmKey = valueOf(DriverConstants::llmKeyEnv),
                        .llmBase = valueOf(DriverConstants::llmBaseEnv),
                        .keepAwakeMode = std::nullopt};
  if (const auto mode = entries.find(kCaffeinateEnv); mode != entries.end()) {
    secrets.keepAwakeMode =
        mode->second == "job" ? KeepAwakeMode::whileJobRuns : KeepAwakeMode::always;
  }
  return secrets;
}

std::map<std::string, std::string> LegacyDriverMigration::parseEnvFile(const std::string& text) {
  std::map<std::string, std::string> entries;
  const QString all = QString::fromStdString(text).replace('\r', '\n');
  for (const QString& untrimmed : all.split('\n', Qt::SkipEmptyParts)) {
    const QString line = untrimmed.trimmed();
    const auto equals = line.indexOf('=');
    if (line.startsWith('#') || equals < 0) continue;
    const QString value = line.mid(equals + 1).trimmed();
    entries.try_emplace(line.left(equals).trimmed().toStdString(),
                        withoutQuotes(withoutQuotes(value, '"'), '\'').toStdString());
  }
  return entries;
}

LegacyDriverMigration::Result LegacyDriverMigration::removeAgent() const {
  // Any status will do: the agent may not be loaded.
  const auto status = launchctl({"bootout", serviceTarget()});
  AppLog::migration.info(fmt::format("[Migration] launchctl bootout → {}", status));
  std::error_code error;
  fs::remove(plistPath(), error);
  if (error) return removed(plistPath(), error);
  fs::remove_all(appDirPath(), error);
  if (error) return removed(appDirPath(), error);
  AppLog::migration.info("[Migration] removed the launchd agent and " + appDirPath());
  return {};
}

LegacyDriverMigration::Result LegacyDriverMigration::deleteEnvFile() const {
  std::error_code error;
  fs::remove(envFilePath(), error);
  if (!error) AppLog::migration.info("[Migration] removed " + envFilePath());
  return removed(envFilePath(), error);
}

bool LegacyDriverMigration::agentLoaded() const {
  return launchctl({"print", serviceTarget()}) == 0;
}

std::int32_t LegacyDriverMigration::launchctl(const std::vector<std::string>& arguments) const {
  // Nothing to say where there is no launchd.
  if (!Which::isExecutableFile(launchctlPath_)) return -1;
  std::vector<std::string> argv{launchctlPath_};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  try {
    const auto child = Spawn::launch(launchctlPath_, argv, currentEnvironment(), true);
    LineReader unread(child->takeStdout(), [](const auto&) {});
    unread.feed(child->takeStdin(), "");
    unread.start();
    const auto deadline = std::chrono::steady_clock::now() + launchctlLimit_;
    while (!child->poll()) {
      if (std::chrono::steady_clock::now() >= deadline) {
        return failedToRun(fmt::format("no answer within {} ms", launchctlLimit_.count()));
      }
      std::this_thread::sleep_for(kChildPoll);
    }
    const auto status = child->wait();
    return status < 0 ? failedToRun("it was ended by a signal") : status;
  } catch (const Spawn::Error& error) {
    return failedToRun(error.what());
  } catch (const std::system_error& error) {  // no room for a thread
    return failedToRun(error.what());
  }
}

}  // namespace verdo
