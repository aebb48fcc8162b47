#include "VerdoDriver/Model/SecretTask.h"

namespace verdo {

SerialQueue& secretQueue() {
  // It outlives everything on purpose: work may be under way while the process ends.
  static auto* const queue = new SerialQueue("verdo-secrets");
  return *queue;
}

bool endSecretWork(std::chrono::milliseconds limit) { return secretQueue().close(limit); }

}  // namespace verdo
