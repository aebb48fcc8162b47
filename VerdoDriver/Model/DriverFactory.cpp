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

class RealDoctor : public DoctorHandle {
 public:
  explicit RealDoctor(Doctor::Options options) : doctor_(std::move(options)) {}
  void run(const Doctor::OnFinding& onFinding) override { doctor_.run(onFinding); }
  void stop() override { doctor_.stop(); }

 private:
  Doctor doctor_;
};

}  // namespace

std::shared_ptr<DriverHandle> RealDriverFactory::makeDriver(
    const DriverConfig& config, std::shared_ptr<DriverLog> log,
    std::weak_ptr<DriverObserver> observer) {
  return std::make_shared<RealDriver>(onThisComputer(config), std::move(log), std::move(observer),
                                      timings_);
}

std::shared_ptr<DoctorHandle> RealDriverFactory::makeDoctor(const Doctor::Options& options) {
  Doctor::Options here = options;
  here.config = onThisComputer(options.config);
  here.timings = timings_;
  return std::make_shared<RealDoctor>(std::move(here));
}

DriverConfig RealDriverFactory::onThisComputer(const DriverConfig& config) const {
  DriverConfig here = config;
  here.proxyFor = proxyFor_;
  if (!extraCaCertPath_.empty()) here.extraCaCertPath = extraCaCertPath_;
  return here;
}

}  // namespace verdo
