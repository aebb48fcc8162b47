#include "VerdoDriver/Platform/Linux/SecretServicePrompt.h"

#include "VerdoDriver/Platform/Linux/SecretServiceError.h"

namespace verdo {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kInterface = "org.freedesktop.Secret.Prompt";
/// How long the call takes that opens the window, and the one that closes it.
constexpr milliseconds kCallLimit{2000};
/// How often it is looked whether the bus is still there: its end comes without a signal.
constexpr guint kBusCheckInterval = 250;  // ms

enum class Answer { none, allowed, refused, serviceGone };

SecretError refusal(const char* text) { return {SecretError::Kind::locked, 0, text}; }

/// Waits on the calling thread, whose context (GLibContext) it runs.
class Waiting {
 public:
  Waiting(SecretServiceBus& bus, const std::string& owner, const std::string& prompt,
          GCancellable* cancellable)
      : bus_(bus.connection()), cancellable_(cancellable) {
    completed_ = g_dbus_connection_signal_subscribe(
        bus_, owner.c_str(), kInterface, "Completed", prompt.c_str(), nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, onCompleted, this, nullptr);
    vanished_ = g_dbus_connection_signal_subscribe(
        bus_, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", nullptr,
        owner.c_str(), G_DBUS_SIGNAL_FLAGS_NONE, onOwnerChanged, this, nullptr);
    const auto goOn = [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
    attach(g_timeout_source_new(kBusCheckInterval), goOn);
    const auto wake = [](GCancellable*, gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
    attach(g_cancellable_source_new(cancellable), G_SOURCE_FUNC(+wake));
  }
  ~Waiting() {
    g_dbus_connection_signal_unsubscribe(bus_, completed_);
    g_dbus_connection_signal_unsubscribe(bus_, vanished_);
    for (const auto& source : sources_) {
      if (source) g_source_destroy(source.get());
    }
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

  Answer until(SecretServiceBus::TimePoint deadline) {
    while (answer_ == Answer::none && steady_clock::now() < deadline &&
           !g_cancellable_is_cancelled(cancellable_)) {
      if (g_dbus_connection_is_closed(bus_)) return Answer::serviceGone;
      g_main_context_iteration(context_.get(), TRUE);
    }
    return answer_;
  }

 private:
  struct SourceDeleter {
    void operator()(GSource* source) const { g_source_unref(source); }
  };

  void attach(GSource* source, GSourceFunc callback) {
    g_source_set_callback(source, callback, nullptr, nullptr);
    g_source_attach(source, context_.get());
    (sources_[0] ? sources_[1] : sources_[0]).reset(source);
  }

  static void onCompleted(GDBusConnection*, const char*, const char*, const char*, const char*,
                          GVariant* parameters, gpointer self) {
    gboolean dismissed = TRUE;
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(bv)"))) {
      g_variant_get_child(parameters, 0, "b", &dismissed);
    }
    static_cast<Waiting*>(self)->answer_ = dismissed ? Answer::refused : Answer::allowed;
  }
  static void onOwnerChanged(GDBusConnection*, const char*, const char*, const char*, const char*,
                             GVariant*, gpointer self) {
    auto& answer = static_cast<Waiting*>(self)->answer_;
    if (answer == Answer::none) answer = Answer::serviceGone;
  }

  GDBusConnection* const bus_;
  GCancellable* const cancellable_;
  const GLibPtr<GMainContext> context_{g_main_context_ref_thread_default()};
  std::unique_ptr<GSource, SourceDeleter> sources_[2];
  guint completed_ = 0;
  guint vanished_ = 0;
  Answer answer_ = Answer::none;
};

void dismiss(SecretServiceBus& bus, const SecretServiceBus::Request& request) try {
  bus.call(request, nullptr, "()", steady_clock::now() + kCallLimit);
} catch (const SecretError&) {
  // It may have been answered meanwhile, and its object is gone; the log has the reason.
}

}  // namespace

void runSecretPrompt(SecretServiceBus& bus, const std::string& owner, const std::string& prompt,
                     SecretServiceBus::TimePoint deadline, GCancellable* cancellable) {
  if (g_cancellable_is_cancelled(cancellable)) throw refusal("The password manager was not asked.");
  Waiting waiting(bus, owner, prompt, cancellable);
  bus.call({owner, prompt.c_str(), kInterface, "Prompt"}, g_variant_new("(s)", ""), "()",
           steady_clock::now() + kCallLimit);
  switch (waiting.until(deadline)) {
    case Answer::allowed:
      return;
    case Answer::refused:
      throw refusal("The password manager was told not to allow it.");
    case Answer::serviceGone:
      throw SecretError{SecretError::Kind::unavailable, 0, "The password manager has ended."};
    case Answer::none:
      break;
  }
  dismiss(bus, {owner, prompt.c_str(), kInterface, "Dismiss"});
  throw refusal(g_cancellable_is_cancelled(cancellable)
                    ? "The password manager's window was closed before it was answered."
                    : "The password manager was not answered in time — try again.");
}

}  // namespace verdo
