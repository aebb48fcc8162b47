#include "VerdoDriver/Platform/Linux/StatusNotifierHost.h"

#include "VerdoDriver/Platform/TrayWatch.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QGuiApplication>
#include <utility>

namespace verdo {
namespace {

constexpr const char* kWatcher = "org.kde.StatusNotifierWatcher";
constexpr const char* kWatcherPath = "/StatusNotifierWatcher";

}  // namespace

StatusNotifierHost::StatusNotifierHost(std::function<void()> found, QObject* parent)
    : QObject(parent),
      found_(std::move(found)),
      watcher_(kWatcher, QDBusConnection::sessionBus(), QDBusServiceWatcher::WatchForRegistration) {
  // Some watchers are there before any panel is, others are the panel and tell no further.
  connect(&watcher_, &QDBusServiceWatcher::serviceRegistered, this, &StatusNotifierHost::ask);
  QDBusConnection::sessionBus().connect(kWatcher, kWatcherPath, kWatcher,
                                        "StatusNotifierHostRegistered", this, SLOT(ask()));
  ask();
}

void StatusNotifierHost::ask() {
  auto get = QDBusMessage::createMethodCall(kWatcher, kWatcherPath,
                                            "org.freedesktop.DBus.Properties", "Get");
  get << kWatcher << "IsStatusNotifierHostRegistered";
  get.setAutoStartService(false);
  auto* reply = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(get), this);
  connect(reply, &QDBusPendingCallWatcher::finished, this, [this, reply] {
    reply->deleteLater();
    const QDBusPendingReply<QDBusVariant> isRegistered = *reply;
    if (isRegistered.isError() || !isRegistered.value().variant().toBool()) return;
    if (const auto found = std::exchange(found_, nullptr)) found();
    deleteLater();
  });
}

/// On X11 trays that come later are found by Qt. On Wayland there is only this one.
void whenTrayIsKnown(QObject* context, std::function<void()> ready) {
  if (!QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) return ready();
  new StatusNotifierHost(std::move(ready), context);
}

}  // namespace verdo
