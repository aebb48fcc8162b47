#pragma once

#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/UI/Fold.h"

class QCheckBox;
class QComboBox;

namespace verdo {

class Label;

/// The user's choices that have nothing to do with the connection.
class OptionsSection : public Fold {
  Q_OBJECT
 public:
  OptionsSection(AppModel& model, QWidget* parent);

  void refresh();

 private:
  AppModel& model_;
  QCheckBox* launchAtLogin_;
  QCheckBox* autoStart_;
  QComboBox* keepAwake_;
  Label* secretPlace_;
};

}  // namespace verdo
