#include "VerdoDriver/Model/Clock.h"

#include <QPointer>
#include <QTimer>
#include <algorithm>
#include <utility>

namespace verdo {

void ClockToken::cancel() {
  if (std::exchange(isCancelled_, true)) return;
  if (const auto onCancel = std::exchange(onCancel_, nullptr)) onCancel();
}

std::shared_ptr<ClockToken> SystemClock::after(double seconds, std::function<void()> block) {
  auto* timer = new QTimer;  // deletes itself once it has fired or was cancelled
  timer->setSingleShot(true);
  timer->setTimerType(Qt::PreciseTimer);
  QObject::connect(timer, &QTimer::timeout, timer, [timer, block = std::move(block)] {
    timer->deleteLater();
    block();
  });
  timer->start(std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(std::max(seconds, 0.0))));
  return std::make_shared<ClockToken>([timer = QPointer<QTimer>(timer)] { delete timer.data(); });
}

}  // namespace verdo
