#pragma once

#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/UI/LaneTimes.h"

#include <QWidget>
#include <vector>

class QVBoxLayout;

namespace verdo {

class Label;

/// What the driver is at: a row for each busy lane, how many jobs it has served, the last one, and
/// the last error.
class JobsView : public QWidget {
  Q_OBJECT
 public:
  JobsView(AppModel& model, QWidget* parent);

  /// `detail`: what stands above; a last error that it tells already is left out.
  void refresh(const std::string& detail);

 private:
  struct Row {
    QWidget* widget;
    Label* name;
    Label* time;
  };
  Row makeRow();
  void refreshLanes();

  AppModel& model_;
  LaneTimes times_;
  QVBoxLayout* lanes_;
  std::vector<Row> rows_;
  Label* facts_;
  Label* error_;
};

}  // namespace verdo
