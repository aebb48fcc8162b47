#include "VerdoDriver/UI/SetupSection.h"

#include "VerdoDriver/Model/ServerURL.h"
#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/CheckBox.h"
#include "VerdoDriver/UI/Confirm.h"
#include "VerdoDriver/UI/Field.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"
#include "VerdoDriver/UI/PairingView.h"
#include "VerdoDriverCore/Values/Url.h"

#include <utility>

namespace verdo {
namespace {

QLabel* captionFor(QWidget* field, const QString& text, QWidget* parent) {
  auto* caption = new QLabel(text, parent);
  caption->setBuddy(field);
  caption->setFixedWidth(Look::kCaption);
  return caption;
}

QHBoxLayout* rowIn(QWidget* widget) {
  auto* layout = Look::row();
  widget->setLayout(layout);
  return layout;
}

}  // namespace

// What is made here is made in the order of the screen, which the tab key follows.
SetupSection::SetupSection(AppModel& model, const std::string& defaultServerURL, QWidget* parent)
    : Fold("Setup", parent),
      model_(model),
      defaultServerURL_(defaultServerURL),
      server_(new Field("Server URL", bodyWidget())),
      insecure_(new CheckBox("Allow plain http", bodyWidget())),
      keyRow_(new QWidget(bodyWidget())),
      key_(new Field("DeepSeek key", keyRow_)),
      removeKey_(
          new Button(Button::Kind::plain, "Remove", keyRow_, [this] { model_.removeKey(); })),
      pairing_(new PairingView(model, bodyWidget())),
      checking_(new Label(Label::Style::text, Label::Fit::wrap, bodyWidget())),
      failure_(new Label(Label::Style::text, Label::Fit::wrap, bodyWidget())),
      missing_(new Label(Label::Style::fact, Label::Fit::wrap, bodyWidget())),
      buttons_(new QWidget(bodyWidget())),
      connect_(new Button(Button::Kind::primary, "Connect to website", buttons_,
                          [this] { connectToWebsite(); })),
      saveKey_(new Button(Button::Kind::plain, "Save key", buttons_, [this] { saveKey(); })),
      startOver_(new Button(Button::Kind::plain, "Start over", buttons_,
                            [this] { model_.cancelPairing(); })),
      tokenRow_(new QWidget(bodyWidget())),
      token_(new Label(Label::Style::text, Label::Fit::elide, tokenRow_)),
      forget_(new Button(Button::Kind::plain, "Forget token", tokenRow_,
                         [this] {
                           confirm_->ask(
                               "Forget the token? This computer then serves no jobs "
                               "until it is connected again.");
                         })),
      confirm_(new Confirm("Forget", bodyWidget(), [this] { model_.forgetToken(); })) {
  server_->setPlaceholderText("https://");
  offer(model.settings().serverURL());
  insecure_->setChecked(model.settings().allowInsecure());
  key_->setEchoMode(QLineEdit::Password);
  removeKey_->setAccessibleName("Remove the DeepSeek key");
  build();

  for (Field* field : {server_, key_}) {
    connect(field, &QLineEdit::textEdited, this, &SetupSection::refresh);
    connect(field, &QLineEdit::returnPressed, this, &SetupSection::submit);
  }
  connect(confirm_, &Confirm::turned, this,
          [this](bool asking) { tokenRow_->setVisible(!asking); });
  // Called off is not done: what was typed is still wanted.
  connect(pairing_, &PairingView::cancelled, this, [this] { wasBusy_ = false; });
  connect(&model.settings(), &SettingsStore::serverURLChanged, this, &SetupSection::offer);
  connect(&model.settings(), &SettingsStore::allowInsecureChanged, insecure_,
          &CheckBox::setChecked);
}

/// Shows the chosen server; without one all is as at the first start.
void SetupSection::offer(const std::string& serverURL) {
  server_->setText(QString::fromStdString(serverURL.empty() ? defaultServerURL_ : serverURL));
  if (serverURL.empty()) key_->clear();
}

void SetupSection::build() {
  auto* serverRow = Look::row();
  serverRow->addWidget(captionFor(server_, "Server", bodyWidget()));
  serverRow->addWidget(server_, 1);
  auto* keyRow = rowIn(keyRow_);
  keyRow->addWidget(captionFor(key_, "Key", keyRow_));
  keyRow->addWidget(key_, 1);
  keyRow->addWidget(removeKey_);
  auto* buttons = rowIn(buttons_);
  for (Button* button : {connect_, saveKey_, startOver_}) buttons->addWidget(button);
  buttons->addStretch();
  auto* tokenRow = rowIn(tokenRow_);
  tokenRow->addWidget(captionFor(forget_, "Token", tokenRow_));
  tokenRow->addWidget(token_, 1);
  tokenRow->addWidget(forget_);

  body()->addLayout(serverRow);
  body()->addWidget(insecure_);
  body()->addWidget(keyRow_);
  body()->addWidget(pairing_);
  for (Label* label : {checking_, failure_, missing_}) body()->addWidget(label);
  body()->addWidget(buttons_);
  body()->addWidget(tokenRow_);
  body()->addWidget(confirm_);
}

std::string SetupSection::serverURL() const {
  return lowerScheme(trimmedServerUrl(server_->text().toStdString()));
}

std::string SetupSection::key() const { return key_->text().trimmed().toStdString(); }

/// Plain http to another computer: only with the user's consent.
bool SetupSection::needsConsent() const {
  const auto url = Url::parse(serverURL());
  return url && !url->isHttps() && !url->isPlainLoopback();
}

/// Something is under way that the fields must not change.
bool SetupSection::isBusy() const {
  const auto& state = model_.pairing();
  return model_.isAskingForCode() || model_.isCheckingKey() ||
         std::holds_alternative<PairingWaiting>(state) ||
         std::holds_alternative<PairingConnecting>(state);
}

QString SetupSection::failure() const {
  if (isBusy()) return {};
  if (const auto& failed = model_.connectFailure()) {
    const bool lacksBrowser = failed->action == StatusText::Action::installEgo;
    const auto advice = lacksBrowser ? " " + browserAdvice(model_) : "";
    return Look::shownMessage(failed->title + " — " + failed->detail + advice);
  }
  const auto* failed = std::get_if<PairingFailed>(&model_.pairing());
  return failed ? Look::shownMessage(failed->message) : QString();
}

/// Why there is nothing to press.
QString SetupSection::missing() const {
  if (isBusy()) return {};
  if (serverURL().empty()) return "Type the address of the website first.";
  if (key().empty() && !model_.hasKey()) return "Type your DeepSeek key first: jobs run on it.";
  return {};
}

void SetupSection::refresh() {
  bodyWidget()->setEnabled(!model_.isRemoving());
  const bool busy = isBusy();
  // What was typed is kept until it is known to be stored.
  if (std::exchange(wasBusy_, busy) && !busy && failure().isEmpty() && !model_.secretFailure()) {
    key_->clear();
  }
  refreshServer(busy);
  refreshKey(busy);
  pairing_->refresh();
  checking_->tell(QString(model_.isCheckingKey() ? "Checking the key…" : ""));
  failure_->tell(failure());
  missing_->tell(missing());
  refreshButtons(busy);
  refreshToken(busy);
  refreshOpen();
}

void SetupSection::refreshServer(bool isBusy) {
  server_->setEnabled(!isBusy && !model_.hasApproval());
  insecure_->setVisible(needsConsent());
  insecure_->setEnabled(server_->isEnabled());
}

void SetupSection::refreshKey(bool isBusy) {
  keyRow_->setVisible(!isBusy);
  removeKey_->setVisible(model_.hasKey());
  const QString stored = Look::shown(model_.storedSecrets().key().last4.value_or("····"));
  key_->setPlaceholderText(model_.hasKey() ? stored + " is stored" : "DeepSeek key");
  setFact(model_.hasKey() ? stored + " key" : "");
}

void SetupSection::refreshButtons(bool isBusy) {
  buttons_->setVisible(!isBusy);
  connect_->setEnabled(missing().isEmpty());
  connect_->setPrimary(!model_.hasToken());
  connect_->setText(model_.hasApproval() ? "Try this key" : "Connect to website");
  saveKey_->setVisible(model_.hasToken() && !model_.hasApproval() && !key().empty());
  startOver_->setVisible(model_.hasApproval());
}

void SetupSection::refreshToken(bool isBusy) {
  const bool isForgettable = model_.hasToken() && !isBusy;
  if (!isForgettable) confirm_->dismiss();
  tokenRow_->setVisible(isForgettable && confirm_->isHidden());
  token_->tell(model_.storedSecrets().token().last4.value_or("····"));
}

void SetupSection::refreshOpen() {
  const bool isWaitingForKeyring =
      !model_.storedSecrets().isKnown() && !model_.settings().serverURL().empty();
  const bool needed = !model_.isConfigured() && !isWaitingForKeyring;
  if (neededSetup_ == needed) return;
  neededSetup_ = needed;
  setOpen(needed);
}

void SetupSection::lead(Headline::Action action) {
  setOpen(true);
  QWidget* place = action == Headline::Action::fixServer || serverURL().empty() ? server_ : key_;
  place->setFocus(Qt::OtherFocusReason);
  if (action == Headline::Action::fixToken && connect_->isEnabled()) connectToWebsite();
}

void SetupSection::connectToWebsite() {
  if (isBusy() || !missing().isEmpty()) return;
  model_.startPairing(serverURL(), needsConsent() && insecure_->isChecked(), key());
  refresh();
}

void SetupSection::saveKey() {
  if (isBusy() || key().empty()) return;
  model_.saveKey(key());
  refresh();
}

/// The return key: saves a key that was typed beside a stored token, and connects otherwise.
void SetupSection::submit() {
  if (!saveKey_->isHidden() && key_->hasFocus()) return saveKey();
  connectToWebsite();
}

}  // namespace verdo
