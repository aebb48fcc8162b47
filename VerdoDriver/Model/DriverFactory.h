#pragma once

#include "VerdoDriver/Model/DriverLog.h"
#include "VerdoDriver/Model/ModelHttp.h"
#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/DriverObserver.h"
#include "VerdoDriverCore/Contract/ExitReason.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Doctor/Doctor.h"

#include <memory>
#include <string>
#include <utility>

namespace verdo {

/// A driver run as the app sees it. Before the process may end, the run has ended or its jobs were
/// killed, for what they started outlives it; and it ends through endProcess() (App/EndProcess.h)
/// alone, since a run that was left behind is still at work.
class DriverHandle {
 public:
  virtual ~DriverHandle() = default;
  /// Blocks until the run has ended. Called once, on a thread of the run's own.
  virtual ExitReason run() = 0;
  /// Asks the run to end. Never waits; any thread may call it, at any time, again and again.
  virtual void stop() = 0;
  /// SIGKILL to the processes of all its jobs, for an app that is about to end or has given the run
  /// up. Never waits; any thread.
  virtual void killJobsNow() = 0;
  /// The computer woke up, or its way to the network is another one: connections that are open may
  /// be dead without a sign, and are opened anew. Never waits; any thread.
  virtual void networkChanged() = 0;
};

/// An examination as the app sees it: see Doctor.
class DoctorHandle {
 public:
  virtual ~DoctorHandle() = default;
  /// Makes all checks and tells of each, on the caller's thread. Called once.
  virtual void run(const Doctor::OnFinding& onFinding) = 0;
  /// Makes run() return soon. Never waits; any thread, at any time.
  virtual void stop() = 0;
};

/// Makes driver runs, and what examines whether one would work; a seam for tests. Main thread only.
class DriverFactory {
 public:
  virtual ~DriverFactory() = default;
  /// The run holds the log, and the observer weakly.
  virtual std::shared_ptr<DriverHandle> makeDriver(const DriverConfig& config,
                                                   std::shared_ptr<DriverLog> log,
                                                   std::weak_ptr<DriverObserver> observer) = 0;
  /// Examines what a run with the configuration of these options would be made with.
  virtual std::shared_ptr<DoctorHandle> makeDoctor(const Doctor::Options& options) = 0;
};

/// Runs of the driver itself.
class RealDriverFactory : public DriverFactory {
 public:
  /// `proxyFor`: as in the configuration; null: what the environment says. `extraCaCertPath`
  /// may be empty.
  explicit RealDriverFactory(ProxyFor proxyFor = {}, const Timings& timings = {},
                             std::string extraCaCertPath = {})
      : proxyFor_(std::move(proxyFor)),
        timings_(timings),
        extraCaCertPath_(std::move(extraCaCertPath)) {}
  std::shared_ptr<DriverHandle> makeDriver(const DriverConfig& config,
                                           std::shared_ptr<DriverLog> log,
                                           std::weak_ptr<DriverObserver> observer) override;
  std::shared_ptr<DoctorHandle> makeDoctor(const Doctor::Options& options) override;

 private:
  DriverConfig onThisComputer(const DriverConfig& config) const;

  const ProxyFor proxyFor_;
  const Timings timings_;
  const std::string extraCaCertPath_;
};

}  // namespace verdo
