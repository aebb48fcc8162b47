#include "VerdoDriver/Model/SettingsStore.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriverCore/Values/Url.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <algorithm>
#include <cstdio>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

namespace verdo {
namespace {

constexpr const char* kServerURL = "serverURL";
constexpr const char* kLaunchAtLogin = "launchAtLogin";
constexpr const char* kKeepAwakeMode = "keepAwakeMode";
constexpr const char* kAutoStart = "autoStart";
constexpr const char* kAllowInsecure = "allowInsecure";
constexpr const char* kSecretPlace = "secretPlace";
constexpr const char* kHadToken = "hadToken";
constexpr const char* kHadKey = "hadKey";

/// Keeps a file under a second name while it is replaced. QSettings replaces it also by one whose
/// bytes found no room on the disk, and says nothing. Takes no room itself.
class KeptFile {
 public:
  explicit KeptFile(const QString& path)
      : path_(QFile::encodeName(path).toStdString()), kept_(path_ + ".kept") {
    ::unlink(kept_.c_str());  // of a crash
    isThere_ = ::link(path_.c_str(), kept_.c_str()) == 0;
  }
  ~KeptFile() {
    if (isThere_) ::unlink(kept_.c_str());
  }
  KeptFile(const KeptFile&) = delete;
  KeptFile& operator=(const KeptFile&) = delete;

  /// The file is what it was.
  void restore() { isThere_ = isThere_ && ::rename(kept_.c_str(), path_.c_str()) != 0; }

 private:
  const std::string path_;
  const std::string kept_;
  bool isThere_ = false;
};

/// Whether a file of settings holds these keys, as far as they stand in it as they are, to its last
/// line.
bool isWhole(const QString& path, const QStringList& keys) {
  QFile file(path);
  if (keys.isEmpty()) return true;
  if (!file.open(QIODevice::ReadOnly)) return false;
  const QByteArray text = file.readAll();
  return text.endsWith('\n') && std::all_of(keys.begin(), keys.end(), [&](const QString& key) {
           const bool isPlain = std::all_of(
               key.begin(), key.end(), [](QChar c) { return c.isLetter() && c.unicode() < 128; });
           return !isPlain || text.contains('\n' + key.toLatin1() + '=');
         });
}

std::unique_ptr<QSettings> ofTheUserAlone(std::unique_ptr<QSettings> defaults) {
  defaults->setFallbacksEnabled(false);
  return defaults;
}

}  // namespace

SettingsStore::SettingsStore(std::unique_ptr<QSettings> defaults)
    : defaults_(ofTheUserAlone(std::move(defaults))),
      serverURL_(defaults_->value(kServerURL).toString().toStdString()),
      launchAtLogin_(defaults_->value(kLaunchAtLogin, false).toBool()),
      keepAwakeMode_(keepAwakeModeOf(defaults_->value(kKeepAwakeMode).toString().toStdString())),
      autoStart_(defaults_->value(kAutoStart, true).toBool()),
      allowInsecure_(defaults_->value(kAllowInsecure, false).toBool()),
      secretPlace_(secretPlaceOf(defaults_->value(kSecretPlace).toString().toStdString())),
      hadToken_(defaults_->value(kHadToken, false).toBool()),
      hadKey_(defaults_->value(kHadKey, false).toBool()) {}

SettingsStore::~SettingsStore() = default;

void SettingsStore::setServerURL(const std::string& url) {
  serverURL_ = url;
  store(kServerURL, QString::fromStdString(url));
  Q_EMIT serverURLChanged(serverURL_);
}

void SettingsStore::setKeepAwakeMode(KeepAwakeMode mode) {
  keepAwakeMode_ = mode;
  store(kKeepAwakeMode, QString(nameOf(mode)));
  Q_EMIT keepAwakeModeChanged(mode);
}

void SettingsStore::setLaunchAtLogin(bool launch) {
  setFlag(launchAtLogin_, kLaunchAtLogin, launch, &SettingsStore::launchAtLoginChanged);
}

void SettingsStore::setAutoStart(bool start) {
  setFlag(autoStart_, kAutoStart, start, &SettingsStore::autoStartChanged);
}

void SettingsStore::setAllowInsecure(bool allow) {
  setFlag(allowInsecure_, kAllowInsecure, allow, &SettingsStore::allowInsecureChanged);
}

void SettingsStore::setSecretPlace(const SecretPlace& place) {
  secretPlace_ = place;
  store(kSecretPlace, QString::fromStdString(toText(place)));
}

void SettingsStore::setHadToken(bool had) {
  hadToken_ = had;
  store(kHadToken, had);
}

void SettingsStore::setHadKey(bool had) {
  hadKey_ = had;
  store(kHadKey, had);
}

void SettingsStore::setFlag(bool& flag, const char* key, bool value,
                            void (SettingsStore::*changed)(bool)) {
  flag = value;
  store(key, value);
  Q_EMIT(this->*changed)(value);
}

void SettingsStore::store(const char* key, const QVariant& value) {
  unwritten_[key] = value;
  defaults_->setValue(key, value);
  AppLog::settings.debug(
      fmt::format("[SettingsStore] {} = {}", key, withoutUserInfo(value.toString().toStdString())));
  write();
}

/// At once: a crash later must not undo the choice. True when all is in the file.
bool SettingsStore::write() {
  // An object that has failed once says so for ever: another one for the same file, which has the
  // changes of both, is asked.
  const bool isText = defaults_->format() == QSettings::IniFormat;
  // First: to make the other object writes, and it then reads what is there.
  const QStringList keys = defaults_->allKeys();
  KeptFile before(defaults_->fileName());
  QSettings file(defaults_->fileName(), defaults_->format());
  file.sync();
  // The other error tells of lines that make no sense: they are gone now.
  bool isWritten = file.status() != QSettings::AccessError;
  if (isWritten && isText && !isWhole(defaults_->fileName(), keys)) {
    before.restore();
    isWritten = false;
  }
  if (isWritten) {
    unwritten_.clear();
  } else {
    AppLog::settings.error(
        fmt::format("[SettingsStore] cannot write {}", defaults_->fileName().toStdString()));
  }
  if (std::exchange(isWritable_, isWritten) != isWritten) Q_EMIT isWritableChanged(isWritten);
  return isWritten;
}

void SettingsStore::writeAgain() {
  if (isWritable_) return;
  // Again, since what was put back does not have them.
  for (const auto& [key, value] : unwritten_) defaults_->setValue(key, value);
  write();
}

bool SettingsStore::forgetAll() {
  unwritten_.clear();
  defaults_->clear();
  bool isGone = write();
  if (isGone && defaults_->format() == QSettings::IniFormat) {
    const QFileInfo file(defaults_->fileName());
    isGone = QFile::remove(file.filePath()) || !file.exists();
    QDir().rmdir(file.path());  // unless something else lies there
  }
  secretPlace_.reset();
  hadToken_ = hadKey_ = false;
  Q_EMIT serverURLChanged(serverURL_ = "");
  Q_EMIT launchAtLoginChanged(launchAtLogin_ = false);
  Q_EMIT keepAwakeModeChanged(keepAwakeMode_ = keepAwakeModeOf(""));
  Q_EMIT autoStartChanged(autoStart_ = true);
  Q_EMIT allowInsecureChanged(allowInsecure_ = false);
  return isGone;
}

}  // namespace verdo
