#pragma once

#include "VerdoDriver/Model/Headline.h"
#include "VerdoDriver/UI/PopoverHost.h"

#include <QWidget>
#include <optional>
#include <utility>

class QLabel;

namespace verdo {

class Button;
class JobsView;
class Label;

/// The head of the popover: how the driver stands, what it is at, and the one thing that helps.
class HeaderView : public QWidget {
  Q_OBJECT
 public:
  HeaderView(AppModel& model, const PopoverHost& host, QWidget* parent);

  /// `isSetupOpen`: a button that only leads to the setup is left out.
  void refresh(bool isSetupOpen);

 Q_SIGNALS:
  /// The user wants to do this in the setup.
  void setupWanted(verdo::Headline::Action action);

 private:
  void refreshShape();
  void refreshButtons(const Headline& headline, bool isSetupOpen);
  void act();

  AppModel& model_;
  const PopoverHost host_;
  Headline::Action action_ = Headline::Action::none;
  std::optional<std::pair<Connection, double>> shown_;  ///< the shape, and its scale

  QLabel* shape_;
  Label* title_;
  Label* account_;
  Label* detail_;
  Label* advice_;
  JobsView* jobs_;
  Label* sharing_;
  Label* removal_;
  Label* unwritable_;
  Label* secretFailure_;
  Label* prompt_;
  QWidget* buttons_;
  Button* help_;
  Button* start_;
  Button* restart_;
  Button* stop_;
  Button* check_;
};

}  // namespace verdo
