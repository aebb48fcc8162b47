#include "VerdoDriver/Platform/Linux/SecretServiceBus.h"

#include "VerdoDriver/Platform/Linux/SecretServiceError.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string_view>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo {
namespace {

using std::chrono::milliseconds;
using TimePoint = SecretServiceBus::TimePoint;

SecretServiceBus::Request ofTheBus(const char* method) {
  return {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method};
}

milliseconds untilOrThrow(TimePoint deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
  if (left <= milliseconds::zero()) throw secretTimeoutError();
  return left;
}

/// What may mean that a read would now give another answer.
constexpr const char* kWatched[] = {
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='org.freedesktop.secrets'",
    "type='signal',path_namespace='/org/freedesktop/secrets',"
    "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged'",
    "type='signal',interface='org.freedesktop.Secret.Service'",
    "type='signal',interface='org.kde.KWallet',member='walletOpened'",
    "type='signal',interface='org.kde.KWallet',member='walletClosed'",
};

bool isIn(std::string_view text, std::initializer_list<std::string_view> texts) {
  return std::ranges::find(texts, text) != texts.end();
}

/// True for the signals above, without those that tell of other things.
bool tellsOfChange(GDBusMessage* message) {
  if (g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_SIGNAL) return false;
  const char* const member = g_dbus_message_get_member(message);
  GVariant* const body = g_dbus_message_get_body(message);
  if (!member || !body) return false;
  const std::string_view name = member;
  if (name == "NameOwnerChanged") {
    const char* const owned = g_dbus_message_get_arg0(message);
    return owned && std::string_view(owned) == kSecretServiceName;
  }
  if (name == "PropertiesChanged") {
    if (!g_variant_is_of_type(body, G_VARIANT_TYPE("(sa{sv}as)"))) return false;
    const GLibPtr<GVariant> properties(g_variant_get_child_value(body, 1));
    const GLibPtr<GVariant> locked(g_variant_lookup_value(properties.get(), "Locked", nullptr));
    return locked != nullptr;
  }
  return isIn(name, {"CollectionCreated", "CollectionChanged", "CollectionDeleted", "walletOpened",
                     "walletClosed"});
}

}  // namespace

std::optional<std::string> SecretServiceBus::address() {
  const char* const given = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (given && *given) {
    // GIO would start a bus that nobody else is on, and wait for it.
    if (std::string_view(given).starts_with("autolaunch:")) return std::nullopt;
    return given;
  }
  const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return std::nullopt;
  const std::string path = std::string(runtime) + "/bus";
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) ||
      status.st_uid != ::geteuid()) {
    return std::nullopt;
  }
  const GLibPtr<gchar> escaped(g_dbus_address_escape_value(path.c_str()));
  return fmt::format("unix:path={}", escaped.get());
}

SecretServiceBus::SecretServiceBus(TimePoint deadline, std::function<void()> changed)
    : address_(address().value_or("")) {
  if (address_.empty()) {
    throw SecretServiceMissing("The keyring cannot be reached: there is no session bus.");
  }
  // First of all a thread: where there is no room for one GIO would end the process.
  const BoundedGLibCalls calls(untilOrThrow(deadline));
  constexpr auto kFlags =
      // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): GLib combines flags
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  GLibPtr<GError> error;
  connection_.reset(g_dbus_connection_new_for_address_sync(address_.c_str(), kFlags, nullptr,
                                                           calls.cancellable(), OutError(error)));
  if (!connection_) {
    const auto reason = secretErrorOf(error.get());
    if (calls.isOver()) throw secretTimeoutError();
    throw SecretServiceMissing(reason.description);
  }
  try {
    watch(std::move(changed), deadline);
  } catch (const SecretError&) {
    g_dbus_connection_remove_filter(connection_.get(), filter_);
    g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
    throw;
  }
}

SecretServiceBus::~SecretServiceBus() {
  g_dbus_connection_remove_filter(connection_.get(), filter_);
  // Needs no answer from the bus, and has to happen after the time is over, too: no cancellable.
  g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
}

void SecretServiceBus::watch(std::function<void()> changed, TimePoint deadline) {
  // A filter rather than a subscription: it needs nobody's event loop.
  const auto filter = [](GDBusConnection*, GDBusMessage* message, gboolean incoming,
                         gpointer data) -> GDBusMessage* {
    if (incoming && tellsOfChange(message)) (*static_cast<std::function<void()>*>(data))();
    return message;
  };
  const auto discard = [](gpointer data) { delete static_cast<std::function<void()>*>(data); };
  filter_ = g_dbus_connection_add_filter(connection_.get(), filter,
                                         new std::function<void()>(std::move(changed)), discard);
  for (const char* const rule : kWatched) {
    call(ofTheBus("AddMatch"), g_variant_new("(s)", rule), "()", deadline);
  }
}

bool SecretServiceBus::isCurrent() const {
  return !g_dbus_connection_is_closed(connection_.get()) && address() == address_;
}

GLibPtr<GVariant> SecretServiceBus::call(const Request& request, GVariant* arguments,
                                         const char* replyType, TimePoint deadline) {
  const GLibPtr<GVariant> owned(arguments ? g_variant_ref_sink(arguments) : nullptr);
  const auto limit = untilOrThrow(deadline);
  GLibPtr<GError> error;
  GLibPtr<GVariant> reply(g_dbus_connection_call_sync(
      connection_.get(), request.destination.c_str(), request.path, request.interface,
      request.method, owned.get(), G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
      static_cast<gint>(limit.count()), nullptr, OutError(error)));
  if (!reply) throw secretErrorOf(error.get());
  return reply;
}

std::string SecretServiceBus::ownerOf(const std::string& name, TimePoint deadline) try {
  const auto reply =
      call(ofTheBus("GetNameOwner"), g_variant_new("(s)", name.c_str()), "(s)", deadline);
  const char* owner = "";
  g_variant_get(reply.get(), "(&s)", &owner);
  return owner;
} catch (const SecretError& error) {
  if (error.status == G_DBUS_ERROR_NAME_HAS_NO_OWNER) return "";
  throw;
}

std::string SecretServiceBus::programOf(const std::string& owner, TimePoint deadline) try {
  const auto reply = call(ofTheBus("GetConnectionUnixProcessID"),
                          g_variant_new("(s)", owner.c_str()), "(u)", deadline);
  guint32 pid = 0;
  g_variant_get(reply.get(), "(u)", &pid);
  // Not "exe": password managers forbid to look at it.
  std::ifstream file(fmt::format("/proc/{}/cmdline", pid), std::ios::binary);
  std::string command;
  std::getline(file, command, '\0');
  return command.substr(command.rfind('/') + 1);
} catch (const SecretError&) {
  return "";  // it matters only to tell programs apart
}

bool SecretServiceBus::startService(const std::string& name, TimePoint deadline) try {
  call(ofTheBus("StartServiceByName"), g_variant_new("(su)", name.c_str(), 0U), "(u)", deadline);
  return true;
} catch (const SecretError&) {
  return false;  // the log has the reason
}

}  // namespace verdo
