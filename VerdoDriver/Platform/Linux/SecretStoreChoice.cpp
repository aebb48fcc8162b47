#include "VerdoDriver/Platform/Linux/SecretStoreChoice.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/Linux/FileSecretStore.h"
#include "VerdoDriver/Platform/Linux/GLibHandles.h"

namespace verdo {
namespace {

constexpr const char* kServiceName = "org.freedesktop.secrets";

/// True when the bus's list of names that `method` gives has the Secret Service in it.
bool isListed(GDBusConnection* bus, const char* method, GCancellable* cancellable) {
  GLibPtr<GError> error;
  const GLibPtr<GVariant> reply(g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method, nullptr,
      G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, -1, cancellable, OutError(error)));
  if (!reply) return false;
  const GLibPtr<GVariant> list(g_variant_get_child_value(reply.get(), 0));
  const std::unique_ptr<const gchar*, GLibDeleter> names(g_variant_get_strv(list.get(), nullptr));
  return g_strv_contains(names.get(), kServiceName);
}

bool hasSecretService(std::chrono::milliseconds limit) {
  const BoundedGLibCalls calls(limit);
  GLibPtr<GError> error;
  const SessionBus bus(calls.cancellable(), error);
  const bool listed =
      bus.connection() && (isListed(bus.connection(), "ListNames", calls.cancellable()) ||
                           isListed(bus.connection(), "ListActivatableNames", calls.cancellable()));
  // A bus that does not answer in time proves nothing, and secrets that are in a keyring must not
  // seem to be gone.
  return listed || calls.isOver();
}

}  // namespace

SecretStoreChoice makeSecretStore(const SecretStoreOptions& options) {
  const bool inKeyring = options.usedBefore ? options.usedBefore == SecretStoreKind::secretService
                                            : hasSecretService(options.limit);
  if (inKeyring) {
    AppLog::keychain.info("[SecretStore] secrets are kept in the keyring");
    return {SecretStoreKind::secretService,
            std::make_unique<SecretServiceStore>(options.service, options.limit)};
  }
  AppLog::keychain.info("[SecretStore] secrets are kept in " + options.fileDirectory);
  return {SecretStoreKind::files, std::make_unique<FileSecretStore>(options.fileDirectory)};
}

}  // namespace verdo
