#pragma once

#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <memory>
#include <thread>

#include <gio/gio.h>

namespace verdo {

/// Owns one reference to a GObject, one GError, one GList of objects, and so on.
struct GLibDeleter {
  void operator()(GError* error) const { g_error_free(error); }
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
  void operator()(GVariant* value) const { g_variant_unref(value); }
  void operator()(GMainContext* context) const { g_main_context_unref(context); }
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
  void operator()(gchar* text) const { g_free(text); }
  void operator()(const gchar** array) const { g_free(static_cast<void*>(array)); }
};
template <typename T>
using GLibPtr = std::unique_ptr<T, GLibDeleter>;

struct GObjectDeleter {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectDeleter>;

/// Takes what a C function leaves behind a pointer to a pointer: `f(..., OutError(error))`.
class OutError {
 public:
  explicit OutError(GLibPtr<GError>& target) : target_(target) {}
  ~OutError() { target_.reset(error_); }
  OutError(const OutError&) = delete;
  OutError& operator=(const OutError&) = delete;
  operator GError**() { return &error_; }  // NOLINT(google-explicit-constructor): that is its use

 private:
  GLibPtr<GError>& target_;
  GError* error_ = nullptr;
};

/// The surroundings of blocking GLib calls on the thread that makes it: they end with
/// G_IO_ERROR_CANCELLED once the time is over, and whatever they would leave to an event loop
/// stays in a context of its own, so that no object of theirs is ever touched on another thread.
/// Lives on the stack.
class BoundedGLibCalls {
 public:
  explicit BoundedGLibCalls(std::chrono::milliseconds limit);
  ~BoundedGLibCalls();
  BoundedGLibCalls(const BoundedGLibCalls&) = delete;
  BoundedGLibCalls& operator=(const BoundedGLibCalls&) = delete;

  GCancellable* cancellable() const { return cancellable_.get(); }
  bool isOver() const { return g_cancellable_is_cancelled(cancellable()); }

 private:
  const GObjectPtr<GCancellable> cancellable_{g_cancellable_new()};
  const GLibPtr<GMainContext> context_{g_main_context_new()};
  Event finished_;
  std::thread watchdog_;
};

/// A connection to the session bus that nobody else uses, closed at the end. (GIO's shared one ends
/// the process when the bus goes, and is of no use any more once the bus was restarted.) Used on
/// one thread.
class SessionBus {
 public:
  /// Connects. connection() is null, and `error` filled in, when the bus cannot be reached.
  SessionBus(GCancellable* cancellable, GLibPtr<GError>& error);
  ~SessionBus();
  SessionBus(const SessionBus&) = delete;
  SessionBus& operator=(const SessionBus&) = delete;

  GDBusConnection* connection() const { return connection_.get(); }

 private:
  GObjectPtr<GDBusConnection> connection_;
};

}  // namespace verdo
