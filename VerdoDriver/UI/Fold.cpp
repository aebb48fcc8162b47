#include "VerdoDriver/UI/Fold.h"

#include "VerdoDriver/UI/Look.h"

#include <QPainter>
#include <QStyleOptionButton>
#include <QStyleOptionFocusRect>
#include <utility>

namespace verdo {
namespace {

constexpr int kArrow = 12;

}  // namespace

FoldButton::FoldButton(const QString& title, QWidget* parent)
    : Button(Kind::quiet, title, parent, [this] { setOpen(!isOpen_); }) {
  setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
  setAccessibleDescription("Folded");
}

void FoldButton::setOpen(bool open) {
  if (std::exchange(isOpen_, open) == open) return;
  setAccessibleDescription(open ? "Open" : "Folded");
  update();
  Q_EMIT turned(open);
}

void FoldButton::setFact(const QString& fact) {
  if (fact == fact_) return;
  fact_ = fact;
  update();
}

QSize FoldButton::sizeHint() const { return {Look::kWidth, Look::kRow}; }

void FoldButton::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  QStyleOption arrow;
  arrow.initFrom(this);
  arrow.rect = QRect(Look::kMargin, (height() - kArrow) / 2, kArrow, kArrow);
  style()->drawPrimitive(isOpen_ ? QStyle::PE_IndicatorArrowDown : QStyle::PE_IndicatorArrowRight,
                         &arrow, &painter, this);
  const QRect line = rect().adjusted(Look::kMargin + kArrow + Look::kGrid, 0, -Look::kMargin, 0);
  painter.drawText(line, Qt::AlignVCenter | Qt::AlignLeft | Qt::TextSingleLine, text());
  if (!isOpen_) {
    const int room = line.width() - fontMetrics().horizontalAdvance(text()) - Look::kMargin;
    painter.setFont(Look::factFont(font()));
    painter.setPen(Look::factColor(palette()));
    painter.drawText(line, Qt::AlignVCenter | Qt::AlignRight | Qt::TextSingleLine,
                     painter.fontMetrics().elidedText(fact_, Qt::ElideMiddle, room));
  }
  if (!hasFocus()) return;
  QStyleOptionFocusRect focus;
  focus.initFrom(this);
  focus.rect = rect().adjusted(Look::kGrid, 2, -Look::kGrid, -2);
  style()->drawPrimitive(QStyle::PE_FrameFocusRect, &focus, &painter, this);
}

Fold::Fold(const QString& title, QWidget* parent)
    : QWidget(parent), heading_(new FoldButton(title, this)), body_(new QWidget(this)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);
  layout->addWidget(heading_);
  layout->addWidget(body_);
  rows_ = Look::column(body_);
  rows_->setContentsMargins(Look::kMargin, 0, Look::kMargin, Look::kMargin);
  body_->hide();
  connect(heading_, &FoldButton::turned, this, [this](bool open) {
    body_->setVisible(open);
    Q_EMIT turned(open);
  });
}

}  // namespace verdo
