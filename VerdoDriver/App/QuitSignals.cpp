#include "VerdoDriver/App/QuitSignals.h"

#include <QSocketNotifier>
#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace verdo {
namespace {

/// A signal handler may touch nothing else.
std::atomic<int> signalEnd{-1};

void onQuitSignal(int) {
  const int before = errno;
  const char byte = 0;
  // A full pipe has told of a signal already.
  static_cast<void>(!::write(signalEnd, &byte, 1));
  errno = before;
}

}  // namespace

QuitSignals::QuitSignals(std::function<void()> onSignal)
    : pipe_(Pipe::make()),
      notifier_(std::make_unique<QSocketNotifier>(pipe_.readEnd.get(), QSocketNotifier::Read)) {
  ::fcntl(pipe_.readEnd.get(), F_SETFL, O_NONBLOCK);
  ::fcntl(pipe_.writeEnd.get(), F_SETFL, O_NONBLOCK);
  connect(notifier_.get(), &QSocketNotifier::activated, this,
          [fd = pipe_.readEnd.get(), onSignal = std::move(onSignal)] {
            char bytes[16];
            while (::read(fd, bytes, sizeof bytes) > 0) {
            }
            onSignal();
          });
  signalEnd = pipe_.writeEnd.get();
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    struct sigaction now{};
    if (::sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_IGN) continue;
    struct sigaction action{};
    action.sa_handler = onQuitSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(signal, &action, nullptr);
  }
}

QuitSignals::~QuitSignals() { signalEnd = -1; }

}  // namespace verdo
