#include "VerdoDriverCLI/SuspendWatch.h"

#include "VerdoDriverCore/System/ThreadName.h"

#include <utility>

namespace verdo::cli {
namespace {

/// Reading two clocks takes time too; a sleep as short as this breaks no connection.
constexpr std::chrono::seconds kMinSleep{1};

}  // namespace

SuspendWatch::SuspendWatch(std::function<void()> onWakeUp, Duration interval,
                           const std::function<std::chrono::nanoseconds()>& timeSuspended)
    : thread_([this, onWakeUp = std::move(onWakeUp), interval, known = timeSuspended(),
               timeSuspended]() mutable {
        setThreadName("wake-up");
        while (!ending_.waitFor(interval)) {
          const auto now = timeSuspended();
          if (now - known >= kMinSleep) onWakeUp();
          known = now;
        }
      }) {}

SuspendWatch::~SuspendWatch() {
  ending_.set();
  thread_.join();
}

}  // namespace verdo::cli
