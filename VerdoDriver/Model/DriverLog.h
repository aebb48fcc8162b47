#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"

#include <string>

namespace verdo {

/// The history of what the driver did, which the user can open: the app's own lines and those of
/// every run. Any thread may write, several at once.
class DriverLog : public LogSink {
 public:
  /// Appends one line, given without time stamp and line end. Never throws and never holds the
  /// program up: a line that cannot be kept is dropped.
  virtual void write(const std::string& line) = 0;
};

}  // namespace verdo
