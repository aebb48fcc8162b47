#include "VerdoDriver/Platform/Linux/LogindWakeMonitor.h"

#include <QPointer>
#include <utility>

namespace verdo {

LogindWakeMonitor::LogindWakeMonitor(std::shared_ptr<BusLink> systemBus)
    : bus_(std::move(systemBus)) {
  bus_->subscribe("org.freedesktop.login1", "/org/freedesktop/login1",
                  "org.freedesktop.login1.Manager", "PrepareForSleep",
                  [self = QPointer(this)](GVariant* values) {
                    if (!self || !g_variant_is_of_type(values, G_VARIANT_TYPE("(b)"))) return;
                    gboolean isGoingToSleep = FALSE;
                    g_variant_get(values, "(b)", &isGoingToSleep);
                    if (!isGoingToSleep) Q_EMIT self->woke();
                  });
}

}  // namespace verdo
