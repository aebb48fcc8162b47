#include "VerdoDriver/Platform/Linux/LogindInhibitor.h"

#include "VerdoDriver/Model/AppLog.h"

#include <QPointer>
#include <utility>

#include <fmt/format.h>

namespace verdo {

LogindInhibitor::LogindInhibitor(std::shared_ptr<BusLink> systemBus) : bus_(std::move(systemBus)) {}

void LogindInhibitor::hold(const std::string& reason) {
  if (isHeld()) return;
  isAsking_ = true;
  // "sleep" would also refuse the user's own Suspend, and not every user may block it.
  bus_->call({.service = "org.freedesktop.login1",
              .path = "/org/freedesktop/login1",
              .interface = "org.freedesktop.login1.Manager",
              .method = "Inhibit",
              .arguments = g_variant_new("(ssss)", "idle", "Verdo Driver", reason.c_str(), "block"),
              .replyType = "(h)"},
             [self = QPointer(this), reason, request = ++request_](BusResult result) {
               if (self && request == self->request_ && self->isAsking_) {
                 self->finish(std::move(result), reason);
               }
             });
}

void LogindInhibitor::finish(BusResult result, const std::string& reason) {
  isAsking_ = false;
  if (result) lock_ = std::move(result->descriptor);
  if (!lock_) {
    const auto error = result ? "the descriptor cannot be kept" : result.error();
    if (std::exchange(loggedError_, error) == error) return;
    AppLog::keepAwake.error("[KeepAwake] Inhibit failed: " + error);
    return;
  }
  loggedError_.clear();
  AppLog::keepAwake.info(fmt::format("[KeepAwake] sleep inhibitor held ({})", reason));
}

void LogindInhibitor::release() {
  isAsking_ = false;
  if (!std::exchange(lock_, UniqueFd())) return;
  AppLog::keepAwake.info("[KeepAwake] assertion released");
}

}  // namespace verdo
