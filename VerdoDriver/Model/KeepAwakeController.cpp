#include "VerdoDriver/Model/KeepAwakeController.h"

#include "VerdoDriver/Model/AppLog.h"

#include <QPointer>
#include <utility>

#include <fmt/format.h>

namespace verdo {

KeepAwakeController::KeepAwakeController(std::shared_ptr<PowerAssertion> assertion,
                                         std::shared_ptr<Clock> clock, KeepAwakeMode mode)
    : assertion_(std::move(assertion)), clock_(std::move(clock)), mode_(mode) {}

KeepAwakeController::~KeepAwakeController() { cancelScheduledRelease(); }

void KeepAwakeController::setMode(KeepAwakeMode mode) {
  AppLog::keepAwake.info(fmt::format("[KeepAwake] mode → {}", nameOf(mode)));
  mode_ = mode;
  evaluate();
}

void KeepAwakeController::evaluate() {
  const bool onlyForJobs = mode_ == KeepAwakeMode::whileJobRuns;
  if (driverRunning_ && (busy_ || !onlyForJobs)) {
    cancelScheduledRelease();
    assertion_->hold(onlyForJobs ? "Verdo Driver is running a job" : "Verdo Driver is running");
  } else if (!assertion_->isHeld()) {
    return;
  } else if (onlyForJobs && driverRunning_) {
    scheduleRelease();
  } else {
    cancelScheduledRelease();
    assertion_->release();
  }
}

void KeepAwakeController::scheduleRelease() {
  if (releaseToken_) return;
  releaseToken_ = clock_->after(releaseDebounce_, [self = QPointer(this)] {
    if (!self) return;
    self->releaseToken_ = nullptr;
    if (!self->driverRunning_ || !self->busy_) self->assertion_->release();
  });
}

void KeepAwakeController::cancelScheduledRelease() {
  if (const auto token = std::exchange(releaseToken_, nullptr)) token->cancel();
}

}  // namespace verdo
