#include "VerdoDriver/Model/Checkup.h"

#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Model/CheckupWords.h"
#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriverCore/Doctor/Report.h"
#include "VerdoDriverCore/System/Sync.h"

#include <QPointer>
#include <algorithm>
#include <system_error>
#include <utility>

namespace verdo {

/// One time that somebody asked. Before there is a doctor the secret store is asked.
struct Checkup::Examination {
  std::shared_ptr<DoctorHandle> doctor;  ///< set once, before its thread begins
  bool isStopped = false;
  Event hasEnded;  ///< the doctor
};

Checkup::~Checkup() { stop(); }

void Checkup::begin() {
  MainThread::require("Checkup::begin");
  stop();
  examination_ = std::make_shared<Examination>();
  findings_.clear();
  report_.clear();
  state_ = State::running;
  parts_.source->ask([self = QPointer(this), examination = examination_](const auto& outlook) {
    if (self && self->isCurrent(examination.get())) self->examine(outlook);
  });
  Q_EMIT changed();
}

void Checkup::close() {
  MainThread::require("Checkup::close");
  stop();
  if (state_ == State::closed) return;
  state_ = State::closed;
  findings_.clear();
  report_.clear();
  Q_EMIT changed();
}

bool Checkup::end(std::chrono::milliseconds limit) {
  close();
  const auto deadline = std::chrono::steady_clock::now() + limit;
  return std::all_of(ending_.begin(), ending_.end(), [deadline](const auto& examination) {
    return examination->hasEnded.waitFor(deadline - std::chrono::steady_clock::now());
  });
}

void Checkup::stop() {
  if (!examination_ || std::exchange(examination_->isStopped, true) || !examination_->doctor)
    return;
  examination_->doctor->stop();
  std::erase_if(ending_, [](const auto& examination) { return examination->hasEnded.isSet(); });
  ending_.push_back(examination_);
}

bool Checkup::isCurrent(const Examination* examination) const {
  return examination_.get() == examination && !examination->isStopped;
}

std::size_t Checkup::failures() const {
  return static_cast<std::size_t>(std::count_if(findings_.begin(), findings_.end(),
                                                [](const auto& one) { return one.hasFailed(); }));
}

void Checkup::examine(const ConfigSource::Outlook& outlook) {
  Doctor::Options options;
  options.config = outlook.config;
  options.remedies = remediesOfTheApp();
  if (outlook.config.server.empty()) {
    options.configurationDefect = noServerFinding();
  } else if (outlook.error) {
    options.configurationDefect = unknownTokenFinding();
  }
  // The store has told already; it is not asked once more beside its queue.
  options.secretStore = [finding = secretStoreFinding(parts_.settings->secretPlace(),
                                                      outlook.error)] { return finding; };
  const auto post = [self = QPointer(this), examination = examination_](auto report) {
    MainThread::post([self, examination, report = std::move(report)] {
      if (self && self->isCurrent(examination.get())) report(*self);
    });
  };
  examination_->doctor = parts_.factory->makeDoctor(options);
  const auto work = [post, examination = examination_, config = outlook.config] {
    std::vector<Finding> findings;
    const auto tell = [&](const Finding& finding) {
      findings.push_back(finding);
      post([finding](Checkup& checkup) { checkup.found(finding); });
    };
    try {
      examination->doctor->run(tell);
    } catch (const std::exception& error) {
      tell(brokenCheckFinding(error));
    }
    post([report = reportOf(findings, config)](Checkup& checkup) { checkup.finish(report); });
    examination->hasEnded.set();
  };
  try {
    runInBackground("verdo-checkup", work);
  } catch (const std::system_error& error) {
    examination_->hasEnded.set();
    found(brokenCheckFinding(error));
    finish(reportOf(findings_, outlook.config));
  }
}

void Checkup::found(const Finding& finding) {
  findings_.push_back(finding);
  Q_EMIT changed();
}

void Checkup::finish(const std::string& report) {
  report_ = report;
  state_ = State::done;
  Q_EMIT changed();
}

}  // namespace verdo
