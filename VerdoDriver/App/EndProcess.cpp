#include "VerdoDriver/App/EndProcess.h"

#include "VerdoDriver/App/FileLog.h"

#include <QSettings>
#include <cstdio>
#include <cstdlib>

namespace verdo {

void endProcess(int status, FileLog& log, QSettings& settings) {
  settings.sync();
  log.flush();
  // Standard error has no buffer, and another thread may be stuck in writing to it.
  std::fflush(stdout);
  std::_Exit(status);
}

}  // namespace verdo
