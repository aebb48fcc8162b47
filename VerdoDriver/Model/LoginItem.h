#pragma once

namespace verdo {

/// Whether the app starts when the user logs in. Main thread only. Failures are only logged.
class LoginItemManaging {
 public:
  virtual ~LoginItemManaging() = default;
  virtual bool isEnabled() const = 0;
  virtual void setEnabled(bool enabled) = 0;
  /// Corrects an enabled item that starts another program than this one, as after the app was moved
  /// or updated. To be called at every start; enables nothing.
  virtual void refresh() = 0;
};

/// For previews and tests, and for systems that have no login items.
class NoopLoginItemManager : public LoginItemManaging {
 public:
  bool isEnabled() const override { return false; }
  void setEnabled(bool) override {}
  void refresh() override {}
};

}  // namespace verdo
