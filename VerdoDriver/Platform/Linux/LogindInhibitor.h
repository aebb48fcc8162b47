#pragma once

#include "VerdoDriver/Model/PowerAssertion.h"
#include "VerdoDriver/Platform/Linux/BusLink.h"

#include <QObject>
#include <cstdint>

namespace verdo {

/// Keeps logind from putting the idle computer to sleep, with an inhibitor lock that lasts as long
/// as a descriptor that logind gives is open. The user's own Suspend and the lid keep working.
/// Lives on the main thread and never blocks it: the lock is asked for and comes a little later.
/// Where it is not to be had, which is logged once, the next hold() asks again.
class LogindInhibitor : public QObject, public PowerAssertion {
 public:
  explicit LogindInhibitor(std::shared_ptr<BusLink> systemBus);

  void hold(const std::string& reason) override;
  void release() override;
  /// True also while the lock has been asked for and is not here yet.
  bool isHeld() const override { return lock_ || isAsking_; }

 private:
  void finish(BusResult result, const std::string& reason);

  const std::shared_ptr<BusLink> bus_;
  UniqueFd lock_;
  bool isAsking_ = false;
  std::uint64_t request_ = 0;  ///< the latest one; an answer to another is dropped
  std::string loggedError_;    ///< the same failure is told once
};

}  // namespace verdo
