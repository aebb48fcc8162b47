#include "VerdoDriver/Platform/Linux/LogindInhibitor.h"

#include "VerdoDriver/Model/AppLog.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>

namespace verdo {

LogindInhibitor::LogindInhibitor(const QDBusConnection& systemBus) : bus_(systemBus) {}

void LogindInhibitor::hold(const std::string& reason) {
  if (isHeld()) return;
  if (!bus_.isConnected()) {  // a call would never be answered
    logFailure("there is no system bus");
    return;
  }
  auto message = QDBusMessage::createMethodCall("org.freedesktop.login1", "/org/freedesktop/login1",
                                                "org.freedesktop.login1.Manager", "Inhibit");
  message << "idle:sleep" << "Verdo Driver" << QString::fromStdString(reason) << "block";
  isAsking_ = true;
  auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(message), this);
  connect(watcher, &QDBusPendingCallWatcher::finished, this,
          [this, watcher, reason, request = ++request_] {
            watcher->deleteLater();
            if (request == request_ && isAsking_) finish(*watcher, reason);
          });
}

void LogindInhibitor::finish(const QDBusPendingCall& call, const std::string& reason) {
  isAsking_ = false;
  const QDBusPendingReply<QDBusUnixFileDescriptor> reply = call;
  std::string error;
  if (reply.isError()) {
    error = fmt::format("{}: {}", reply.error().name().toStdString(),
                        reply.error().message().toStdString());
  } else {
    // The reply closes its own descriptor.
    lock_ = UniqueFd(::fcntl(reply.value().fileDescriptor(), F_DUPFD_CLOEXEC, 3));
    if (!lock_) error = "the descriptor cannot be kept";
  }
  if (!lock_) {
    logFailure(error);
    return;
  }
  loggedError_.clear();
  AppLog::keepAwake.info(fmt::format("[KeepAwake] sleep inhibitor held ({})", reason));
}

void LogindInhibitor::logFailure(const std::string& error) {
  if (std::exchange(loggedError_, error) == error) return;
  AppLog::keepAwake.error("[KeepAwake] Inhibit failed: " + error);
}

void LogindInhibitor::release() {
  isAsking_ = false;
  if (!std::exchange(lock_, UniqueFd())) return;
  AppLog::keepAwake.info("[KeepAwake] assertion released");
}

}  // namespace verdo
