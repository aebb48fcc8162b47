#include "VerdoDriver/Platform/Linux/BusLink.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/System/ThreadName.h"

#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gio/gunixfdlist.h>

namespace verdo {
namespace {

struct SourceDeleter {
  void operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
  }
};
using TimerPtr = std::unique_ptr<GSource, SourceDeleter>;

/// A call that owns its arguments.
struct OwnedCall {
  BusCall call;
  GLibPtr<GVariant> arguments;
  BusLink::Done done;
};

std::string textOf(const GError* error) {
  if (!error) return "no reason given";
  const GLibPtr<gchar> name(g_dbus_error_get_remote_error(error));
  const GLibPtr<GError> copy(g_error_copy(error));
  g_dbus_error_strip_remote_error(copy.get());
  return name ? fmt::format("{}: {}", name.get(), copy->message) : copy->message;
}

BusResult resultOf(GVariant* values, GUnixFDList* descriptors, const GError* error) {
  GLibPtr<GVariant> owned(values);
  if (!owned) return tl::unexpected(textOf(error));
  UniqueFd first;
  if (descriptors && g_unix_fd_list_get_length(descriptors) > 0) {
    first = UniqueFd(g_unix_fd_list_get(descriptors, 0, nullptr));  // a duplicate
  }
  return BusReply{std::move(owned), std::move(first)};
}

}  // namespace

/// The thread's side. All but start(), post(), answer() and close() happens on the thread.
class BusLink::Loop : public std::enable_shared_from_this<Loop> {
 public:
  Loop(std::string address, const Options& options)
      : address_(std::move(address)), options_(options), context_(g_main_context_new()) {}

  /// False, once more, when the system has no room for the thread.
  bool start() {
    if (thread_.joinable()) return true;
    try {
      thread_ = std::thread([this] { run(); });
      return true;
    } catch (const std::system_error& error) {
      AppLog::lifecycle.error(fmt::format("[Bus] no thread for {}: {}", address_, error.what()));
      return false;
    }
  }

  /// Runs `work` on the thread.
  void post(std::function<void()> work) EXCLUDES(lock_) {
    {
      MutexLock lock(lock_);
      posted_.push_back(std::move(work));
    }
    g_main_context_wakeup(context_.get());
  }

  /// Ends the thread, and with it what is under way.
  void close() {
    isSilent_ = true;
    if (!thread_.joinable()) return;
    post([this] {
      isClosing_ = true;
      g_cancellable_cancel(cancellable_.get());
      if (attempt_) g_cancellable_cancel(attempt_.get());
    });
    thread_.join();
  }

  void call(OwnedCall call) {
    if (connection_) return send(std::move(call));
    waiting_.push_back(std::move(call));
    connect();
  }

  struct Subscription {
    std::string service, path, interface, signal;
    Heard heard;
    Loop* loop;
  };
  void subscribe(Subscription subscription) {
    subscription.loop = this;
    auto& added = subscriptions_.emplace_back(std::make_unique<Subscription>(subscription));
    if (connection_) {
      listen(*added);
    } else {
      connect();
    }
  }

  void answer(const Done& done, BusResult result) {
    // Shared, because a posted block has to be copyable.
    auto kept = std::make_shared<BusResult>(std::move(result));
    onMainThread([done, kept] { done(std::move(*kept)); });
  }

 private:
  void run() {
    setThreadName("verdo-bus");
    g_main_context_push_thread_default(context_.get());
    while (!isClosing_ || underWay_ > 0) {
      g_main_context_iteration(context_.get(), TRUE);
      runPosted();
    }
    drop();
    timer_.reset();
    while (g_main_context_iteration(context_.get(), FALSE)) {
    }
    g_main_context_pop_thread_default(context_.get());
  }

  void runPosted() EXCLUDES(lock_) {
    std::vector<std::function<void()>> due;
    {
      MutexLock lock(lock_);
      due.swap(posted_);
    }
    for (const auto& work : due) work();
  }

  void connect() {
    if (attempt_ || isClosing_) return;
    if (address_.empty()) return failWaiting("there is no such bus");
    attempt_.reset(g_cancellable_new());
    setTimer(options_.connectTimeout, [](gpointer self) -> gboolean {
      g_cancellable_cancel(static_cast<Loop*>(self)->attempt_.get());
      return G_SOURCE_REMOVE;
    });
    ++underWay_;
    constexpr auto kFlags =
        // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): GLib combines flags
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    g_dbus_connection_new_for_address(
        address_.c_str(), kFlags, nullptr, attempt_.get(),
        [](GObject*, GAsyncResult* result, gpointer self) {
          static_cast<Loop*>(self)->connected(result);
        },
        this);
  }

  void connected(GAsyncResult* result) {
    --underWay_;
    timer_.reset();
    const bool isTimedOut = g_cancellable_is_cancelled(attempt_.get());
    attempt_.reset();
    GLibPtr<GError> error;
    connection_.reset(g_dbus_connection_new_for_address_finish(result, OutError(error)));
    if (!connection_) {
      return unavailable(isTimedOut ? "the bus does not answer" : textOf(error.get()));
    }
    loggedFailure_.clear();
    g_signal_connect(connection_.get(), "closed",
                     G_CALLBACK(+[](GDBusConnection*, gboolean, GError* reason, gpointer self) {
                       static_cast<Loop*>(self)->lost(reason);
                     }),
                     this);
    for (const auto& subscription : subscriptions_) listen(*subscription);
    for (auto& call : std::exchange(waiting_, {})) send(std::move(call));
  }

  void lost(const GError* reason) {
    drop();
    unavailable(textOf(reason));
  }

  void drop() {
    if (!connection_) return;
    g_signal_handlers_disconnect_by_data(connection_.get(), this);
    connection_.reset();  // closes it without waiting for anything
  }

  void unavailable(const std::string& reason) {
    if (isClosing_) return;
    if (std::exchange(loggedFailure_, reason) != reason) {
      AppLog::lifecycle.info(fmt::format("[Bus] {} is not available: {}", address_, reason));
    }
    failWaiting(reason);
    if (subscriptions_.empty()) return;
    setTimer(options_.reconnectDelay, [](gpointer self) -> gboolean {
      static_cast<Loop*>(self)->connect();
      return G_SOURCE_REMOVE;
    });
  }

  void failWaiting(const std::string& reason) {
    for (auto& call : std::exchange(waiting_, {})) answer(call.done, tl::unexpected(reason));
  }

  void send(OwnedCall owned) {
    struct UnderWay {
      Loop* loop;
      Done done;
    };
    ++underWay_;
    const BusCall& call = owned.call;
    g_dbus_connection_call_with_unix_fd_list(
        connection_.get(), call.service.c_str(), call.path.c_str(), call.interface.c_str(),
        call.method.c_str(), owned.arguments.get(), G_VARIANT_TYPE(call.replyType),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<int>(options_.callTimeout.count()), nullptr,
        cancellable_.get(),
        [](GObject* connection, GAsyncResult* result, gpointer data) {
          const std::unique_ptr<UnderWay> answered(static_cast<UnderWay*>(data));
          GUnixFDList* list = nullptr;
          GLibPtr<GError> error;
          GVariant* values = g_dbus_connection_call_with_unix_fd_list_finish(
              G_DBUS_CONNECTION(connection), &list, result, OutError(error));
          const GObjectPtr<GUnixFDList> descriptors(list);
          --answered->loop->underWay_;
          answered->loop->answer(answered->done, resultOf(values, descriptors.get(), error.get()));
        },
        new UnderWay{this, std::move(owned.done)});
  }

  void listen(Subscription& subscription) {
    g_dbus_connection_signal_subscribe(
        connection_.get(), subscription.service.c_str(), subscription.interface.c_str(),
        subscription.signal.c_str(), subscription.path.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
           GVariant* values, gpointer data) {
          const auto* signalled = static_cast<const Subscription*>(data);
          const std::shared_ptr<GVariant> kept(g_variant_ref(values), GLibDeleter());
          signalled->loop->onMainThread([heard = signalled->heard, kept] { heard(kept.get()); });
        },
        &subscription, nullptr);
  }

  void onMainThread(std::function<void()> block) {
    MainThread::post([self = shared_from_this(), block = std::move(block)] {
      if (!self->isSilent_) block();
    });
  }

  void setTimer(std::chrono::milliseconds delay, GSourceFunc function) {
    timer_.reset(g_timeout_source_new(static_cast<guint>(delay.count())));
    g_source_set_callback(timer_.get(), function, this, nullptr);
    g_source_attach(timer_.get(), context_.get());
  }

  const std::string address_;
  const Options options_;
  const GLibPtr<GMainContext> context_;
  const GObjectPtr<GCancellable> cancellable_{g_cancellable_new()};  ///< of all calls
  std::thread thread_;
  bool isSilent_ = false;  ///< the main thread's
  Mutex lock_;
  std::vector<std::function<void()>> posted_ GUARDED_BY(lock_);

  GObjectPtr<GDBusConnection> connection_;
  GObjectPtr<GCancellable> attempt_;  ///< there while connecting
  TimerPtr timer_;                    ///< limits an attempt, or waits for the next
  std::vector<OwnedCall> waiting_;
  std::vector<std::unique_ptr<Subscription>> subscriptions_;
  std::string loggedFailure_;  ///< the same one is told once
  int underWay_ = 0;           ///< operations whose callback is still to come
  bool isClosing_ = false;
};

BusLink::BusLink(std::string address, const Options& options)
    : loop_(std::make_shared<Loop>(std::move(address), options)) {}

BusLink::~BusLink() { loop_->close(); }

void BusLink::call(const BusCall& call, Done done) {
  GLibPtr<GVariant> arguments(call.arguments ? g_variant_ref_sink(call.arguments) : nullptr);
  if (!loop_->start()) return loop_->answer(done, tl::unexpected(std::string("no thread")));
  // Shared, because what is posted has to be copyable.
  auto owned = std::make_shared<OwnedCall>(OwnedCall{call, std::move(arguments), std::move(done)});
  loop_->post([loop = loop_.get(), owned] { loop->call(std::move(*owned)); });
}

void BusLink::subscribe(const std::string& service, const std::string& path,
                        const std::string& interface, const std::string& signal, Heard heard) {
  loop_->start();
  loop_->post([=, loop = loop_.get(), heard = std::move(heard)] {
    loop->subscribe({service, path, interface, signal, heard, loop});
  });
}

std::string BusLink::systemAddress() {
  const GLibPtr<gchar> address(
      g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  return address ? address.get() : "";
}

std::string BusLink::sessionAddress() {
  // Not GLib's own look-up, which would start a bus where there is none.
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) {
    return std::string_view(address).starts_with("autolaunch:") ? "" : address;
  }
  const char* directory = std::getenv("XDG_RUNTIME_DIR");
  if (!directory || *directory != '/') return "";
  const std::string socket = std::string(directory) + "/bus";
  std::error_code ignored;
  if (!std::filesystem::is_socket(socket, ignored)) return "";
  const GLibPtr<gchar> escaped(g_dbus_address_escape_value(socket.c_str()));
  return std::string("unix:path=") + escaped.get();
}

}  // namespace verdo
