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

/// Where GLib puts what it would leave to an event loop. Objects stay bound to the context in which
/// they were made: it has to be in use while they are, and outlive them. One thread at a time.
class GLibContext {
 public:
  GLibContext() = default;
  ~GLibContext();
  GLibContext(const GLibContext&) = delete;
  GLibContext& operator=(const GLibContext&) = delete;

  /// Makes it the calling thread's for the length of a scope, at whose end it is empty.
  class Use {
   public:
    explicit Use(const GLibContext& context);
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

   private:
    GMainContext* const context_;
  };

 private:
  const GLibPtr<GMainContext> context_{g_main_context_new()};
};

/// Blocking GLib calls on the thread that makes it end with G_IO_ERROR_CANCELLED once the time is
/// over. Lives on the stack. Making it throws std::system_error when the system has no room for a
/// thread.
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
  Event finished_;
  std::thread watchdog_;
};

}  // namespace verdo
