#include "VerdoDriver/UI/OptionsSection.h"

#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/CheckBox.h"
#include "VerdoDriver/UI/Confirm.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"

#include <QComboBox>
#include <QHideEvent>

namespace verdo {
namespace {

const char* wordsFor(KeepAwakeMode mode) {
  return mode == KeepAwakeMode::always ? "While connected" : "While a job runs";
}

constexpr const char* kRemovalQuestion =
    "Remove the token, the key, the start at login, all settings, the task spaces and logins of "
    "verdo-browser, and files of jobs? Running jobs are ended. Only the log stays.";

}  // namespace

OptionsSection::OptionsSection(AppModel& model, QWidget* parent)
    : Fold("Options", parent),
      model_(model),
      launchAtLogin_(new CheckBox("Launch at login", bodyWidget())),
      autoStart_(new CheckBox("Start automatically", bodyWidget())),
      keepAwake_(new QComboBox(bodyWidget())),
      secretPlace_(new Label(Label::Style::fact, Label::Fit::wrap, bodyWidget())),
      check_(new Button(Button::Kind::plain, "Check the driver", bodyWidget(),
                        [this] { model_.checkup().begin(); })),
      removeAll_(new Button(Button::Kind::plain, "Remove everything…", bodyWidget(),
                            [this] { confirm_->ask(kRemovalQuestion); })),
      confirm_(new Confirm("Remove", bodyWidget(), [this] { model_.removeEverything(); })) {
  for (CheckBox* box : {launchAtLogin_, autoStart_}) body()->addWidget(box);
  check_->setAccessibleDescription("Looks for what keeps it from working");
  autoStart_->setAccessibleDescription("Connects as soon as the app runs");
  for (const auto mode : kKeepAwakeModes) keepAwake_->addItem(wordsFor(mode));
  keepAwake_->setFixedHeight(Look::kRow);
  keepAwake_->setFocusPolicy(Qt::StrongFocus);
  auto* keepAwakeRow = Look::row();
  auto* caption = new QLabel("Keep awake", bodyWidget());
  caption->setBuddy(keepAwake_);
  keepAwakeRow->addWidget(caption);
  keepAwakeRow->addWidget(keepAwake_, 1);
  body()->addLayout(keepAwakeRow);
  body()->setSpacing(0);
  body()->addSpacing(Look::kGrid / 2);
  body()->addWidget(secretPlace_);
  body()->addSpacing(Look::kGrid / 2);
  body()->addWidget(check_, 0, Qt::AlignLeft);
  body()->addSpacing(Look::kGrid);
  body()->addWidget(removeAll_, 0, Qt::AlignLeft);
  body()->addWidget(confirm_);

  connect(confirm_, &Confirm::turned, this,
          [this](bool isAsking) { removeAll_->setVisible(!isAsking); });
  connect(launchAtLogin_, &QCheckBox::clicked, this, [this](bool launch) {
    model_.setLaunchAtLogin(launch);
    refresh();  // the system may have refused
  });
  connect(autoStart_, &QCheckBox::clicked, this,
          [this](bool start) { model_.settings().setAutoStart(start); });
  connect(keepAwake_, &QComboBox::activated, this,
          [this](int index) { model_.settings().setKeepAwakeMode(kKeepAwakeModes[index]); });
}

void OptionsSection::hideEvent(QHideEvent* event) {
  if (!event->spontaneous()) confirm_->dismiss();
  Fold::hideEvent(event);
}

void OptionsSection::refresh() {
  bodyWidget()->setEnabled(!model_.isRemoving());
  launchAtLogin_->setChecked(model_.launchesAtLogin());
  autoStart_->setChecked(model_.settings().autoStart());
  keepAwake_->setCurrentIndex(model_.settings().keepAwakeMode() == KeepAwakeMode::always ? 0 : 1);
  const auto place = model_.secretPlace();
  const bool isInFiles = place && place->kind == SecretPlace::Kind::files;
  secretPlace_->tell(QString(isInFiles ? "Secrets are kept in files that only you can read." : ""));
}

}  // namespace verdo
