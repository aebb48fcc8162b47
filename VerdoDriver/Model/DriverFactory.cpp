#include "VerdoDriver/Model/DriverFactory.h"

#include "VerdoDriverCore/Run/Runner.h"

namespace verdo {
namespace {

class RealDriver : public DriverHandle {
 public:
  RealDriver(const DriverConfig& config, std::shared_ptr<DriverLog> log,
             std::weak_ptr<DriverObserver> observer, const Timings& timings)
      : runner_(config, std::move(log), std::move(observer), timings) {}
  ExitReason run() override { return runner_.run(); }
  void stop() override { runner_.stop(); }
  void killJobsNow() override { runner_.killJobsNow(); }
  void networkChanged() override { runner_.networkChanged(); }

 private:
  DriverRunner runner_;
};

}  // namespace

std::shared_ptr<DriverHandle> RealDriverFactory::makeDriver(
    const DriverConfig& config, std::shared_ptr<DriverLog> log,
    std::weak_ptr<DriverObserver> observer) {
  DriverConfig here = config;
  here.proxyFor = proxyFor_;
  if (!extraCaCertPath_.empty()) here.extraCaCertPath = extraCaCertPath_;
  return std::make_shared<RealDriver>(here, std::move(log), std::move(observer), timings_);
}

}  // namespace verdo
