#pragma once

#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/UI/PopoverHost.h"

#include <QTimer>
#include <QWidget>

class QScrollArea;

namespace verdo {

class CheckupView;
class Footer;
class Hairline;
class HeaderView;
class MigrationBanner;
class OptionsSection;
class RestartLine;
class SetupSection;
class UpdateLine;

/// The popover's content, for a window under the tray icon as for an ordinary one. As wide as
/// Look::kWidth, or as large letters need it; sizeHint() tells the height that it wants now, and
/// what does not fit scrolls.
///
/// Follows the model while it is visible; hidden it draws nothing and wakes nobody up. The model
/// outlives it. Main thread only.
class PopoverView : public QWidget {
  Q_OBJECT
 public:
  PopoverView(AppModel& model, const PopoverHost& host, QWidget* parent = nullptr);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  int wantedWidth() const;
  void refresh();
  bool isCounting() const;
  void chooseScrollBar();

  AppModel& model_;
  QTimer tick_;

  QScrollArea* scroll_;
  QWidget* content_;
  MigrationBanner* migration_;
  Hairline* migrationLine_;
  HeaderView* header_;
  Hairline* updateHairline_;
  RestartLine* restart_;
  UpdateLine* update_;
  Hairline* checkupLine_;
  CheckupView* checkup_;
  SetupSection* setup_;
  OptionsSection* options_;
  Footer* footer_;
};

}  // namespace verdo
