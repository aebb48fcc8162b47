#pragma once

#include "VerdoDriver/Model/PowerAssertion.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <QDBusConnection>
#include <QObject>
#include <cstdint>

class QDBusPendingCall;

namespace verdo {

/// Keeps the computer awake with an inhibitor lock of logind, which lasts as long as a descriptor
/// that logind gives is open. Lives on the main thread and never blocks it: the lock is asked for
/// and comes a little later. Where there is no logind the computer may sleep, which is logged once.
class LogindInhibitor : public QObject, public PowerAssertion {
 public:
  explicit LogindInhibitor(const QDBusConnection& systemBus = QDBusConnection::systemBus());

  void hold(const std::string& reason) override;
  void release() override;
  /// True also while the lock has been asked for and is not here yet.
  bool isHeld() const override { return lock_ || isAsking_; }

 private:
  void finish(const QDBusPendingCall& call, const std::string& reason);
  void logFailure(const std::string& error);

  QDBusConnection bus_;
  UniqueFd lock_;
  bool isAsking_ = false;
  std::uint64_t request_ = 0;  ///< the latest one; an answer to another is dropped
  std::string loggedError_;    ///< the same failure is told once
};

}  // namespace verdo
