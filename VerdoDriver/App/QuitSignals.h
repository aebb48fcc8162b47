#pragma once

#include "VerdoDriverCore/System/Pipe.h"

#include <QObject>
#include <functional>
#include <memory>

class QSocketNotifier;

namespace verdo {

/// Has SIGTERM, SIGINT and SIGHUP (unless it is ignored) call `onSignal` on the main thread instead
/// of ending the program. One for a process, there until it ends. Throws std::system_error.
class QuitSignals : public QObject {
 public:
  explicit QuitSignals(std::function<void()> onSignal);
  ~QuitSignals() override;

 private:
  const Pipe pipe_;
  const std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace verdo
