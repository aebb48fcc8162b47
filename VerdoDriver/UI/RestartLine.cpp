#include "VerdoDriver/UI/RestartLine.h"

#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/Confirm.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"

#include <QHideEvent>

namespace verdo {
namespace {

/// "Restart" alone is what the driver does.
constexpr const char* kRestart = "Restart the app";

}  // namespace

RestartLine::RestartLine(AppModel& model, const PopoverHost& host, QWidget* parent)
    : QWidget(parent),
      model_(model),
      host_(host),
      line_(new QWidget(this)),
      text_(new Label(Label::Style::text, Label::Fit::elide, line_)),
      restart_(new Button(Button::Kind::plain, kRestart, line_, [this] { restart(); })),
      confirm_(new Confirm(kRestart, this, [this] { restartIfDue(); })) {
  auto* row = Look::row();
  line_->setLayout(row);
  row->addWidget(text_, 1);
  row->addWidget(restart_);
  auto* rows = Look::column(this);
  rows->addWidget(line_);
  rows->addWidget(confirm_);
  text_->tell(QString("A new version is installed"));
  connect(confirm_, &Confirm::turned, this,
          [this](bool isAsking) { line_->setVisible(!isAsking); });
}

void RestartLine::restart() {
  const auto jobs = model_.supervisor().busyLanes().size();
  if (jobs == 0 || model_.supervisor().isStopping()) return restartIfDue();
  confirm_->ask(jobsRunning(jobs) + " and will be ended. Restart anyway?");
}

/// What was there when the popover was opened may have been removed since, and nothing would start.
void RestartLine::restartIfDue() {
  model_.releases().lookAtProgram();
  if (model_.releases().restartDue()) host_.restart();
}

void RestartLine::refresh() {
  setVisible(model_.releases().restartDue());
  setEnabled(!model_.isRemoving());
  if (model_.supervisor().isStopping()) confirm_->dismiss();  // there is nothing left to ask
}

void RestartLine::hideEvent(QHideEvent* event) {
  if (!event->spontaneous()) confirm_->dismiss();
  QWidget::hideEvent(event);
}

}  // namespace verdo
