#include "VerdoDriver/App/DisplayGuard.h"

#include <QString>
#include <QStringList>
#include <QThread>
#include <cstdio>
#include <cstdlib>

namespace verdo {
namespace {

struct HeldMessages {
  QtMessageHandler previous = nullptr;
  const QThread* thread = nullptr;
  QStringList held;
};
HeldMessages messages;

bool isSet(const char* variable) {
  const char* const value = std::getenv(variable);
  return value && *value;
}

/// What Qt said of the platforms that it has tried. That it could not load what it has found is
/// said of each of them, and tells nothing.
QString reason() {
  if (!isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY") && !isSet("QT_QPA_PLATFORM")) {
    return "there is no display";
  }
  QStringList reasons;
  for (const auto& text : messages.held) {
    if (!text.startsWith("Could not load the Qt platform plugin")) reasons << text.simplified();
  }
  return reasons.isEmpty() ? "no window can be opened" : reasons.join(", ");
}

const char* advice(const QString& reason) {
  if (reason.contains("Could not find the Qt platform plugin")) {
    return "install that plugin (for Wayland the package qt6-wayland), or set QT_QPA_PLATFORM";
  }
  return "start it from your desktop session, whose DISPLAY or WAYLAND_DISPLAY it needs, or use "
         "verdo-driver on this machine";
}

void hold(QtMsgType type, const QMessageLogContext& context, const QString& text) {
  if (QThread::currentThread() != messages.thread || type == QtDebugMsg) {
    return messages.previous(type, context, text);
  }
  if (type != QtFatalMsg) return void(messages.held << text);
  const QString why = reason();
  std::fprintf(stderr, "verdo-driver-app: %s; %s\n", qUtf8Printable(why), advice(why));
  std::_Exit(1);
}

}  // namespace

DisplayGuard::DisplayGuard() {
  messages.thread = QThread::currentThread();
  messages.previous = qInstallMessageHandler(&hold);
}

DisplayGuard::~DisplayGuard() {
  qInstallMessageHandler(messages.previous);
  for (const auto& text : messages.held) std::fprintf(stderr, "%s\n", qUtf8Printable(text));
}

}  // namespace verdo
