#include "VerdoDriver/UI/JobsView.h"

#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"

#include <QLocale>

namespace verdo {
namespace {

/// "1,204 jobs served · job 7 · mail · exit 0"; empty before there is anything to tell.
QString factsOf(const DriverSupervisor& supervisor) {
  const auto count = supervisor.servedCount();
  QString facts;
  if (count > 0) {
    facts = QLocale(QLocale::English).toString(static_cast<qlonglong>(count)) +
            (count == 1 ? " job served" : " jobs served");
  }
  if (!supervisor.lastJob()) return facts;
  return facts + (facts.isEmpty() ? "" : " · ") + Look::shown(*supervisor.lastJob());
}

}  // namespace

JobsView::JobsView(AppModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      lanes_(new QVBoxLayout),
      facts_(new Label(Label::Style::fact, Label::Fit::elide, this)),
      error_(new Label(Label::Style::fact, Label::Fit::wrap, this)) {
  auto* rows = new QVBoxLayout(this);
  rows->setContentsMargins(0, 0, 0, 0);
  rows->setSpacing(Look::kGrid / 2);
  rows->addLayout(lanes_);
  rows->addWidget(facts_);
  rows->addWidget(error_);
  lanes_->setSpacing(0);
  // Also while nobody looks, since a lane's time begins when its job does.
  const auto update = [this] {
    times_.update(model_.supervisor().busyLanes(), model_.clock().now());
  };
  connect(&model.supervisor(), &DriverSupervisor::busyLanesChanged, this, update);
  update();
}

JobsView::Row JobsView::makeRow() {
  const Row row{new QWidget(this), new Label(Label::Style::text, Label::Fit::elide, this),
                new Label(Label::Style::fact, Label::Fit::elide, this)};
  row.widget->setFixedHeight(Look::kRow);
  row.time->setColumn(Look::kCaption);
  auto* layout = Look::row();
  row.widget->setLayout(layout);
  layout->addWidget(row.name, 1);
  layout->addWidget(row.time);
  lanes_->addWidget(row.widget);
  return row;
}

void JobsView::refreshLanes() {
  const auto& lanes = model_.supervisor().busyLanes();
  while (rows_.size() < lanes.size()) rows_.push_back(makeRow());
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    rows_[i].widget->setVisible(i < lanes.size());
    if (i >= lanes.size()) continue;
    const QString name = Look::shown(shownLanes({lanes[i]}));
    rows_[i].name->tell(name.isEmpty() ? Look::shown(lanes[i]) : name);
    rows_[i].time->tell(
        Look::minutes(times_.busyFor(lanes[i], model_.clock().now()).count(), true));
  }
}

void JobsView::refresh(const std::string& detail) {
  refreshLanes();
  facts_->tell(factsOf(model_.supervisor()));
  const std::string error = model_.supervisor().lastError().value_or("");
  const bool isTold = error.empty() || detail.find(error) != std::string::npos;
  error_->tell(isTold ? QString() : "Last error: " + Look::shownMessage(error));
  setVisible(!facts_->isHidden() || !error_->isHidden() ||
             !model_.supervisor().busyLanes().empty());
}

}  // namespace verdo
