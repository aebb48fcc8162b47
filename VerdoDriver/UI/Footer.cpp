#include "VerdoDriver/UI/Footer.h"

#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/Confirm.h"
#include "VerdoDriver/UI/Look.h"

#include <QHideEvent>

namespace verdo {

Footer::Footer(AppModel& model, const PopoverHost& host, QWidget* parent)
    : QWidget(parent),
      model_(model),
      host_(host),
      buttons_(new QWidget(this)),
      openLog_(new Button(Button::Kind::quiet, "Open log", buttons_, [this] { model_.openLog(); })),
      quit_(new Button(Button::Kind::quiet, "Quit", buttons_, [this] { quit(); })),
      confirm_(new Confirm("Quit", this, [this] { host_.quit(); })) {
  openLog_->setToolTip(
      "What the driver did: connections, jobs and their ends. No prompts, outputs or keys.");
  auto* row = Look::row();
  buttons_->setLayout(row);
  row->addWidget(openLog_);
  row->addStretch();
  row->addWidget(quit_);
  auto* rows = Look::column(this);
  // A quiet button's text, not its edge, stands at the popover's margin.
  rows->setContentsMargins(Look::kGrid, Look::kGrid, Look::kGrid, Look::kGrid);
  confirm_->layout()->setContentsMargins(Look::kGrid, 0, Look::kGrid, 0);
  rows->addWidget(buttons_);
  rows->addWidget(confirm_);
  connect(confirm_, &Confirm::turned, this,
          [this](bool isAsking) { buttons_->setVisible(!isAsking); });
}

void Footer::quit() {
  const auto jobs = model_.supervisor().busyLanes().size();
  if (jobs == 0 || model_.supervisor().isStopping()) return host_.quit();
  confirm_->ask(jobsRunning(jobs) + ". Quit anyway?");
}

void Footer::refresh() {
  if (model_.supervisor().isStopping()) confirm_->dismiss();  // there is nothing left to ask
}

void Footer::hideEvent(QHideEvent* event) {
  if (!event->spontaneous()) confirm_->dismiss();
  QWidget::hideEvent(event);
}

}  // namespace verdo
