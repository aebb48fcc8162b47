#include "VerdoDriver/Model/Clock.h"

#include <utility>

namespace verdo {

void ClockToken::cancel() {
  if (std::exchange(isCancelled_, true)) return;
  if (const auto onCancel = std::exchange(onCancel_, nullptr)) onCancel();
}

}  // namespace verdo
