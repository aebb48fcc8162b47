#pragma once

#include "VerdoDriver/Model/Clock.h"
#include "VerdoDriver/Model/SettingsStore.h"
#include "VerdoDriver/Model/UpdateChecker.h"

#include <QObject>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace verdo {

/// What is known of other versions of the app: what the server's manifest says, and whether one has
/// taken the place of the running program. Main thread only.
class Releases : public QObject {
  Q_OBJECT
 public:
  /// Between two questions for the manifest that nobody asked for.
  static constexpr std::chrono::hours kManifestInterval{1};
  /// While the app runs, the manifest is asked for at least so often.
  static constexpr std::chrono::hours kManifestDay{24};

  struct Parts {
    std::unique_ptr<UpdateChecker> checker;
    SettingsStore* settings = nullptr;  ///< outlives it
    std::shared_ptr<Clock> clock;
    std::function<void(const std::string&)> openURL;
    std::function<bool()> isProgramReplaced;  ///< as SystemParts::isProgramReplaced
    Clock::Duration manifestInterval = kManifestInterval;
  };
  explicit Releases(Parts parts) : parts_(std::move(parts)) {}

  const std::optional<AppManifest>& manifest() const { return manifest_; }
  bool updateAvailable() const { return updateAvailable_; }
  /// Another program lies where this one was started from, and waits to be started.
  bool restartDue() const { return restartDue_; }
  /// Where the newest release can be had, and the browser tool; absent when the manifest names
  /// none, or one that must not be opened.
  std::optional<std::string> downloadURL() const;
  std::optional<std::string> egoInstallURL() const;
  /// These open them; each does nothing while there is none.
  void openDownload() const;
  void openEgoInstall() const;

  /// Asks for the manifest, and again a day later; and looks at the program's file.
  void refresh();
  /// The same for the file, but asks only when that is long ago.
  void refreshIfOld();
  /// Looks at the program's file, at the cost of a system call or two.
  void lookAtProgram();
  /// The server has said that there is an update.
  void updateWasNamed();
  /// Knows nothing of the server's any more.
  void forget();

 Q_SIGNALS:
  void changed();

 private:
  void take(const AppManifest& manifest);
  void schedule();

  const Parts parts_;
  std::optional<AppManifest> manifest_;
  bool updateAvailable_ = false;
  bool restartDue_ = false;
  std::optional<Clock::TimePoint> lastManifest_;  ///< when it was asked for
  std::shared_ptr<ClockToken> token_;
};

}  // namespace verdo
