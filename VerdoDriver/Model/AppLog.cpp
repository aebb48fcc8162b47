#include "VerdoDriver/Model/AppLog.h"

#include "VerdoDriverCore/Values/Utf8.h"

#include <QString>

namespace verdo::AppLog {
namespace detail {

Q_LOGGING_CATEGORY(supervisorCategory, "verdo.supervisor", QtInfoMsg)
Q_LOGGING_CATEGORY(connectCategory, "verdo.connect", QtInfoMsg)
Q_LOGGING_CATEGORY(settingsCategory, "verdo.settings", QtInfoMsg)
Q_LOGGING_CATEGORY(keychainCategory, "verdo.keychain", QtInfoMsg)
Q_LOGGING_CATEGORY(keepAwakeCategory, "verdo.keepAwake", QtInfoMsg)
Q_LOGGING_CATEGORY(loginItemCategory, "verdo.loginItem", QtInfoMsg)
Q_LOGGING_CATEGORY(migrationCategory, "verdo.migration", QtInfoMsg)
Q_LOGGING_CATEGORY(updateCategory, "verdo.update", QtInfoMsg)
Q_LOGGING_CATEGORY(menuBarCategory, "verdo.menuBar", QtInfoMsg)
Q_LOGGING_CATEGORY(lifecycleCategory, "verdo.lifecycle", QtInfoMsg)

}  // namespace detail

namespace {

QString lineOf(const std::string& text) { return QString::fromStdString(forLog(text)); }

}  // namespace

void Channel::debug(const std::string& text) const { qCDebug(category_).noquote() << lineOf(text); }

void Channel::info(const std::string& text) const { qCInfo(category_).noquote() << lineOf(text); }

void Channel::error(const std::string& text) const {
  qCCritical(category_).noquote() << lineOf(text);
}

}  // namespace verdo::AppLog
