#pragma once

#include "VerdoDriver/Model/AppModel.h"

#include <QWidget>

class QLabel;

namespace verdo {

class Button;
class Label;

/// A pairing that is under way: the code to compare in the browser and how long it is good for, or
/// what is being waited for. Hidden otherwise.
class PairingView : public QWidget {
  Q_OBJECT
 public:
  PairingView(AppModel& model, QWidget* parent);

  void refresh();

 Q_SIGNALS:
  /// The user has called the pairing off.
  void cancelled();

 private:
  void copyCode();

  AppModel& model_;
  QWidget* codeRow_;
  QLabel* code_;
  Button* copy_;
  Label* left_;
  Label* text_;
  Button* open_;
  Button* cancel_;
};

}  // namespace verdo
