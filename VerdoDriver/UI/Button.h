#pragma once

#include <QPushButton>
#include <functional>

namespace verdo {

/// A button of the popover, a row high.
class Button : public QPushButton {
  Q_OBJECT
 public:
  enum class Kind {
    plain,
    primary,  ///< in the accent colour: what helps now
    quiet,    ///< without a frame
  };

  /// `action` runs on a click. The text is the accessible name, too.
  Button(Kind kind, const QString& text, QWidget* parent, std::function<void()> action);

  /// Whether it is what helps now, for a button that is not always.
  void setPrimary(bool primary);
  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  /// The return key presses it, as the space bar does.
  void keyPressEvent(QKeyEvent* event) override;

 private:
  Kind kind_;
};

}  // namespace verdo
