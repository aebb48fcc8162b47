#include "VerdoDriver/Model/Releases.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/SafeLink.h"

#include <QPointer>
#include <utility>

namespace verdo {

void Releases::refresh() {
  lookAtProgram();
  if (parts_.settings->serverURL().empty()) return;
  lastManifest_ = parts_.clock->now();
  schedule();
  parts_.checker->check(parts_.settings->serverURL(), parts_.settings->allowInsecure(),
                        [self = QPointer(this)](const UpdateChecker::Outcome& outcome) {
                          if (self && outcome) self->take(*outcome);
                        });
}

void Releases::refreshIfOld() {
  const bool isOld =
      !lastManifest_ || parts_.clock->now() - *lastManifest_ >= parts_.manifestInterval;
  if (isOld) return refresh();
  lookAtProgram();
}

void Releases::lookAtProgram() {
  const bool isDue = parts_.isProgramReplaced && parts_.isProgramReplaced();
  if (std::exchange(restartDue_, isDue) == isDue) return;
  if (isDue) AppLog::update.info("[Releases] another program has taken this one's place");
  Q_EMIT changed();
}

void Releases::updateWasNamed() {
  updateAvailable_ = true;
  Q_EMIT changed();
}

void Releases::forget() {
  manifest_.reset();
  updateAvailable_ = false;
  lastManifest_.reset();
  if (token_) token_->cancel();
  Q_EMIT changed();
}

void Releases::take(const AppManifest& manifest) {
  manifest_ = manifest;
  updateAvailable_ = updateAvailable_ || parts_.checker->isNewer(manifest);
  if (manifest.dmgURL && !downloadURL()) {
    AppLog::update.info("[Releases] dmg_url refused (not https / same-origin): " +
                        *manifest.dmgURL);
  }
  Q_EMIT changed();
}

void Releases::schedule() {
  if (token_) token_->cancel();
  token_ = parts_.clock->after(kManifestDay, [self = QPointer(this)] {
    if (self) self->refresh();
  });
}

std::optional<std::string> Releases::downloadURL() const {
  if (!manifest_) return std::nullopt;
  return SafeLink::allowed(manifest_->dmgURL, parts_.settings->serverURL());
}

std::optional<std::string> Releases::egoInstallURL() const {
  if (!manifest_) return std::nullopt;
  return SafeLink::allowed(manifest_->egoInstallURL, parts_.settings->serverURL());
}

void Releases::openDownload() const {
  if (const auto link = downloadURL()) parts_.openURL(*link);
}

void Releases::openEgoInstall() const {
  if (const auto link = egoInstallURL()) parts_.openURL(*link);
}

}  // namespace verdo
