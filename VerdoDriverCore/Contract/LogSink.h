#pragma once

#include <string>

namespace verdo {

/// Where the driver tells people what it does: one line of text a call, without its line end. Who
/// writes a text passes what comes from outside through forLog(). A line end of our own may stand
/// in it; a sink shows what follows so that it cannot be taken for another entry.
/// Called from any thread, several at once; must not throw and must not call back into the driver.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void info(const std::string& text) = 0;
  virtual void success(const std::string& text) = 0;
  virtual void warn(const std::string& text) = 0;
  virtual void error(const std::string& text) = 0;
};

}  // namespace verdo
