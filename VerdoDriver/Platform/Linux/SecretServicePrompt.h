#pragma once

#include "VerdoDriver/Platform/Linux/SecretServiceBus.h"

#include <memory>
#include <string>

namespace verdo {

/// A question that the Secret Service asks the user, in a window of its own. Used by one thread at
/// a time, which uses the GLibContext in which it was made.
///
/// It cannot be withdrawn: at a Dismiss, KeePassXC 2.7 and KWallet 5 go on to show the window,
/// which has no effect any more, and gnome-keyring 42 crashes.
class SecretServicePrompt {
 public:
  enum class Answer { none, allowed, refused, serviceGone };

  /// Has it shown. The bus must outlive it. Throws as SecretServiceBus does.
  SecretServicePrompt(SecretServiceBus& bus, std::string owner, std::string path);
  ~SecretServicePrompt();
  SecretServicePrompt(const SecretServicePrompt&) = delete;
  SecretServicePrompt& operator=(const SecretServicePrompt&) = delete;

  /// What is known by now.
  Answer answer() const { return answer_; }
  /// Waits for the answer; `none` when `deadline` passed or `cancellable` was cancelled first. The
  /// window is still there then, and may be waited for again.
  Answer wait(SecretServiceBus::TimePoint deadline, GCancellable* cancellable);

 private:
  static void onCompleted(GDBusConnection*, const char*, const char*, const char*, const char*,
                          GVariant* parameters, gpointer self);
  static void onOwnerChanged(GDBusConnection*, const char*, const char*, const char*, const char*,
                             GVariant*, gpointer self);

  SecretServiceBus& bus_;
  const std::string owner_;
  const std::string path_;
  const GLibPtr<GMainContext> context_{g_main_context_ref_thread_default()};
  guint completed_ = 0;
  guint vanished_ = 0;
  Answer answer_ = Answer::none;
};

}  // namespace verdo
