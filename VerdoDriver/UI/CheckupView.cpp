#include "VerdoDriver/UI/CheckupView.h"

#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/FindingRow.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"

#include <QClipboard>
#include <QGuiApplication>

namespace verdo {
namespace {

constexpr const char* kCopy = "Copy report";

}  // namespace

CheckupView::CheckupView(AppModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      title_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      list_(new QVBoxLayout),
      copy_(new Button(Button::Kind::plain, kCopy, this, [this] { copyReport(); })),
      again_(new Button(Button::Kind::plain, "Check again", this,
                        [this] { model_.checkup().begin(); })),
      close_(
          new Button(Button::Kind::plain, "Cancel", this, [this] { model_.checkup().close(); })) {
  copy_->setToolTip("For whoever helps you: without secrets, and without what others said.");
  list_->setSpacing(Look::kGrid / 2);
  auto* buttons = Look::row();
  for (Button* button : {copy_, again_, close_}) buttons->addWidget(button);
  buttons->addStretch();
  auto* rows = Look::column(this);
  rows->setContentsMargins(Look::kMargin, Look::kMargin, Look::kMargin, Look::kMargin);
  rows->addWidget(title_);
  rows->addLayout(list_);
  rows->addLayout(buttons);
}

QString CheckupView::title() const {
  if (model_.checkup().state() != Checkup::State::done) return "Checking…";
  const auto failures = model_.checkup().failures();
  if (failures == 0) return "All that is needed works.";
  return failures == 1 ? QString("One check has failed.")
                       : QString("%1 checks have failed.").arg(failures);
}

void CheckupView::refresh() {
  const auto state = model_.checkup().state();
  const bool isDone = state == Checkup::State::done;
  setVisible(state != Checkup::State::closed);
  title_->tell(title());
  const auto& findings = model_.checkup().findings();
  while (rows_.size() < findings.size()) {
    rows_.push_back(new FindingRow(this));
    list_->addWidget(rows_.back());
  }
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    rows_[i]->setVisible(i < findings.size());
    if (i < findings.size()) rows_[i]->tell(findings[i]);
  }
  close_->setText(isDone ? "Done" : "Cancel");
  const bool hasBegun = state == Checkup::State::running && shown_ != state;
  shown_ = state;
  // Before the button that has the focus goes: the next one would take it.
  if (hasBegun) close_->setFocus(Qt::OtherFocusReason);
  copy_->setVisible(isDone);
  again_->setVisible(isDone);
  if (!hasBegun) return;
  copy_->setText(kCopy);
  Q_EMIT opened();
}

void CheckupView::copyReport() {
  QGuiApplication::clipboard()->setText(QString::fromStdString(model_.checkup().report()));
  copy_->setText("Copied");
}

}  // namespace verdo
