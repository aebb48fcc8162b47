#pragma once

#include <QLabel>
#include <string>

namespace verdo {

/// A text of the popover, never markup. One that is too long is elided in its middle, or wraps, on
/// six lines at most; what does not fit is in the tool tip.
class Label : public QLabel {
  Q_OBJECT
 public:
  enum class Style { text, headline, fact };
  enum class Fit { elide, wrap };

  Label(Style style, Fit fit, QWidget* parent);

  /// Shows the text, and nothing of an empty one, which takes no room.
  void tell(const QString& text);
  void tell(const std::string& text);

  /// The text stands at the right, in a column of this width.
  void setColumn(int width);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;
  int heightForWidth(int width) const override;

 protected:
  bool event(QEvent* event) override;
  void paintEvent(QPaintEvent* event) override;

 private:
  static constexpr int kMaxLines = 6;

  QString fitting(int width) const;

  const Style style_;
  const Fit fit_;
};

}  // namespace verdo
