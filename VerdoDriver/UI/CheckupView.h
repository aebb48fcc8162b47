#pragma once

#include "VerdoDriver/Model/AppModel.h"

#include <QWidget>
#include <vector>

class QVBoxLayout;

namespace verdo {

class Button;
class FindingRow;
class Label;

/// A check of what keeps the driver from working: each finding as it comes, and then a report to
/// copy. It outlasts a popover that is hidden, since the check may start a browser that takes the
/// focus. Hidden while there is none.
class CheckupView : public QWidget {
  Q_OBJECT
 public:
  CheckupView(AppModel& model, QWidget* parent);

  void refresh();

 Q_SIGNALS:
  /// A check has begun, which the user wants to see.
  void opened();

 private:
  void copyReport();
  QString title() const;

  AppModel& model_;
  Checkup::State shown_ = Checkup::State::closed;
  Label* title_;
  QVBoxLayout* list_;
  std::vector<FindingRow*> rows_;
  Button* copy_;
  Button* again_;
  Button* close_;
};

}  // namespace verdo
