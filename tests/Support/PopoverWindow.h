#pragma once

#include "VerdoDriver/MenuBar/StatusItemIconRenderer.h"
#include "VerdoDriver/UI/PopoverView.h"
#include "tests/Support/ScriptedModel.h"

#include <QAbstractButton>
#include <QLabel>
#include <QLineEdit>
#include <QVBoxLayout>

namespace verdo::test {

/// The popover in a window that is as high as it wishes.
class PopoverWindow : public QWidget {
 public:
  explicit PopoverWindow(AppModel& model)
      : view(new PopoverView(model,
                             {.quit = [this] { ++quits; },
                              .restart = [this] { ++restarts; },
                              .shape =
                                  [](Connection connection, int size, double scale) {
                                    return StatusItemIconRenderer::pixmap(connection, false, size,
                                                                          scale);
                                  },
                              .defaultServerURL = ScriptedModel::kServer},
                             this)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    layout->addWidget(view);
  }

  /// The button that the user sees under this text; null without one.
  QAbstractButton* button(const QString& text) const {
    for (auto* button : view->findChildren<QAbstractButton*>()) {
      if (button->text() == text && button->isVisible()) return button;
    }
    return nullptr;
  }
  void press(const QString& text) const {
    auto* found = button(text);
    ASSERT_TRUE(found) << text.toStdString();
    found->click();
    spin();
  }
  QLineEdit* field(const QString& name) const {
    for (auto* field : view->findChildren<QLineEdit*>()) {
      if (field->accessibleName() == name) return field;
    }
    return nullptr;
  }
  /// As the user types it.
  void type(const QString& name, const QString& text) const {
    field(name)->setText(text);
    Q_EMIT field(name)->textEdited(text);
    spin();
  }
  /// The visible text that holds this one; null without one.
  QLabel* label(const QString& text) const {
    for (auto* label : view->findChildren<QLabel*>()) {
      if (label->isVisible() && label->text().contains(text)) return label;
    }
    return nullptr;
  }

  PopoverView* const view;
  int quits = 0;
  int restarts = 0;
};

}  // namespace verdo::test
