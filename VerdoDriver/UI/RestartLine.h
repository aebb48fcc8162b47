#pragma once

#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/UI/PopoverHost.h"

#include <QWidget>

namespace verdo {

class Button;
class Confirm;
class Label;

/// Says that a newer program was installed than the one that runs, and starts it, after a question
/// while jobs run. Hidden while there is none.
class RestartLine : public QWidget {
  Q_OBJECT
 public:
  RestartLine(AppModel& model, const PopoverHost& host, QWidget* parent);

  void refresh();

 protected:
  void hideEvent(QHideEvent* event) override;

 private:
  void restart();
  void restartIfDue();

  AppModel& model_;
  const PopoverHost host_;
  QWidget* line_;
  Label* text_;
  Button* restart_;
  Confirm* confirm_;
};

}  // namespace verdo
