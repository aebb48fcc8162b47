#include "VerdoDriver/UI/Label.h"

#include "VerdoDriver/UI/Look.h"

#include <QHelpEvent>
#include <QPainter>
#include <QTextLayout>
#include <QToolTip>
#include <algorithm>
#include <cmath>

namespace verdo {
namespace {

constexpr int kUnbounded = 1 << 20;

/// Breaks the text into lines; a word that is longer than a line breaks anywhere.
void breakLines(QTextLayout& layout, int width, int maxLines) {
  QTextOption option(Qt::AlignLeft | Qt::AlignAbsolute);
  option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
  layout.setTextOption(option);
  layout.beginLayout();
  double y = 0;
  for (int i = 0; i < maxLines; ++i) {
    QTextLine line = layout.createLine();
    if (!line.isValid()) break;
    line.setLineWidth(width);
    line.setPosition({0, y});
    y += line.height();
  }
  layout.endLayout();
}

}  // namespace

Label::Label(Style style, Fit fit, QWidget* parent) : QLabel(parent), style_(style), fit_(fit) {
  setTextFormat(Qt::PlainText);
  if (style == Style::headline) setFont(Look::headlineFont(font()));
  if (style == Style::fact) setFont(Look::factFont(font()));
  setSizePolicy(QSizePolicy::Ignored,
                fit == Fit::wrap ? QSizePolicy::Preferred : QSizePolicy::Fixed);
  setWordWrap(fit == Fit::wrap);  // by which a label tells layouts that its height depends
}

void Label::tell(const QString& text) {
  setText(text);  // which looks whether it is another one
  setVisible(!text.isEmpty());
}

void Label::tell(const std::string& text) { tell(Look::shown(text)); }

void Label::setColumn(int width) {
  setAlignment(Qt::AlignRight | Qt::AlignVCenter);
  setFixedWidth(width);
  setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

QSize Label::sizeHint() const {
  return {fontMetrics().horizontalAdvance(text()) + 1, heightForWidth(kUnbounded)};
}

QSize Label::minimumSizeHint() const { return {0, fontMetrics().height()}; }

int Label::heightForWidth(int width) const {
  if (fit_ == Fit::elide) return fontMetrics().height();
  QTextLayout layout(text(), font());
  breakLines(layout, width, kMaxLines);
  return std::max(fontMetrics().height(),
                  static_cast<int>(std::ceil(layout.boundingRect().height())));
}

/// As much of the text as there is room for.
QString Label::fitting(int width) const {
  if (fit_ == Fit::elide) return fontMetrics().elidedText(text(), Qt::ElideMiddle, width - 1);
  QTextLayout layout(text(), font());
  breakLines(layout, width, kMaxLines + 1);
  if (layout.lineCount() <= kMaxLines) return text();
  const int last = layout.lineAt(kMaxLines - 1).textStart();
  return text().left(last) + fontMetrics().elidedText(text().mid(last), Qt::ElideRight, width);
}

bool Label::event(QEvent* event) {
  if (event->type() != QEvent::ToolTip) return QLabel::event(event);
  if (fitting(width()) == text()) return QLabel::event(event);
  QToolTip::showText(static_cast<QHelpEvent*>(event)->globalPos(), Look::escapedTip(text()), this);
  return true;
}

void Label::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setPen(style_ == Style::fact ? Look::factColor(palette())
                                       : palette().windowText().color());
  const QString line = fitting(width());
  if (fit_ == Fit::elide) {
    painter.drawText(rect(), static_cast<int>(alignment() | Qt::TextSingleLine), line);
    return;
  }
  QTextLayout layout(line, font());
  breakLines(layout, width(), kMaxLines);
  layout.draw(&painter, {0, 0});
}

}  // namespace verdo
