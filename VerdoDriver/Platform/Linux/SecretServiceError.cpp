#include "VerdoDriver/Platform/Linux/SecretServiceError.h"

#include "VerdoDriver/Model/AppLog.h"

#include <algorithm>
#include <string_view>

#include <fmt/format.h>
#include <libsecret/secret.h>

namespace verdo {
namespace {

/// The codes that mean that nobody is there, or nobody answers.
constexpr int kUnavailableCodes[] = {
    G_DBUS_ERROR_SERVICE_UNKNOWN,
    G_DBUS_ERROR_NAME_HAS_NO_OWNER,
    G_DBUS_ERROR_NO_REPLY,
    G_DBUS_ERROR_TIMEOUT,
    G_DBUS_ERROR_TIMED_OUT,
    G_DBUS_ERROR_DISCONNECTED,
    G_DBUS_ERROR_NO_SERVER,
    G_DBUS_ERROR_NO_NETWORK,
    G_DBUS_ERROR_SPAWN_EXEC_FAILED,
    G_DBUS_ERROR_SPAWN_FORK_FAILED,
    G_DBUS_ERROR_SPAWN_CHILD_EXITED,
    G_DBUS_ERROR_SPAWN_CHILD_SIGNALED,
    G_DBUS_ERROR_SPAWN_FAILED,
    G_DBUS_ERROR_SPAWN_SERVICE_NOT_FOUND,
    G_DBUS_ERROR_SPAWN_CONFIG_INVALID,
    G_DBUS_ERROR_SPAWN_FILE_INVALID,
};

bool isTimeout(const GError& error) {
  return g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) ||
         g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_CANCELLED) ||
         g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY);
}

bool meansUnavailable(const GError& error) {
  // What GIO itself reports is about the connection; what the other side reports has codes of its
  // own or none that GIO knows.
  if (error.domain == G_IO_ERROR) return error.code != G_IO_ERROR_DBUS_ERROR;
  if (error.domain == G_SPAWN_ERROR || error.domain == G_FILE_ERROR) return true;
  if (error.domain != G_DBUS_ERROR) return false;
  return std::ranges::find(kUnavailableCodes, error.code) != std::end(kUnavailableCodes);
}

bool meansLocked(const GError& error) {
  const GLibPtr<gchar> name(g_dbus_error_get_remote_error(&error));
  return name && std::string_view(name.get()) == "org.freedesktop.Secret.Error.IsLocked";
}

}  // namespace

SecretError secretLockedError() {
  return {SecretError::Kind::locked, SECRET_ERROR_IS_LOCKED,
          "The keyring is locked — unlock it and try again."};
}

SecretError secretTimeoutError() {
  return {SecretError::Kind::unavailable, 0, "The keyring does not answer."};
}

SecretError secretErrorOf(const GError* error) {
  if (!error) return {SecretError::Kind::failed, 0, "Keyring: no reason given"};
  if (meansLocked(*error)) return secretLockedError();
  const GLibPtr<GError> plain(g_error_copy(error));
  g_dbus_error_strip_remote_error(plain.get());
  const std::string reason = plain->message;
  AppLog::keychain.debug(
      fmt::format("[SecretServiceStore] {}: {}", g_quark_to_string(error->domain), reason));
  if (isTimeout(*error)) {
    SecretError timeout = secretTimeoutError();
    timeout.status = error->code;
    return timeout;
  }
  if (meansUnavailable(*error)) {
    return {SecretError::Kind::unavailable, error->code,
            "The keyring cannot be reached: " + reason};
  }
  return {SecretError::Kind::failed, error->code, "Keyring: " + reason};
}

}  // namespace verdo
