#pragma once

#include "VerdoDriver/MenuBar/MenuBarController.h"
#include "VerdoDriver/Model/AppModel.h"

#include <QObject>
#include <functional>
#include <memory>

namespace verdo {

/// Leads the app through its life: launch, the wish to quit, and the end of the session. Main
/// thread only.
class AppDelegate : public QObject {
 public:
  /// What stays of a stop when the session ends: the system does not wait for long.
  static constexpr std::chrono::seconds kSessionEndLimit{5};

  struct Options {
    bool importLegacy = false;  ///< without a user (-VERDOImportLegacy)
    bool showPopover = false;
  };
  /// `end` is called once, when the driver has stopped or its time is up.
  AppDelegate(AppModel& model, MenuBarController& menuBar, std::function<void()> end);

  void didFinishLaunching(const Options& options);
  /// Stops the driver, for 75 s at most, and ends. Asking again changes nothing.
  void quit();
  /// As quit(); but whoever ends the process starts the program anew, unless a wish to quit or the
  /// end of the session comes meanwhile.
  void restart();
  bool isRestarting() const { return isRestarting_; }
  /// Stops the driver and ends within kSessionEndLimit; jobs that go on are killed.
  void sessionEnds();
  /// Stops the driver within kSessionEndLimit, and blocks until then: no event loop runs any more.
  /// The caller ends the process.
  void displayIsLost();

 private:
  void stopWithin(std::chrono::seconds limit);
  void endUnlessRemoving();
  void driverStopped();

  AppModel& model_;
  MenuBarController& menuBar_;
  std::function<void()> end_;  ///< until it was called
  bool isStopping_ = false;
  bool isRestarting_ = false;
  bool hasStopped_ = false;
};

}  // namespace verdo
