#pragma once

#include "VerdoDriver/Model/AppModel.h"

#include <QObject>
#include <QSystemTrayIcon>
#include <QWidget>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace verdo {

/// Owns the tray icon and the popover's window. Draws icon and tooltip from the model, and only
/// what has changed of them; a click on the icon shows the popover beside it, or hides it. While
/// there is no tray, or where the window cannot be put anywhere (Wayland), the popover is an
/// ordinary window. Main thread only.
class MenuBarController : public QObject {
  Q_OBJECT
 public:
  /// What the system does better than Qt; empty where it does not.
  struct System {
    /// The icon in the system's own symbols; null where it has none for this.
    std::function<QIcon(Connection connection, bool updateAvailable)> icon;
    /// Gives the popover's window, which was just shown beside the icon, its place among others.
    std::function<void(WId window)> present;
  };

  /// `popover` is what the window shows; the controller takes it. `model` outlives it.
  MenuBarController(AppModel& model, std::unique_ptr<QWidget> popover, System system = {});
  ~MenuBarController() override;

  /// A tray icon may be made now: until then none is. To be called once.
  void makeStatusItem();
  void showPopover();
  void hidePopover();
  bool isPopoverVisible() const;
  /// What the icon says when it is pointed at.
  const std::string& tooltip() const { return tooltip_; }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  /// Everything that the icon's looks depend on.
  struct Look {
    Connection connection;
    bool updateAvailable;
    bool operator==(const Look&) const = default;
  };

  void updateIcon();
  void statusItemClicked(QSystemTrayIcon::ActivationReason reason);
  void chooseKind();
  void makeWindow();
  const QScreen* screen() const;
  void watch(const QScreen* screen);
  void fitScreen();
  void position();
  void letGoOfPicture();

  QIcon iconFor(const Look& look) const;

  AppModel& model_;
  const System system_;
  std::unique_ptr<QWidget> window_;
  QWidget* const popover_;                       ///< in the window
  std::unique_ptr<QSystemTrayIcon> statusItem_;  ///< null until it may be made
  bool isPlaced_ = false;  ///< the window has its place beside the icon; changes while it is hidden
  std::optional<Look> look_;  ///< as last drawn
  std::string tooltip_;
  std::chrono::steady_clock::time_point lostFocusAt_;  ///< when that has hidden the window, at last
};

}  // namespace verdo
