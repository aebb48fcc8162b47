#include "VerdoDriver/Platform/Linux/AutostartEntry.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/Linux/GLibHandles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr const char* kGroup = "Desktop Entry";
constexpr const char* kHidden = "Hidden";
constexpr const char* kGnomeEnabled = "X-GNOME-Autostart-enabled";

/// A path as the one word of an Exec line: quoted, and "%" doubled, since it begins a field code.
/// The escaping of a key file's text comes on top of it.
std::string execLine(const std::string& path) {
  std::string quoted = "\"";
  for (const char c : path) {
    if (std::string_view("\"`$\\").find(c) != std::string_view::npos) quoted += '\\';
    if (c == '%') quoted += '%';
    quoted += c;
  }
  return quoted + '"';
}

/// The entry as it is; an empty one when there is none, or none that can be read.
GLibPtr<GKeyFile> load(const std::string& path) {
  GLibPtr<GKeyFile> entry(g_key_file_new());
  constexpr auto kKeepAll =
      // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): GLib combines flags
      static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
  GLibPtr<GError> error;
  if (!g_key_file_load_from_file(entry.get(), path.c_str(), kKeepAll, OutError(error))) {
    entry.reset(g_key_file_new());
  }
  return entry;
}

std::string execOf(GKeyFile* entry) {
  const GLibPtr<gchar> exec(g_key_file_get_string(entry, kGroup, "Exec", nullptr));
  return exec ? exec.get() : "";
}

/// Puts the entry in the place of the old one; gives the reason when that failed.
std::string save(GKeyFile* entry, const std::string& path) {
  gsize size = 0;
  const GLibPtr<gchar> text(g_key_file_to_data(entry, &size, nullptr));
  const QString name = QFile::decodeName(path.c_str());
  QDir().mkpath(QFileInfo(name).path());
  QSaveFile file(name);
  if (file.open(QIODevice::WriteOnly)) {
    file.write(text.get(), static_cast<qint64>(size));
    if (file.commit()) return "";
  }
  return file.errorString().toStdString();
}

void logFailure(const char* operation, const std::string& reason) {
  AppLog::loginItem.error(fmt::format("[LoginItem] {} failed: {}", operation, reason));
}

}  // namespace

AutostartEntry::AutostartEntry(std::string executable, std::string path)
    : executable_(std::move(executable)), path_(std::move(path)) {}

std::string AutostartEntry::defaultPath() {
  return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation).toStdString() +
         "/autostart/verdo-driver.desktop";
}

bool AutostartEntry::isEnabled() const {
  const auto entry = load(path_);
  // An absent key reads as false.
  if (g_key_file_get_boolean(entry.get(), kGroup, kHidden, nullptr)) return false;
  if (g_key_file_has_key(entry.get(), kGroup, kGnomeEnabled, nullptr) &&
      !g_key_file_get_boolean(entry.get(), kGroup, kGnomeEnabled, nullptr)) {
    return false;
  }
  return !execOf(entry.get()).empty();
}

void AutostartEntry::setEnabled(bool enabled) {
  if (!enabled) {
    QFile file(QFile::decodeName(path_.c_str()));
    if (file.remove() || !file.exists()) {
      AppLog::loginItem.info("[LoginItem] disabled");
    } else {
      logFailure("unregister", file.errorString().toStdString());
    }
    return;
  }
  const GLibPtr<GKeyFile> entry(g_key_file_new());
  const std::pair<const char*, std::string> fields[] = {
      {"Type", "Application"},
      {"Name", "Verdo Driver"},
      {"Comment", "Lets this computer work for Verdo"},
      {"Exec", execLine(executable_)},
      {"Icon", "verdo-driver"},
      {"Terminal", "false"},
      {kGnomeEnabled, "true"},
  };
  for (const auto& [key, value] : fields) {
    g_key_file_set_string(entry.get(), kGroup, key, value.c_str());
  }
  if (const auto reason = save(entry.get(), path_); !reason.empty()) logFailure("register", reason);
  AppLog::loginItem.info(isEnabled() ? "[LoginItem] enabled"
                                     : "[LoginItem] register left it notRegistered");
}

void AutostartEntry::refresh() {
  const auto entry = load(path_);
  if (!isEnabled() || execOf(entry.get()) == execLine(executable_)) return;
  g_key_file_set_string(entry.get(), kGroup, "Exec", execLine(executable_).c_str());
  if (const auto reason = save(entry.get(), path_); !reason.empty()) {
    logFailure("refresh", reason);
  } else {
    AppLog::loginItem.info("[LoginItem] entry renewed: the app has moved");
  }
}

}  // namespace verdo
