#include "VerdoDriver/Platform/Linux/SecretServiceSession.h"

#include "VerdoDriver/Platform/Linux/SecretServiceError.h"

#include <libsecret/secret.h>

namespace verdo {
namespace {

constexpr const char* kServicePath = "/org/freedesktop/secrets";
constexpr const char* kService = "org.freedesktop.Secret.Service";
constexpr const char* kCollection = "org.freedesktop.Secret.Collection";
constexpr const char* kItem = "org.freedesktop.Secret.Item";
constexpr const char* kSchema = "com.pellmar.verdodriver.Secret";

struct SecretValueDeleter {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using SecretValuePtr = std::unique_ptr<SecretValue, SecretValueDeleter>;

/// The path that a reply holds; D-Bus has "/" for none.
std::string toPath(const char* path) { return std::string_view(path) == "/" ? "" : path; }

GVariant* toVariant(const SecretServiceSession::Attributes& attributes) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
  for (const auto& [name, value] : attributes) {
    g_variant_builder_add(&builder, "{ss}", name.c_str(), value.c_str());
  }
  return g_variant_builder_end(&builder);
}

SecretServiceSession::Paths toPaths(GVariant* array) {
  SecretServiceSession::Paths paths;
  GVariantIter iter;
  g_variant_iter_init(&iter, array);
  const char* path = nullptr;
  while (g_variant_iter_next(&iter, "&o", &path)) paths.emplace_back(path);
  return paths;
}

/// libsecret's service on a connection that the maker gives ("g-connection"), where libsecret's own
/// insists on the connection that the whole process shares. It hears no signals, for which no event
/// loop would be there.
GType ownBusServiceType() {
  static const GType type = [] {
    GTypeQuery parent{};
    g_type_query(SECRET_TYPE_SERVICE, &parent);
    const auto initialize = [](gpointer ownClass, gpointer) {
      G_OBJECT_CLASS(ownClass)->constructor = [](GType made, guint count,
                                                 GObjectConstructParam* properties) {
        auto* const parentClass = G_OBJECT_CLASS(g_type_class_peek(SECRET_TYPE_SERVICE));
        GObject* const service = parentClass->constructor(made, count, properties);
        constexpr int kQuiet = G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                               G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS |
                               G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START;
        g_object_set(service, "g-bus-type", G_BUS_TYPE_NONE, "g-flags", kQuiet, nullptr);
        return service;
      };
    };
    return g_type_register_static_simple(SECRET_TYPE_SERVICE, "VerdoOwnBusSecretService",
                                         parent.class_size, initialize, parent.instance_size,
                                         nullptr, G_TYPE_FLAG_NONE);
  }();
  return type;
}

}  // namespace

struct SecretServiceSession::Crypto {
  GObjectPtr<SecretService> service;
};

SecretServiceSession::SecretServiceSession(SecretServiceBus& bus, std::string owner,
                                           TimePoint deadline)
    : bus_(bus),
      owner_(std::move(owner)),
      program_(bus.programOf(owner_, deadline)),
      crypto_(std::make_unique<Crypto>()) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  const BoundedGLibCalls calls(left);
  GLibPtr<GError> error;
  crypto_->service.reset(static_cast<SecretService*>(
      g_initable_new(ownBusServiceType(), calls.cancellable(), OutError(error), "g-connection",
                     bus.connection(), nullptr)));
  if (!crypto_->service || !secret_service_ensure_session_sync(
                               crypto_->service.get(), calls.cancellable(), OutError(error))) {
    throw secretErrorOf(error.get());
  }
}

SecretServiceSession::~SecretServiceSession() = default;

GLibPtr<GVariant> SecretServiceSession::call(const std::string& path, const char* interface,
                                             const char* method, GVariant* arguments,
                                             const char* replyType, TimePoint deadline) {
  return bus_.call({owner_, path.c_str(), interface, method}, arguments, replyType, deadline);
}

GLibPtr<GVariant> SecretServiceSession::property(const std::string& path, const char* interface,
                                                 const char* name, const char* type,
                                                 TimePoint deadline) {
  const auto reply = call(path, "org.freedesktop.DBus.Properties", "Get",
                          g_variant_new("(ss)", interface, name), "(v)", deadline);
  const GLibPtr<GVariant> boxed(g_variant_get_child_value(reply.get(), 0));
  GLibPtr<GVariant> value(g_variant_get_variant(boxed.get()));
  if (!g_variant_is_of_type(value.get(), G_VARIANT_TYPE(type))) {
    throw SecretError{SecretError::Kind::failed, 0,
                      std::string("Keyring: it does not tell ") + name};
  }
  return value;
}

std::string SecretServiceSession::defaultCollection(TimePoint deadline) {
  const auto reply =
      call(kServicePath, kService, "ReadAlias", g_variant_new("(s)", "default"), "(o)", deadline);
  const char* path = "/";
  g_variant_get(reply.get(), "(&o)", &path);
  return toPath(path);
}

SecretServiceSession::Paths SecretServiceSession::collections(TimePoint deadline) {
  return toPaths(property(kServicePath, kService, "Collections", "ao", deadline).get());
}

bool SecretServiceSession::isLocked(const std::string& collection, TimePoint deadline) {
  return g_variant_get_boolean(property(collection, kCollection, "Locked", "b", deadline).get());
}

std::string SecretServiceSession::labelOf(const std::string& collection, TimePoint deadline) {
  const auto label = property(collection, kCollection, "Label", "s", deadline);
  return g_variant_get_string(label.get(), nullptr);
}

std::vector<SecretServiceSession::Item> SecretServiceSession::search(const std::string& collection,
                                                                     const Attributes& attributes,
                                                                     TimePoint deadline) {
  const auto reply = call(collection, kCollection, "SearchItems",
                          g_variant_new("(@a{ss})", toVariant(attributes)), "(ao)", deadline);
  const GLibPtr<GVariant> array(g_variant_get_child_value(reply.get(), 0));
  std::vector<Item> items;
  for (const auto& path : toPaths(array.get())) {
    const auto locked = property(path, kItem, "Locked", "b", deadline);
    const auto modified = property(path, kItem, "Modified", "t", deadline);
    items.push_back({path, static_cast<bool>(g_variant_get_boolean(locked.get())),
                     g_variant_get_uint64(modified.get())});
  }
  return items;
}

std::optional<std::string> SecretServiceSession::secretOf(const std::string& item,
                                                          TimePoint deadline) {
  const char* const session = secret_service_get_session_dbus_path(crypto_->service.get());
  const auto reply =
      call(item, kItem, "GetSecret", g_variant_new("(o)", session), "((oayays))", deadline);
  const GLibPtr<GVariant> secret(g_variant_get_child_value(reply.get(), 0));
  const SecretValuePtr value(
      secret_service_decode_dbus_secret(crypto_->service.get(), secret.get()));
  if (!value) {
    throw SecretError{SecretError::Kind::failed, 0, "Keyring: its answer cannot be decrypted"};
  }
  gsize size = 0;
  const gchar* const text = secret_value_get(value.get(), &size);
  if (!g_utf8_validate_len(text, size, nullptr)) return std::nullopt;
  return std::string(text, size);
}

std::string SecretServiceSession::unlock(const Paths& paths, TimePoint deadline) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("ao"));
  for (const auto& path : paths) g_variant_builder_add(&builder, "o", path.c_str());
  const auto reply =
      call(kServicePath, kService, "Unlock",
           g_variant_new("(@ao)", g_variant_builder_end(&builder)), "(aoo)", deadline);
  const char* prompt = "/";
  g_variant_get_child(reply.get(), 1, "&o", &prompt);
  return toPath(prompt);
}

std::string SecretServiceSession::create(const std::string& collection, const std::string& label,
                                         const Attributes& attributes, const std::string& secret,
                                         TimePoint deadline) {
  Attributes all = attributes;
  all["xdg:schema"] = kSchema;  // what other programs show as the kind of the item
  GVariantBuilder properties;
  g_variant_builder_init(&properties, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&properties, "{sv}", "org.freedesktop.Secret.Item.Label",
                        g_variant_new_string(label.c_str()));
  g_variant_builder_add(&properties, "{sv}", "org.freedesktop.Secret.Item.Attributes",
                        toVariant(all));
  const SecretValuePtr value(
      secret_value_new(secret.data(), static_cast<gssize>(secret.size()), "text/plain"));
  GVariant* const encoded = secret_service_encode_dbus_secret(crypto_->service.get(), value.get());
  const auto reply =
      call(collection, kCollection, "CreateItem",
           g_variant_new("(@a{sv}@(oayays)b)", g_variant_builder_end(&properties), encoded, TRUE),
           "(oo)", deadline);
  const char* prompt = "/";
  g_variant_get_child(reply.get(), 1, "&o", &prompt);
  return toPath(prompt);
}

std::string SecretServiceSession::remove(const std::string& item, TimePoint deadline) {
  const auto reply = call(item, kItem, "Delete", nullptr, "(o)", deadline);
  const char* prompt = "/";
  g_variant_get(reply.get(), "(&o)", &prompt);
  return toPath(prompt);
}

}  // namespace verdo
