#pragma once

#include <functional>

namespace verdo::cli {

/// Turns SIGINT, SIGTERM and SIGHUP (unless it is ignored, as under nohup) into calls on a thread
/// of their own: `onFirst` for the first signal, `onSecond` for the second. Call it before any
/// other thread starts, so that all of them leave these signals alone. Throws std::system_error.
void handleStopSignals(std::function<void()> onFirst, std::function<void()> onSecond);

}  // namespace verdo::cli
