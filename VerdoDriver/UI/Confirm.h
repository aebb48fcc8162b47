#pragma once

#include <QWidget>
#include <cstddef>
#include <functional>

namespace verdo {

class Button;
class Label;

/// "A job is running", or how many are, for a question about them.
QString jobsRunning(std::size_t jobs);

/// Asks once more, in place, before something that cannot be undone. Hidden until it asks.
class Confirm : public QWidget {
  Q_OBJECT
 public:
  /// `action`: what is done once the user has agreed; `verb` names it on the button.
  Confirm(const QString& verb, QWidget* parent, std::function<void()> action);

  /// Asks, and waits for the answer with the focus on the way out.
  void ask(const QString& question);
  void dismiss();

 Q_SIGNALS:
  /// The question came or went.
  void turned(bool isAsking);

 private:
  const std::function<void()> action_;
  Label* question_;
  Button* agree_;
  Button* cancel_;
};

}  // namespace verdo
