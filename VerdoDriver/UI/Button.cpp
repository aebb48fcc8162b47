#include "VerdoDriver/UI/Button.h"

#include "VerdoDriver/UI/Look.h"

#include <QStyleOptionButton>
#include <utility>

namespace verdo {

Button::Button(Kind kind, const QString& text, QWidget* parent, std::function<void()> action)
    : QPushButton(text, parent), kind_(kind) {
  setFixedHeight(Look::kRow);
  setFlat(kind == Kind::quiet);
  setAutoDefault(false);
  setFocusPolicy(Qt::StrongFocus);
  connect(this, &QPushButton::clicked, this, [action = std::move(action)] { action(); });
}

void Button::initStyleOption(QStyleOptionButton* option) const {
  QPushButton::initStyleOption(option);
  if (kind_ != Kind::primary || !isEnabled()) return;
  option->palette.setBrush(QPalette::Button, option->palette.highlight());
  option->palette.setBrush(QPalette::ButtonText, option->palette.highlightedText());
}

}  // namespace verdo
