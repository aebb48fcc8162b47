#pragma once

#include <QWidget>

namespace verdo {

/// The line between two sections.
class Hairline : public QWidget {
 public:
  explicit Hairline(QWidget* parent);

 protected:
  void paintEvent(QPaintEvent* event) override;
};

}  // namespace verdo
