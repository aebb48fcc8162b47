#pragma once

#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/UI/PopoverHost.h"

#include <QWidget>

namespace verdo {

class Button;
class Confirm;

/// The way to the log, and the way out, which asks once while jobs run.
class Footer : public QWidget {
  Q_OBJECT
 public:
  Footer(AppModel& model, const PopoverHost& host, QWidget* parent);

  void refresh();

 protected:
  void hideEvent(QHideEvent* event) override;

 private:
  void quit();

  AppModel& model_;
  const PopoverHost host_;
  QWidget* buttons_;
  Button* openLog_;
  Button* quit_;
  Confirm* confirm_;
};

}  // namespace verdo
