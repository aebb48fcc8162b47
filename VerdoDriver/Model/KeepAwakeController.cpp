#include "VerdoDriver/Model/KeepAwakeController.h"

#include "VerdoDriver/Model/AppLog.h"

#include <QPointer>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

/// Shorter than any time after which computers fall asleep.
constexpr std::chrono::seconds kRepeatInterval{60};

}  // namespace

KeepAwakeController::KeepAwakeController(std::shared_ptr<PowerAssertion> assertion,
                                         std::shared_ptr<Clock> clock, KeepAwakeMode mode)
    : assertion_(std::move(assertion)), clock_(std::move(clock)), mode_(mode) {}

KeepAwakeController::~KeepAwakeController() {
  cancelScheduledRelease();
  cancelRepeat();
}

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
    scheduleRepeat();
    return;
  }
  cancelRepeat();
  if (!assertion_->isHeld()) return;
  if (onlyForJobs && driverRunning_) {
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

void KeepAwakeController::scheduleRepeat() {
  if (repeatToken_) return;
  repeatToken_ = clock_->after(kRepeatInterval, [self = QPointer(this)] {
    if (!self) return;
    self->repeatToken_ = nullptr;
    self->evaluate();
  });
}

void KeepAwakeController::cancelRepeat() {
  if (const auto token = std::exchange(repeatToken_, nullptr)) token->cancel();
}

}  // namespace verdo
