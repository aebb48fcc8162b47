#include "VerdoDriver/Model/Removal.h"

#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriver/Model/SecretTask.h"

#include <QPointer>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

/// Goes on behind a secret that stays. But a user who was asked and did not allow it, or has quit
/// meanwhile, is not asked again for the next one.
SecretStore::Result<Removal::Left> removeFrom(SecretStore& secrets) {
  Removal::Left left;
  SecretStore::Result<void> removed;
  for (const auto account : kSecretAccounts) {
    const bool isLocked = !removed && removed.error().kind == SecretError::Kind::locked;
    if (!isLocked) removed = secrets.remove(account);
    if (removed) continue;
    const char* name = account == SecretAccount::driverToken ? "token" : "key";
    left.push_back(fmt::format("the {} ({})", name, removed.error().description));
  }
  if (left.empty()) secrets.forgetPlace();
  return left;
}

}  // namespace

void Removal::begin(std::function<void(const Left&)> done) {
  MainThread::require("Removal::begin");
  if (isUnderWay()) return;
  done_ = std::move(done);
  left_.clear();
  parts_.log->write("» removal of everything requested");
  parts_.supervisor->stop(DriverSupervisor::kStopTimeout, [self = QPointer(this)] {
    if (!self) return;
    self->parts_.supervisor->killJobsNow();  // of a run that did not stop
    self->removeSecrets();
  });
}

void Removal::removeSecrets() {
  const auto work = [secrets = parts_.secrets] { return removeFrom(*secrets); };
  askSecretStore(work, [self = QPointer(this)](const SecretStore::Result<Left>& left) {
    if (!self) return;
    self->note(left ? *left
                    : Left{fmt::format("the token and the key ({})", left.error().description)});
    self->removeTraces();
  });
}

void Removal::removeTraces() {
  const auto done = [self = QPointer(this)](const Left& left) {
    if (!self) return;
    self->note(left);
    self->removeChoices();
  };
  try {
    runInBackground("verdo-removal", parts_.removeTraces, done);
  } catch (const std::system_error& error) {
    done({fmt::format("the browser's profiles and files of jobs ({})", error.what())});
  }
}

/// The settings last: they say where the secrets are.
void Removal::removeChoices() {
  parts_.loginItems->setEnabled(false);
  if (parts_.loginItems->isEnabled()) note({"the start at login"});
  if (!parts_.settings->forgetAll()) note({"the settings"});
  for (const auto& one : left_) parts_.log->write("✗ not removed: " + one);
  if (left_.empty()) parts_.log->write("» everything removed");
  const auto done = std::exchange(done_, nullptr);
  done(std::exchange(left_, {}));
}

void Removal::note(const Left& left) { left_.insert(left_.end(), left.begin(), left.end()); }

}  // namespace verdo
