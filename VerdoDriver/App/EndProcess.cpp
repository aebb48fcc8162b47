#include "VerdoDriver/App/EndProcess.h"

#include "VerdoDriver/App/FileLog.h"
#include "VerdoDriver/Model/AppLog.h"

#include <QSettings>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

namespace verdo {

namespace {

void bringToDisk(FileLog& log, QSettings& settings) {
  settings.sync();
  log.flush();
  // Standard error has no buffer, and another thread may be stuck in writing to it.
  std::fflush(stdout);
}

/// Some libraries leave their connections open for other programs, and peers would take them for
/// alive.
void keepDescriptors() {
  std::error_code ignored;  // a program that has not been told of them is none the worse
  for (std::filesystem::directory_iterator entry("/dev/fd", ignored), end; entry != end;
       entry.increment(ignored)) {
    const int fd = std::atoi(entry->path().filename().c_str());
    if (fd > STDERR_FILENO) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
}

}  // namespace

void endProcess(int status, FileLog& log, QSettings& settings) {
  bringToDisk(log, settings);
  std::_Exit(status);
}

/// A new process would find this one still alive, and leave the field to it.
void restartProcess(const std::string& program, FileLog& log, QSettings& settings) {
  bringToDisk(log, settings);
  keepDescriptors();
  ::signal(SIGPIPE, SIG_DFL);  // which the drivers have ignored, and exec would hand on
  ::execl(program.c_str(), program.c_str(), "--show", nullptr);
  const auto why = std::generic_category().message(errno);
  AppLog::lifecycle.error(fmt::format("[EndProcess] cannot start {}: {}", program, why));
  std::_Exit(1);
}

}  // namespace verdo
