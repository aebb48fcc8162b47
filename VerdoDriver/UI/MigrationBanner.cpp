#include "VerdoDriver/UI/MigrationBanner.h"

#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"

#include <QGridLayout>
#include <QHideEvent>

namespace verdo {
namespace {

/// "A terminal driver is installed, for https://verdo.example (token ····1234)."
QString offerOf(const LegacyInstall& legacy) {
  QString text = "A terminal driver is installed on this computer";
  if (legacy.server) text += ", for " + Look::shown(*legacy.server, 120);
  QStringList secrets;
  if (legacy.tokenLast4) secrets << "token " + Look::shown(*legacy.tokenLast4, 16);
  if (legacy.keyLast4) secrets << "key " + Look::shown(*legacy.keyLast4, 16);
  if (!secrets.isEmpty()) text += " (" + secrets.join(", ") + ")";
  return text + ".";
}

}  // namespace

MigrationBanner::MigrationBanner(AppModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      text_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      message_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      buttons_(new QWidget(this)),
      import_(
          new Button(Button::Kind::plain, "Import", buttons_,
                     [this] { model_.legacyImport().importLegacy(false, [](const auto&) {}); })),
      importAndRemove_(
          new Button(Button::Kind::plain, "Import and remove", buttons_,
                     [this] { model_.legacyImport().importLegacy(true, [](const auto&) {}); })),
      remove_(new Button(Button::Kind::plain, "Remove only", buttons_,
                         [this] { model_.legacyImport().removeLegacyOnly(); })),
      deleteEnvFile_(new Button(Button::Kind::plain, "Delete env file", buttons_,
                                [this] { model_.legacyImport().deleteLegacyEnvFile(); })) {
  auto* grid = new QGridLayout(buttons_);
  grid->setContentsMargins(0, 0, 0, 0);
  grid->setSpacing(Look::kGrid);
  grid->addWidget(import_, 0, 0);
  grid->addWidget(importAndRemove_, 0, 1);
  grid->addWidget(remove_, 1, 0);
  grid->addWidget(deleteEnvFile_, 1, 1);
  auto* rows = Look::column(this);
  rows->setContentsMargins(Look::kMargin, Look::kMargin, Look::kMargin, Look::kMargin);
  for (QWidget* widget :
       {static_cast<QWidget*>(text_), static_cast<QWidget*>(message_), buttons_}) {
    rows->addWidget(widget);
  }
}

void MigrationBanner::refresh() {
  auto& import = model_.legacyImport();
  const auto& legacy = import.legacy();
  const auto& message = import.migrationMessage();
  setVisible(legacy || (message && hasOffered_));
  if (legacy) hasOffered_ = true;
  text_->tell(legacy ? offerOf(*legacy) : QString());
  message_->tell(message ? Look::shownMessage(*message) : QString());
  buttons_->setVisible(legacy.has_value());
  buttons_->setEnabled(!import.legacyBusy());
  const bool hasEnvFile = legacy && legacy->envFileExists;
  import_->setEnabled(hasEnvFile);
  importAndRemove_->setEnabled(hasEnvFile);
  deleteEnvFile_->setVisible(hasEnvFile);
}

void MigrationBanner::hideEvent(QHideEvent* event) {
  if (!event->spontaneous()) hasOffered_ = false;
  QWidget::hideEvent(event);
}

}  // namespace verdo
