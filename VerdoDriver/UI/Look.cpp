#include "VerdoDriver/UI/Look.h"

#include <QOperatingSystemVersion>
#include <QPainter>
#include <algorithm>

namespace verdo::Look {
namespace {

/// Marks, embeddings, overrides and isolates of the text's direction: what follows one would be
/// read in another order than it is written.
bool turnsDirection(QChar c) {
  const auto code = c.unicode();
  return code == 0x061c || code == 0x200e || code == 0x200f || (code >= 0x202a && code <= 0x202e) ||
         (code >= 0x2066 && code <= 0x2069);
}

QColor faded(QColor color, double alpha) {
  color.setAlphaF(static_cast<float>(alpha));
  return color;
}

}  // namespace

QString shown(const std::string& text, qsizetype limit) {
  // A character takes four bytes at most: what lies behind is not even decoded.
  const auto bytes = std::min<qsizetype>(static_cast<qsizetype>(text.size()), 4 * (limit + 1));
  QString result = QString::fromUtf8(text.data(), bytes);
  result.removeIf(turnsDirection);
  for (QChar& c : result) {
    if (c.category() == QChar::Other_Control) c = ' ';
  }
  result = result.simplified();
  if (result.size() <= limit) return result;
  result.truncate(limit - 1);
  if (result.back().isHighSurrogate()) result.chop(1);
  return result + QChar(0x2026);
}

QString shownMessage(const std::string& text) {
  QString message = shown(text);
  if (QOperatingSystemVersion::currentType() != QOperatingSystemVersion::MacOS) {
    message.replace("this Mac", "this computer");
  }
  return message;
}

QString escapedTip(const QString& text) { return "<p>" + text.toHtmlEscaped() + "</p>"; }

QFont headlineFont(const QFont& system) {
  QFont font = system;
  font.setPointSizeF(system.pointSizeF() * 1.25);
  font.setWeight(QFont::DemiBold);
  return font;
}

QFont factFont(const QFont& system) {
  QFont font = system;
  font.setPointSizeF(system.pointSizeF() * 0.88);
  return font;
}

QColor factColor(const QPalette& palette) { return faded(palette.windowText().color(), 0.68); }
QColor lineColor(const QPalette& palette) { return faded(palette.windowText().color(), 0.16); }

void frameOnBlack(QWidget& widget) {
  constexpr int kBlack = 32;  // of 255
  if (widget.palette().window().color().lightness() >= kBlack) return;
  QPainter painter(&widget);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(factColor(widget.palette()));
  painter.drawRoundedRect(QRectF(widget.rect()).adjusted(0.5, 0.5, -0.5, -0.5), 2, 2);
}

QString minutes(std::int64_t seconds, bool padded) {
  const auto all = std::max<std::int64_t>(seconds, 0);
  const auto two = [](std::int64_t number) { return QString("%1").arg(number, 2, 10, QChar('0')); };
  const QString tail = ":" + two(all % 60);
  if (all >= 3600) return QString::number(all / 3600) + ":" + two(all / 60 % 60) + tail;
  return (padded ? two(all / 60) : QString::number(all / 60)) + tail;
}

QVBoxLayout* column(QWidget* parent) {
  auto* layout = new QVBoxLayout(parent);
  layout->setContentsMargins(kMargin, kGrid, kMargin, kGrid);
  layout->setSpacing(kGrid);
  return layout;
}

QHBoxLayout* row() {
  auto* layout = new QHBoxLayout;
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(kGrid);
  return layout;
}

}  // namespace verdo::Look
