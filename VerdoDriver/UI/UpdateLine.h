#pragma once

#include "VerdoDriver/Model/AppModel.h"

#include <QWidget>

namespace verdo {

class Button;
class Label;

/// Says that there is a newer release, and leads to it. Hidden while there is none, and
/// while an installed one waits for a restart.
class UpdateLine : public QWidget {
  Q_OBJECT
 public:
  UpdateLine(AppModel& model, QWidget* parent);

  void refresh();

 private:
  AppModel& model_;
  Label* text_;
  Button* download_;
};

}  // namespace verdo
