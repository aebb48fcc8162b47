#include "VerdoDriver/Platform/Linux/SecretServiceStore.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriver/Platform/Linux/GLibHandles.h"

#include <algorithm>
#include <vector>

#include <fmt/format.h>
#include <libsecret/secret.h>

namespace verdo {
namespace {

using Items = std::vector<GObjectPtr<SecretItem>>;

struct SecretValueDeleter {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using SecretValuePtr = std::unique_ptr<SecretValue, SecretValueDeleter>;

/// Items are found by their attributes alone, whichever program has made them.
const SecretSchema& schema() {
  static const SecretSchema value = [] {
    SecretSchema made{};
    made.name = "com.pellmar.verdodriver.Secret";
    made.flags = SECRET_SCHEMA_DONT_MATCH_NAME;
    made.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    made.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    return made;
  }();
  return value;
}

SecretError lockedError() {
  return {SecretError::Kind::locked, SECRET_ERROR_IS_LOCKED,
          "The keyring is locked — unlock it and try again."};
}

/// True for the errors that mean: nobody is there, or nobody answers.
bool meansUnavailable(const GError& error) {
  // What GIO itself reports is about the connection; what the other side reports has codes of its
  // own or none that GIO knows.
  if (error.domain == G_IO_ERROR) return error.code != G_IO_ERROR_DBUS_ERROR;
  if (error.domain == G_SPAWN_ERROR || error.domain == G_FILE_ERROR) return true;
  if (error.domain != G_DBUS_ERROR) return false;
  static constexpr int kCodes[] = {
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
  return std::find(std::begin(kCodes), std::end(kCodes), error.code) != std::end(kCodes);
}

/// libsecret's service on a connection that the maker gives ("g-connection"), where libsecret's own
/// insists on the connection that the whole process shares.
GType ownBusServiceType() {
  static const GType type = [] {
    GTypeQuery parent{};
    g_type_query(SECRET_TYPE_SERVICE, &parent);
    const auto initialize = [](gpointer ownClass, gpointer) {
      G_OBJECT_CLASS(ownClass)->constructor = [](GType made, guint count,
                                                 GObjectConstructParam* properties) {
        auto* const parentClass = G_OBJECT_CLASS(g_type_class_peek(SECRET_TYPE_SERVICE));
        GObject* const service = parentClass->constructor(made, count, properties);
        g_object_set(service, "g-bus-type", G_BUS_TYPE_NONE, nullptr);
        return service;
      };
    };
    return g_type_register_static_simple(SECRET_TYPE_SERVICE, "VerdoOwnBusSecretService",
                                         parent.class_size, initialize, parent.instance_size,
                                         nullptr, G_TYPE_FLAG_NONE);
  }();
  return type;
}

/// One call's view of the service. Every operation throws SecretError.
class Session {
 public:
  Session(const std::string& service, SecretAccount account, std::chrono::milliseconds limit)
      : calls_(limit),
        attributes_(secret_attributes_build(&schema(), "service", service.c_str(), "account",
                                            nameOf(account), nullptr)) {
    if (!bus_.connection()) fail();
    service_.reset(static_cast<SecretService*>(
        g_initable_new(ownBusServiceType(), calls_.cancellable(), OutError(error_), "g-connection",
                       bus_.connection(), nullptr)));
    if (!service_) fail();
  }

  /// The account's items in all collections. That there are none, too, is known for sure.
  Items items() {
    GList* const found =
        secret_service_search_sync(service_.get(), &schema(), attributes_.get(), SECRET_SEARCH_ALL,
                                   calls_.cancellable(), OutError(error_));
    if (error_) fail();
    Items items;
    for (GList* entry = found; entry; entry = entry->next) {
      items.emplace_back(SECRET_ITEM(entry->data));
    }
    g_list_free(found);
    if (items.empty()) requireUnlocked(defaultCollection());
    return items;
  }

  /// The secret of an item; absent when it is not UTF-8.
  std::optional<std::string> valueOf(SecretItem* item) {
    if (secret_item_get_locked(item)) throw lockedError();
    if (!secret_item_load_secret_sync(item, calls_.cancellable(), OutError(error_))) fail();
    const SecretValuePtr value(secret_item_get_secret(item));
    if (!value) return std::nullopt;
    gsize size = 0;
    const gchar* const text = secret_value_get(value.get(), &size);
    if (!g_utf8_validate_len(text, size, nullptr)) return std::nullopt;
    return std::string(text, size);
  }

  void store(const std::string& value, const std::string& label) {
    const auto collection = defaultCollection();
    if (!collection) {
      throw SecretError{SecretError::Kind::failed, SECRET_ERROR_NO_SUCH_OBJECT,
                        "There is no default keyring — create one in the system's password "
                        "settings and try again."};
    }
    requireUnlocked(collection);
    const SecretValuePtr secret(
        secret_value_new(value.data(), static_cast<gssize>(value.size()), "text/plain"));
    const GObjectPtr<SecretItem> item(secret_item_create_sync(
        collection.get(), &schema(), attributes_.get(), label.c_str(), secret.get(),
        SECRET_ITEM_CREATE_REPLACE, calls_.cancellable(), OutError(error_)));
    if (!item) fail();
  }

  void remove(SecretItem* item) {
    if (!secret_item_delete_sync(item, calls_.cancellable(), OutError(error_))) fail();
  }

 private:
  GObjectPtr<SecretCollection> defaultCollection() {
    GObjectPtr<SecretCollection> collection(secret_collection_for_alias_sync(
        service_.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, calls_.cancellable(),
        OutError(error_)));
    if (error_) fail();
    return collection;
  }

  static void requireUnlocked(const GObjectPtr<SecretCollection>& collection) {
    if (collection && secret_collection_get_locked(collection.get())) throw lockedError();
  }

  [[noreturn]] void fail() {
    const int code = error_ ? error_->code : 0;
    const std::string reason = error_ ? error_->message : "no reason given";
    AppLog::keychain.debug(fmt::format("[SecretServiceStore] {}: {}",
                                       error_ ? g_quark_to_string(error_->domain) : "-", reason));
    if (calls_.isOver()) {
      throw SecretError{SecretError::Kind::unavailable, code, "The keyring does not answer."};
    }
    if (error_ && g_error_matches(error_.get(), SECRET_ERROR, SECRET_ERROR_IS_LOCKED)) {
      throw lockedError();
    }
    if (error_ && meansUnavailable(*error_)) {
      throw SecretError{SecretError::Kind::unavailable, code,
                        fmt::format("The keyring cannot be reached: {}", reason)};
    }
    throw SecretError{SecretError::Kind::failed, code, fmt::format("Keyring: {}", reason)};
  }

  BoundedGLibCalls calls_;
  GLibPtr<GError> error_;
  GLibPtr<GHashTable> attributes_;
  SessionBus bus_{calls_.cancellable(), error_};
  GObjectPtr<SecretService> service_;
};

tl::unexpected<SecretError> logged(const char* operation, SecretAccount account,
                                   const SecretError& error) {
  AppLog::keychain.error(fmt::format("[SecretServiceStore] {} {} failed: {}", operation,
                                     nameOf(account), error.status));
  return tl::unexpected(error);
}

}  // namespace

SecretServiceStore::SecretServiceStore(std::string service, std::chrono::milliseconds limit)
    : service_(std::move(service)), limit_(limit) {}

SecretStore::Result<std::optional<std::string>> SecretServiceStore::read(SecretAccount account) {
  try {
    Session session(service_, account, limit_);
    const auto items = session.items();
    if (items.empty()) return std::nullopt;
    // Several, should the default collection have been another one once: the last one counts.
    const auto last = std::max_element(items.begin(), items.end(), [](auto& a, auto& b) {
      return secret_item_get_modified(a.get()) < secret_item_get_modified(b.get());
    });
    return session.valueOf(last->get());
  } catch (const SecretError& error) {
    return logged("read", account, error);
  }
}

SecretStore::Result<void> SecretServiceStore::write(const std::string& value,
                                                    SecretAccount account) {
  const std::string name = nameOf(account);
  try {
    Session(service_, account, limit_).store(value, "Verdo Driver " + name);
  } catch (const SecretError& error) {
    return logged("write", account, error);
  }
  AppLog::keychain.info(fmt::format("[SecretServiceStore] stored {} ({})", name, masked(value)));
  return {};
}

SecretStore::Result<void> SecretServiceStore::remove(SecretAccount account) {
  try {
    Session session(service_, account, limit_);
    const auto items = session.items();
    if (items.empty()) return {};
    for (const auto& item : items) {
      if (secret_item_get_locked(item.get())) throw lockedError();
    }
    for (const auto& item : items) session.remove(item.get());
  } catch (const SecretError& error) {
    return logged("delete", account, error);
  }
  AppLog::keychain.info(fmt::format("[SecretServiceStore] removed {}", nameOf(account)));
  return {};
}

}  // namespace verdo
