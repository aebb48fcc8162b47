#include "VerdoDriver/UI/Confirm.h"

#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"

#include <utility>

namespace verdo {

QString jobsRunning(std::size_t jobs) {
  return jobs == 1 ? QString("A job is running") : QString("%1 jobs are running").arg(jobs);
}

Confirm::Confirm(const QString& verb, QWidget* parent, std::function<void()> action)
    : QWidget(parent),
      action_(std::move(action)),
      question_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      agree_(new Button(Button::Kind::plain, verb, this,
                        [this] {
                          dismiss();
                          action_();
                        })),
      cancel_(new Button(Button::Kind::plain, "Cancel", this, [this] { dismiss(); })) {
  auto* rows = new QVBoxLayout(this);
  rows->setContentsMargins(0, 0, 0, 0);
  rows->setSpacing(Look::kGrid);
  rows->addWidget(question_);
  auto* buttons = Look::row();
  buttons->addWidget(agree_);
  buttons->addWidget(cancel_);
  buttons->addStretch();
  rows->addLayout(buttons);
  hide();
}

void Confirm::ask(const QString& question) {
  question_->tell(question);
  show();
  cancel_->setFocus(Qt::OtherFocusReason);
  Q_EMIT turned(true);
}

void Confirm::dismiss() {
  if (isHidden()) return;
  hide();
  Q_EMIT turned(false);
}

}  // namespace verdo
