#pragma once

#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/UI/Fold.h"

class QComboBox;

namespace verdo {

class Button;
class CheckBox;
class Confirm;
class Label;

/// The user's choices that have nothing to do with the connection.
class OptionsSection : public Fold {
  Q_OBJECT
 public:
  OptionsSection(AppModel& model, QWidget* parent);

  void refresh();

 protected:
  void hideEvent(QHideEvent* event) override;

 private:
  AppModel& model_;
  CheckBox* launchAtLogin_;
  CheckBox* autoStart_;
  QComboBox* keepAwake_;
  Label* secretPlace_;
  Button* check_;
  Button* removeAll_;
  Confirm* confirm_;
};

}  // namespace verdo
