#include "VerdoDriver/Platform/Linux/DesktopInhibitor.h"

#include "VerdoDriver/Model/AppLog.h"

#include <QPointer>
#include <iterator>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr const char* kApp = "Verdo Driver";
/// Holds off that the session becomes idle. The flag for suspending would refuse the user's own
/// Suspend, too.
constexpr guint kInhibitIdle = 8;

GVariant* appAndReason(const char* reason) { return g_variant_new("(ss)", kApp, reason); }
GVariant* sessionArguments(const char* reason) {
  return g_variant_new("(susu)", "verdo-driver", 0u, reason, kInhibitIdle);
}

/// The first that is there is asked.
struct Desktop {
  const char* service;
  const char* path;
  const char* interface;
  GVariant* (*arguments)(const char* reason);
  const char* undo;
};
constexpr Desktop kDesktops[] = {
    // Sleep only: the screen may go dark.
    {"org.freedesktop.PowerManagement", "/org/freedesktop/PowerManagement/Inhibit",
     "org.freedesktop.PowerManagement.Inhibit", appAndReason, "UnInhibit"},
    {"org.gnome.SessionManager", "/org/gnome/SessionManager", "org.gnome.SessionManager",
     sessionArguments, "Uninhibit"},
    {"org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver",
     appAndReason, "UnInhibit"},
};

}  // namespace

DesktopInhibitor::DesktopInhibitor(std::shared_ptr<BusLink> sessionBus)
    : bus_(std::move(sessionBus)) {}

void DesktopInhibitor::hold(const std::string& reason) {
  if (isAsking_) return;
  isAsking_ = true;
  const auto request = ++request_;
  if (!agreed_) return ask(0, reason, request);
  findOwner(agreed_->desktop, [self = QPointer(this), reason, request](const Owner& owner) {
    if (!self || request != self->request_) return;
    self->isAsking_ = false;
    if (owner == self->agreed_->owner) return;
    AppLog::keepAwake.info("[KeepAwake] the desktop's inhibitor is gone");
    self->agreed_.reset();
    self->hold(reason);
  });
}

void DesktopInhibitor::release() {
  ++request_;
  isAsking_ = false;
  if (const auto agreed = std::exchange(agreed_, std::nullopt)) letGo(*agreed);
}

void DesktopInhibitor::ask(std::size_t desktop, const std::string& reason, std::uint64_t request) {
  if (desktop == std::size(kDesktops)) {
    isAsking_ = false;
    return;
  }
  findOwner(desktop, [self = QPointer(this), desktop, reason, request](const Owner& owner) {
    if (!self || request != self->request_) return;
    if (owner) {
      self->inhibit(desktop, *owner, reason, request);
    } else {
      self->ask(desktop + 1, reason, request);
    }
  });
}

void DesktopInhibitor::inhibit(std::size_t desktop, const std::string& owner,
                               const std::string& reason, std::uint64_t request) {
  const Desktop& asked = kDesktops[desktop];
  bus_->call({.service = owner,
              .path = asked.path,
              .interface = asked.interface,
              .method = "Inhibit",
              .arguments = asked.arguments(reason.c_str()),
              .replyType = "(u)"},
             [self = QPointer(this), desktop, owner, reason, request](const BusResult& result) {
               if (!self) return;
               const Desktop& answering = kDesktops[desktop];
               if (!result) {
                 self->logFailure(fmt::format("{}: {}", answering.service, result.error()));
                 if (request == self->request_) self->ask(desktop + 1, reason, request);
                 return;
               }
               Agreed agreed{desktop, owner, 0};
               g_variant_get(result->values.get(), "(u)", &agreed.cookie);
               if (request != self->request_) return self->letGo(agreed);
               self->isAsking_ = false;
               self->agreed_ = agreed;
               AppLog::keepAwake.info(
                   fmt::format("[KeepAwake] {} keeps awake ({})", answering.service, reason));
             });
}

void DesktopInhibitor::logFailure(const std::string& error) {
  if (std::exchange(loggedError_, error) == error) return;
  AppLog::keepAwake.error("[KeepAwake] Inhibit failed: " + error);
}

void DesktopInhibitor::letGo(const Agreed& agreed) {
  const Desktop& asked = kDesktops[agreed.desktop];
  // Should it fail, the desktop forgets us when our connection ends.
  bus_->call({.service = agreed.owner,
              .path = asked.path,
              .interface = asked.interface,
              .method = asked.undo,
              .arguments = g_variant_new("(u)", agreed.cookie)},
             [](const BusResult&) {});
}

void DesktopInhibitor::findOwner(std::size_t desktop, std::function<void(const Owner&)> done) {
  bus_->call({.service = "org.freedesktop.DBus",
              .path = "/org/freedesktop/DBus",
              .interface = "org.freedesktop.DBus",
              .method = "GetNameOwner",
              .arguments = g_variant_new("(s)", kDesktops[desktop].service),
              .replyType = "(s)"},
             [done = std::move(done)](const BusResult& result) {
               if (!result) return done(std::nullopt);
               const gchar* owner = nullptr;
               g_variant_get(result->values.get(), "(&s)", &owner);
               done(owner);
             });
}

}  // namespace verdo
