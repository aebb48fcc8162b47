#pragma once

#include <QLoggingCategory>
#include <string>

/// The app's channels into the system log: the journal or standard error, where
/// QT_LOGGING_RULES="verdo.*.debug=true" shows the debug lines too. Any thread may write. Each text
/// is one entry: line ends and control characters, which may come from a server, are written out.
/// A text never holds a secret; of one, only its masked form (Masked.h).
namespace verdo::AppLog {

class Channel {
 public:
  explicit constexpr Channel(const QLoggingCategory& (*category)()) : category_(category) {}
  void debug(const std::string& text) const;
  void info(const std::string& text) const;
  void error(const std::string& text) const;

 private:
  const QLoggingCategory& (*category_)();
};

namespace detail {
Q_DECLARE_LOGGING_CATEGORY(supervisorCategory)
Q_DECLARE_LOGGING_CATEGORY(connectCategory)
Q_DECLARE_LOGGING_CATEGORY(settingsCategory)
Q_DECLARE_LOGGING_CATEGORY(keychainCategory)
Q_DECLARE_LOGGING_CATEGORY(keepAwakeCategory)
Q_DECLARE_LOGGING_CATEGORY(loginItemCategory)
Q_DECLARE_LOGGING_CATEGORY(migrationCategory)
Q_DECLARE_LOGGING_CATEGORY(updateCategory)
Q_DECLARE_LOGGING_CATEGORY(menuBarCategory)
Q_DECLARE_LOGGING_CATEGORY(lifecycleCategory)
}  // namespace detail

inline constexpr Channel supervisor{&detail::supervisorCategory};
inline constexpr Channel connect{&detail::connectCategory};  ///< pairing included
inline constexpr Channel settings{&detail::settingsCategory};
inline constexpr Channel keychain{&detail::keychainCategory};
inline constexpr Channel keepAwake{&detail::keepAwakeCategory};
inline constexpr Channel loginItem{&detail::loginItemCategory};
inline constexpr Channel migration{&detail::migrationCategory};
inline constexpr Channel update{&detail::updateCategory};
inline constexpr Channel menuBar{&detail::menuBarCategory};
inline constexpr Channel lifecycle{&detail::lifecycleCategory};

}  // namespace verdo::AppLog
