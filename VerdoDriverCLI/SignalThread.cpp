#include "VerdoDriverCLI/SignalThread.h"

#include "VerdoDriverCore/System/ThreadName.h"

#include <thread>

#include <pthread.h>
#include <signal.h>

namespace verdo::cli {
namespace {

bool isIgnored(int signal) {
  struct sigaction action{};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

void handleStopSignals(std::function<void()> onFirst, std::function<void()> onSecond) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  if (!isIgnored(SIGHUP)) ::sigaddset(&signals, SIGHUP);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([signals, onFirst = std::move(onFirst), onSecond = std::move(onSecond)] {
    setThreadName("signals");
    int signal = 0;
    ::sigwait(&signals, &signal);
    onFirst();
    ::sigwait(&signals, &signal);
    onSecond();
  }).detach();
}

}  // namespace verdo::cli
