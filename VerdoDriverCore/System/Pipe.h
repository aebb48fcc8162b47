#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

namespace verdo {

/// The two ends of a pipe, both close-on-exec. Where the system can, they are made so in one step:
/// a process that another thread forks in between must not keep a copy, or whoever waits for the
/// end of the stream waits for that process too.
struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;
  /// Throws std::system_error with the errno.
  static Pipe make();
};

}  // namespace verdo
