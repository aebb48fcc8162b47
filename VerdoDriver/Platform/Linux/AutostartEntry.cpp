#include "VerdoDriver/Platform/Linux/AutostartEntry.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/Linux/GLibHandles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr const char* kGroup = "Desktop Entry";
constexpr const char* kHidden = "Hidden";
constexpr const char* kGnomeEnabled = "X-GNOME-Autostart-enabled";

/// A path that means the same to every desktop, unquoted.
bool isPlain(const std::string& path) {
  return std::all_of(path.begin(), path.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("/._-+,:@").find(static_cast<char>(c)) != std::string_view::npos;
  });
}

/// A path as the one word of an Exec line: quoted, and "%" doubled, since it begins a field code.
/// The escaping of a key file's text comes on top of it.
std::string quoted(const std::string& path) {
  std::string word = "\"";
  for (const char c : path) {
    if (std::string_view("\"`$\\").find(c) != std::string_view::npos) word += '\\';
    if (c == '%') word += '%';
    word += c;
  }
  return word + '"';
}

std::string targetOf(const std::string& link) {
  std::error_code ignored;  // no link, no target
  return std::filesystem::read_symlink(link, ignored);
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
    const auto length = static_cast<qint64>(size);
    // A commit does not tell that the last bytes found no room, and would replace what is there.
    if (file.write(text.get(), length) == length && file.flush() && file.commit()) return "";
  }
  return file.errorString().toStdString();
}

/// Once the app was removed, desktops pass the entry over without a word.
void setProgram(GKeyFile* entry, const std::string& exec, const std::string& program) {
  g_key_file_set_string(entry, kGroup, "Exec", exec.c_str());
  g_key_file_set_string(entry, kGroup, "TryExec", program.c_str());
}

void logFailure(const char* operation, const std::string& reason) {
  AppLog::loginItem.error(fmt::format("[LoginItem] {} failed: {}", operation, reason));
}

}  // namespace

AutostartEntry::AutostartEntry(std::string executable, std::string icon, std::string path,
                               std::string link)
    : executable_(std::move(executable)),
      icon_(std::move(icon)),
      path_(std::move(path)),
      link_(std::move(link)) {}

std::string AutostartEntry::defaultPath() {
  return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation).toStdString() +
         "/autostart/verdo-driver.desktop";
}

std::string AutostartEntry::defaultLink() {
  return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation).toStdString() +
         "/verdo-driver/autostart";
}

std::string AutostartEntry::programFor(const std::string& executable) {
  const char* image = std::getenv("APPIMAGE");
  const char* mount = std::getenv("APPDIR");
  // The variables also reach whatever another AppImage, such as a terminal, starts.
  const bool isOurs = image && *image == '/' && mount && *mount == '/' &&
                      executable.starts_with(std::string(mount) + "/");
  return isOurs ? image : executable;
}

bool AutostartEntry::needsLink() const { return !isPlain(executable_) && isPlain(link_); }

std::string AutostartEntry::exec() const {
  // With a link that is no plainer, the entry is at least what the rules ask for.
  return isPlain(program()) ? program() : quoted(program());
}

/// The path that the entry names.
std::string AutostartEntry::program() const { return needsLink() ? link_ : executable_; }

/// Gives the reason when it failed.
std::string AutostartEntry::makeLink() const {
  if (targetOf(link_) == executable_) return "";
  std::error_code error;
  const std::string fresh = link_ + ".new";
  std::filesystem::create_directories(std::filesystem::path(link_).parent_path(), error);
  std::filesystem::remove(fresh, error);
  std::filesystem::create_symlink(executable_, fresh, error);
  if (!error) std::filesystem::rename(fresh, link_, error);
  return error ? fmt::format("{}: {}", link_, error.message()) : "";
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
      std::error_code ignored;  // one that stays harms nobody
      if (!targetOf(link_).empty()) std::filesystem::remove(link_, ignored);
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
      {"Icon", icon_},
      {"Terminal", "false"},
      {kGnomeEnabled, "true"},
  };
  for (const auto& [key, value] : fields) {
    g_key_file_set_string(entry.get(), kGroup, key, value.c_str());
  }
  setProgram(entry.get(), exec(), program());
  auto reason = needsLink() ? makeLink() : "";
  if (reason.empty()) reason = save(entry.get(), path_);
  if (!reason.empty()) logFailure("register", reason);
  AppLog::loginItem.info(isEnabled() ? "[LoginItem] enabled"
                                     : "[LoginItem] register left it notRegistered");
}

void AutostartEntry::refresh() {
  if (!isEnabled()) return;
  const auto entry = load(path_);
  const std::string named = execOf(entry.get());
  // It could be read a moment ago: what the user added to it must not be written over.
  if (named.empty()) return logFailure("refresh", path_ + " cannot be read");
  const bool isStale = named != exec();
  if (!isStale && (!needsLink() || targetOf(link_) == executable_)) return;
  std::string reason = needsLink() ? makeLink() : "";
  if (reason.empty() && isStale) {
    setProgram(entry.get(), exec(), program());
    reason = save(entry.get(), path_);
  }
  if (!reason.empty()) {
    logFailure("refresh", reason);
  } else {
    AppLog::loginItem.info("[LoginItem] entry renewed: the app has moved");
  }
}

}  // namespace verdo
