#include "VerdoDriver/UI/Button.h"

#include "VerdoDriver/UI/Look.h"

#include <QKeyEvent>
#include <QPainter>
#include <algorithm>
#include <cmath>
#include <utility>

namespace verdo {
namespace {

constexpr int kRadius = 5;
constexpr double kContrast = 4.5;  ///< at which small text can be read

double luminanceOf(const QColor& color) {
  const auto linear = [](double part) {
    return part <= 0.04045 ? part / 12.92 : std::pow((part + 0.055) / 1.055, 2.4);
  };
  return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) +
         0.0722 * linear(color.blueF());
}

double contrastOf(const QColor& a, const QColor& b) {
  const auto [dark, light] = std::minmax({luminanceOf(a), luminanceOf(b)});
  return (light + 0.05) / (dark + 0.05);
}

/// The palette's accent; where the text could not be read on it, a darker or lighter one.
QColor accentBehind(const QColor& text, const QPalette& palette) {
  QColor accent = palette.highlight().color();
  const bool isLightText = luminanceOf(text) > 0.5;
  for (int i = 0; i < 10 && contrastOf(accent, text) < kContrast; ++i) {
    accent = isLightText ? accent.darker(108) : accent.lighter(108);
  }
  return accent;
}

}  // namespace

Button::Button(Kind kind, const QString& text, QWidget* parent, std::function<void()> action)
    : QPushButton(text, parent), kind_(kind) {
  setFixedHeight(Look::kRow);
  setFlat(kind == Kind::quiet);
  setAutoDefault(false);
  setFocusPolicy(Qt::StrongFocus);
  connect(this, &QPushButton::clicked, this, [action = std::move(action)] { action(); });
}

void Button::setPrimary(bool primary) {
  const Kind kind = primary ? Kind::primary : Kind::plain;
  if (std::exchange(kind_, kind) != kind) update();
}

QSize Button::sizeHint() const {
  if (kind_ != Kind::quiet) return QPushButton::sizeHint() + QSize(Look::kGrid, 0);
  return {fontMetrics().horizontalAdvance(text()) + 2 * Look::kGrid, Look::kRow};
}

void Button::paintEvent(QPaintEvent* event) {
  if (kind_ != Kind::primary || !isEnabled()) {
    QPushButton::paintEvent(event);
    if (kind_ != Kind::quiet && isEnabled()) Look::frameOnBlack(*this);
    return;
  }
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  const QColor accent = accentBehind(palette().highlightedText().color(), palette());
  painter.setBrush(isDown() ? accent.darker(120) : underMouse() ? accent.lighter(110) : accent);
  painter.drawRoundedRect(rect(), kRadius, kRadius);
  painter.setPen(palette().highlightedText().color());
  painter.drawText(rect(), Qt::AlignCenter | Qt::TextSingleLine, text());
  if (!hasFocus()) return;
  painter.setBrush(Qt::NoBrush);
  painter.setPen(QPen(palette().highlightedText().color(), 1));
  painter.drawRoundedRect(QRectF(rect()).adjusted(2.5, 2.5, -2.5, -2.5), kRadius - 2, kRadius - 2);
}

void Button::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) return click();
  QPushButton::keyPressEvent(event);
}

}  // namespace verdo
