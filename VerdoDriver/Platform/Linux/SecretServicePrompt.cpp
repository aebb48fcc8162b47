#include "VerdoDriver/Platform/Linux/SecretServicePrompt.h"

#include "VerdoDriver/Model/SecretStore.h"

namespace verdo {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kInterface = "org.freedesktop.Secret.Prompt";
/// How long the call takes that opens the window.
constexpr milliseconds kCallLimit{2000};
/// How often it is looked whether the time is over and the bus still there: its end comes without a
/// signal.
constexpr guint kCheckInterval = 100;  // ms

/// Wakes up whoever waits in a context, for as long as it lives.
class Waker {
 public:
  Waker(GSource* source, GSourceFunc callback, GMainContext* context) : source_(source) {
    g_source_set_callback(source, callback, nullptr, nullptr);
    g_source_attach(source, context);
  }
  ~Waker() {
    g_source_destroy(source_);
    g_source_unref(source_);
  }
  Waker(const Waker&) = delete;
  Waker& operator=(const Waker&) = delete;

 private:
  GSource* const source_;
};

gboolean goOn(gpointer) { return G_SOURCE_CONTINUE; }
gboolean endOnce(GCancellable*, gpointer) { return G_SOURCE_REMOVE; }

}  // namespace

SecretServicePrompt::SecretServicePrompt(SecretServiceBus& bus, std::string owner, std::string path)
    : bus_(bus), owner_(std::move(owner)), path_(std::move(path)) {
  // Before the window is there: an answer may come at once.
  completed_ = g_dbus_connection_signal_subscribe(
      bus.connection(), owner_.c_str(), kInterface, "Completed", path_.c_str(), nullptr,
      G_DBUS_SIGNAL_FLAGS_NONE, onCompleted, this, nullptr);
  vanished_ = g_dbus_connection_signal_subscribe(
      bus.connection(), "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", nullptr,
      owner_.c_str(), G_DBUS_SIGNAL_FLAGS_NONE, onOwnerChanged, this, nullptr);
  try {
    bus.call({owner_, path_.c_str(), kInterface, "Prompt"}, g_variant_new("(s)", ""), "()",
             steady_clock::now() + kCallLimit);
  } catch (const SecretError&) {
    g_dbus_connection_signal_unsubscribe(bus.connection(), completed_);
    g_dbus_connection_signal_unsubscribe(bus.connection(), vanished_);
    throw;
  }
}

SecretServicePrompt::~SecretServicePrompt() {
  g_dbus_connection_signal_unsubscribe(bus_.connection(), completed_);
  g_dbus_connection_signal_unsubscribe(bus_.connection(), vanished_);
}

SecretServicePrompt::Answer SecretServicePrompt::wait(SecretServiceBus::TimePoint deadline,
                                                      GCancellable* cancellable) {
  const Waker check(g_timeout_source_new(kCheckInterval), goOn, context_.get());
  const Waker cancel(g_cancellable_source_new(cancellable), G_SOURCE_FUNC(endOnce), context_.get());
  while (answer_ == Answer::none && steady_clock::now() < deadline &&
         !g_cancellable_is_cancelled(cancellable)) {
    if (g_dbus_connection_is_closed(bus_.connection())) return Answer::serviceGone;
    g_main_context_iteration(context_.get(), TRUE);
  }
  return answer_;
}

void SecretServicePrompt::onCompleted(GDBusConnection*, const char*, const char*, const char*,
                                      const char*, GVariant* parameters, gpointer self) {
  gboolean dismissed = TRUE;
  if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(bv)"))) {
    g_variant_get_child(parameters, 0, "b", &dismissed);
  }
  static_cast<SecretServicePrompt*>(self)->answer_ = dismissed ? Answer::refused : Answer::allowed;
}

void SecretServicePrompt::onOwnerChanged(GDBusConnection*, const char*, const char*, const char*,
                                         const char*, GVariant*, gpointer self) {
  auto& answer = static_cast<SecretServicePrompt*>(self)->answer_;
  if (answer == Answer::none) answer = Answer::serviceGone;
}

}  // namespace verdo
