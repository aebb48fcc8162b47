#pragma once

#include "VerdoDriver/Model/KeepAwakeMode.h"
#include "VerdoDriver/Model/SecretPlace.h"

#include <QObject>
#include <QVariant>
#include <map>
#include <memory>
#include <optional>
#include <string>

class QSettings;
class QVariant;

namespace verdo {

/// The user's choices. Every assignment is written through at once, a repeated one too, and
/// announced. Lives on the main thread.
class SettingsStore : public QObject {
  Q_OBJECT
  Q_PROPERTY(std::string serverURL READ serverURL WRITE setServerURL NOTIFY serverURLChanged)
  Q_PROPERTY(
      bool launchAtLogin READ launchAtLogin WRITE setLaunchAtLogin NOTIFY launchAtLoginChanged)
  Q_PROPERTY(verdo::KeepAwakeMode keepAwakeMode READ keepAwakeMode WRITE setKeepAwakeMode NOTIFY
                 keepAwakeModeChanged)
  Q_PROPERTY(bool autoStart READ autoStart WRITE setAutoStart NOTIFY autoStartChanged)
  Q_PROPERTY(
      bool allowInsecure READ allowInsecure WRITE setAllowInsecure NOTIFY allowInsecureChanged)
 public:
  /// Reads all choices. Keys that are missing or hold nonsense give the defaults below; those of
  /// system-wide files do not count, since nobody but the user may allow plain http.
  explicit SettingsStore(std::unique_ptr<QSettings> defaults);
  ~SettingsStore() override;

  /// Base URL of the service; "" until the user has chosen one.
  const std::string& serverURL() const { return serverURL_; }
  bool launchAtLogin() const { return launchAtLogin_; }
  KeepAwakeMode keepAwakeMode() const { return keepAwakeMode_; }
  /// The driver starts together with the app; true by default, unlike the other two.
  bool autoStart() const { return autoStart_; }
  /// Plain http to a host that is not loopback is allowed.
  bool allowInsecure() const { return allowInsecure_; }

  /// Where the secrets are kept (SecretPlace.h); none before the first one was stored.
  const std::optional<SecretPlace>& secretPlace() const { return secretPlace_; }

  /// A secret was stored when the store last answered. What is locked today may still be there.
  bool hadToken() const { return hadToken_; }
  bool hadKey() const { return hadKey_; }

  /// The last choice could be written; false as on a full disk, when it holds until the app ends.
  bool isWritable() const { return isWritable_; }

  /// Writes what could not be written so far, if anything.
  void writeAgain();
  /// Goes back to the defaults and removes the file. False when what is stored stays there.
  bool forgetAll();

  void setServerURL(const std::string& url);
  void setLaunchAtLogin(bool launch);
  void setKeepAwakeMode(KeepAwakeMode mode);
  void setAutoStart(bool start);
  void setAllowInsecure(bool allow);
  void setSecretPlace(const SecretPlace& place);
  void setHadToken(bool had);
  void setHadKey(bool had);

 Q_SIGNALS:
  void serverURLChanged(const std::string& url);
  void launchAtLoginChanged(bool launch);
  void keepAwakeModeChanged(KeepAwakeMode mode);
  void autoStartChanged(bool start);
  void allowInsecureChanged(bool allow);
  void isWritableChanged(bool writable);

 private:
  void setFlag(bool& flag, const char* key, bool value, void (SettingsStore::*changed)(bool));
  void store(const char* key, const QVariant& value);
  bool write();

  const std::unique_ptr<QSettings> defaults_;
  std::string serverURL_;
  bool launchAtLogin_;
  KeepAwakeMode keepAwakeMode_;
  bool autoStart_;
  bool allowInsecure_;
  std::optional<SecretPlace> secretPlace_;
  bool hadToken_;
  bool hadKey_;
  bool isWritable_ = true;
  std::map<std::string, QVariant> unwritten_;  ///< choices that may not be in the file
};

}  // namespace verdo
