#pragma once

#include "VerdoDriver/Model/PowerAssertion.h"
#include "VerdoDriver/Platform/Linux/BusLink.h"

#include <QObject>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace verdo {

/// Keeps the desktop, which may have a timer of its own beside logind's, from putting the idle
/// computer to sleep. Asks whoever is on the session bus already: the power manager, where it can
/// tell sleep from the screen; else the session manager; else the screen saver. Starts none of
/// them. Lives on the main thread and never blocks it. Where nobody is there to be asked, and when
/// the one that had agreed has gone, the next hold() asks again.
class DesktopInhibitor : public QObject, public PowerAssertion {
 public:
  explicit DesktopInhibitor(std::shared_ptr<BusLink> sessionBus);

  void hold(const std::string& reason) override;
  void release() override;
  /// True also while somebody is being asked.
  bool isHeld() const override { return agreed_ || isAsking_; }

 private:
  /// Who keeps the computer awake for us.
  struct Agreed {
    std::size_t desktop;  ///< which of those that are known
    std::string owner;    ///< its unique name on the bus
    std::uint32_t cookie;
  };
  using Owner = std::optional<std::string>;

  void ask(std::size_t desktop, const std::string& reason, std::uint64_t request);
  void inhibit(std::size_t desktop, const std::string& owner, const std::string& reason,
               std::uint64_t request);
  void letGo(const Agreed& agreed);
  void logFailure(const std::string& error);
  void findOwner(std::size_t desktop, std::function<void(const Owner&)> done);

  const std::shared_ptr<BusLink> bus_;
  std::optional<Agreed> agreed_;
  bool isAsking_ = false;
  std::uint64_t request_ = 0;  ///< the latest one; what answers to another is taken back
  std::string loggedError_;    ///< the same failure is told once
};

}  // namespace verdo
