#include "VerdoDriver/UI/PopoverView.h"

#include "VerdoDriver/Model/Headline.h"
#include "VerdoDriver/UI/CheckupView.h"
#include "VerdoDriver/UI/Footer.h"
#include "VerdoDriver/UI/Hairline.h"
#include "VerdoDriver/UI/HeaderView.h"
#include "VerdoDriver/UI/Look.h"
#include "VerdoDriver/UI/MigrationBanner.h"
#include "VerdoDriver/UI/OptionsSection.h"
#include "VerdoDriver/UI/RestartLine.h"
#include "VerdoDriver/UI/SetupSection.h"
#include "VerdoDriver/UI/UpdateLine.h"

#include <QEvent>
#include <QScrollArea>
#include <algorithm>

namespace verdo {
namespace {

constexpr int kMinHeight = 160;

}  // namespace

PopoverView::PopoverView(AppModel& model, const PopoverHost& host, QWidget* parent)
    : QWidget(parent),
      model_(model),
      tick_(this),
      scroll_(new QScrollArea(this)),
      content_(new QWidget),
      migration_(new MigrationBanner(model, content_)),
      migrationLine_(new Hairline(content_)),
      header_(new HeaderView(model, host, content_)),
      updateHairline_(new Hairline(content_)),
      restart_(new RestartLine(model, host, content_)),
      update_(new UpdateLine(model, content_)),
      checkupLine_(new Hairline(content_)),
      checkup_(new CheckupView(model, content_)),
      setup_(new SetupSection(model, host.defaultServerURL, content_)),
      options_(new OptionsSection(model, content_)),
      footer_(new Footer(model, host, content_)) {
  setFixedWidth(Look::kWidth);
  auto* rows = new QVBoxLayout(content_);
  rows->setContentsMargins(0, 0, 0, 0);
  rows->setSpacing(0);
  for (QWidget* widget : {static_cast<QWidget*>(migration_), static_cast<QWidget*>(migrationLine_),
                          static_cast<QWidget*>(header_), static_cast<QWidget*>(updateHairline_),
                          static_cast<QWidget*>(restart_), static_cast<QWidget*>(update_),
                          static_cast<QWidget*>(checkupLine_), static_cast<QWidget*>(checkup_)}) {
    rows->addWidget(widget);
  }
  rows->addWidget(new Hairline(content_));
  rows->addSpacing(Look::kGrid / 2);
  rows->addWidget(setup_);
  rows->addWidget(options_);
  rows->addSpacing(Look::kGrid / 2);
  rows->addWidget(new Hairline(content_));
  rows->addWidget(footer_);
  rows->addStretch();

  scroll_->setWidget(content_);
  scroll_->setWidgetResizable(true);
  scroll_->setFrameShape(QFrame::NoFrame);
  scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  scroll_->setFocusPolicy(Qt::NoFocus);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(scroll_);
  content_->installEventFilter(this);

  tick_.setInterval(1000);
  tick_.setTimerType(Qt::PreciseTimer);
  connect(&tick_, &QTimer::timeout, this, &PopoverView::refresh);
  connect(&model, &AppModel::changed, this, [this] {
    if (isVisible()) refresh();
  });
  connect(header_, &HeaderView::setupWanted, setup_, &SetupSection::lead);
  connect(
      checkup_, &CheckupView::opened, this, [this] { scroll_->ensureWidgetVisible(checkup_); },
      Qt::QueuedConnection);  // once it has its place
  connect(setup_, &SetupSection::turned, this, [this] { header_->refresh(setup_->isOpen()); });
}

QSize PopoverView::sizeHint() const {
  const QLayout& rows = *content_->layout();
  return {wantedWidth(), rows.hasHeightForWidth() ? rows.totalHeightForWidth(wantedWidth())
                                                  : rows.totalSizeHint().height()};
}

QSize PopoverView::minimumSizeHint() const { return {wantedWidth(), kMinHeight}; }

/// Large letters may need more room than there is for usual ones.
int PopoverView::wantedWidth() const {
  return std::max(Look::kWidth, content_->layout()->totalMinimumSize().width());
}

bool PopoverView::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() == QEvent::LayoutRequest) {
    setFixedWidth(wantedWidth());
    updateGeometry();
    chooseScrollBar();
  }
  return QWidget::eventFilter(watched, event);
}

void PopoverView::showEvent(QShowEvent* event) {
  refresh();
  QWidget::showEvent(event);
}

void PopoverView::hideEvent(QHideEvent* event) {
  tick_.stop();
  QWidget::hideEvent(event);
}

void PopoverView::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  chooseScrollBar();
}

/// A scroll bar makes the content narrower and thereby higher. Left to itself the area keeps one
/// that only its own width has made necessary.
void PopoverView::chooseScrollBar() {
  scroll_->setVerticalScrollBarPolicy(sizeHint().height() > height() ? Qt::ScrollBarAsNeeded
                                                                     : Qt::ScrollBarAlwaysOff);
}

void PopoverView::refresh() {
  migration_->refresh();
  migrationLine_->setVisible(!migration_->isHidden());
  setup_->refresh();
  header_->refresh(setup_->isOpen());
  update_->refresh();
  restart_->refresh();
  updateHairline_->setVisible(!update_->isHidden() || !restart_->isHidden());
  checkup_->refresh();
  checkupLine_->setVisible(!checkup_->isHidden());
  options_->refresh();
  footer_->refresh();
  if (!isCounting()) {
    tick_.stop();
  } else if (!tick_.isActive()) {
    tick_.start();
  }
}

/// Something on the screen changes with the time alone.
bool PopoverView::isCounting() const {
  return !model_.supervisor().busyLanes().empty() ||
         std::holds_alternative<PairingWaiting>(model_.pairing()) ||
         headlineOf(model_).retryAt.has_value();
}

}  // namespace verdo
