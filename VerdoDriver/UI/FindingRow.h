#pragma once

#include "VerdoDriverCore/Doctor/Finding.h"

#include <QWidget>

namespace verdo {

class Label;

/// One finding of a check: its sign and name, and why. What is well, or was not tried, takes one
/// line; below the rest stands what to do, and what was met.
class FindingRow : public QWidget {
  Q_OBJECT
 public:
  explicit FindingRow(QWidget* parent);

  void tell(const Finding& finding);

 private:
  Label* sign_;
  Label* name_;
  Label* fact_;
  Label* reason_;
  Label* remedy_;
  Label* detail_;
};

}  // namespace verdo
