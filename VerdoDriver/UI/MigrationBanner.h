#pragma once

#include "VerdoDriver/Model/AppModel.h"

#include <QWidget>

namespace verdo {

class Button;
class Label;

/// Offers to take over from a terminal driver, while there is one. What came of it stays until the
/// popover is hidden.
class MigrationBanner : public QWidget {
  Q_OBJECT
 public:
  MigrationBanner(AppModel& model, QWidget* parent);

  void refresh();

 protected:
  void hideEvent(QHideEvent* event) override;

 private:
  AppModel& model_;
  bool hasOffered_ = false;

  Label* text_;
  Label* message_;
  QWidget* buttons_;
  Button* import_;
  Button* importAndRemove_;
  Button* remove_;
  Button* deleteEnvFile_;
};

}  // namespace verdo
