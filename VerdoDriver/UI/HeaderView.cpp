#include "VerdoDriver/UI/HeaderView.h"

#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/JobsView.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"
#include "VerdoDriverCore/Values/Url.h"

namespace verdo {
namespace {

using Action = Headline::Action;

constexpr int kGap = 12;  ///< between the shape and the texts

/// "ada · verdo.example", or the one of the two that is known.
QString accountOf(const AppModel& model) {
  const auto url = Url::parse(model.settings().serverURL());
  const QString host = url ? Look::shown(url->host()) : QString();
  const QString user = Look::shown(model.supervisor().username().value_or(""));
  return user + (user.isEmpty() || host.isEmpty() ? "" : " · ") + host;
}

/// Whether a click on the button would do anything.
bool isPossible(Action action, const AppModel& model) {
  if (action == Action::downloadUpdate) return model.releases().downloadURL().has_value();
  if (action == Action::installEgo) return model.releases().egoInstallURL().has_value();
  return action != Action::none;
}

/// The driver does not do its work, and nothing is under way that may change that by itself soon.
bool isInTrouble(const AppModel& model) {
  if (model.isRemoving() || model.supervisor().isStopping()) return false;
  const auto connection = model.connection();
  return connection == Connection::offline || connection == Connection::stopped ||
         model.supervisor().retry() || model.connectFailure();
}

/// What becomes of the browser's task spaces while another driver looks after them.
QString sharingOf(const AppModel& model) {
  const auto& holder = model.supervisor().spacesHolder();
  if (holder.empty()) return {};
  return "Another driver (" + Look::shown(holder, 64) +
         ") looks after the browser's task spaces; this one closes none but its own jobs'.";
}

}  // namespace

HeaderView::HeaderView(AppModel& model, const PopoverHost& host, QWidget* parent)
    : QWidget(parent),
      model_(model),
      host_(host),
      shape_(new QLabel(this)),
      title_(new Label(Label::Style::headline, Label::Fit::wrap, this)),
      account_(new Label(Label::Style::fact, Label::Fit::elide, this)),
      detail_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      advice_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      jobs_(new JobsView(model, this)),
      sharing_(new Label(Label::Style::fact, Label::Fit::wrap, this)),
      removal_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      unwritable_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      secretFailure_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      prompt_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      buttons_(new QWidget(this)),
      help_(new Button(Button::Kind::primary, "", buttons_, [this] { act(); })),
      start_(
          new Button(Button::Kind::plain, "Start", buttons_, [this] { model_.restartDriver(); })),
      restart_(
          new Button(Button::Kind::plain, "Restart", buttons_, [this] { model_.restartDriver(); })),
      stop_(new Button(Button::Kind::plain, "Stop", buttons_, [this] { model_.stopDriver(); })),
      check_(new Button(Button::Kind::quiet, "Something wrong? Check", this,
                        [this] { model_.checkup().begin(); })) {
  shape_->setFixedSize(Look::kShape, Look::kShape);

  auto* texts = new QVBoxLayout;
  texts->setSpacing(Look::kGrid / 2);
  for (Label* label : {title_, account_, detail_, advice_}) texts->addWidget(label);
  texts->addWidget(jobs_);
  for (Label* label : {sharing_, removal_, unwritable_, secretFailure_, prompt_})
    texts->addWidget(label);
  auto* buttons = Look::row();
  buttons_->setLayout(buttons);
  buttons->setContentsMargins(0, Look::kGrid / 2, 0, 0);
  for (Button* button : {help_, start_, restart_, stop_}) buttons->addWidget(button);
  buttons->addStretch();
  texts->addWidget(buttons_);

  auto* head = Look::row();
  head->setSpacing(kGap);
  head->addWidget(shape_, 0, Qt::AlignTop);
  head->addLayout(texts, 1);
  auto* check = Look::row();
  // A quiet button's text, not its edge, stands below the others.
  check->setContentsMargins(Look::kShape + kGap - Look::kGrid, 0, 0, 0);
  check->addWidget(check_);
  check->addStretch();
  auto* rows = Look::column(this);
  rows->setContentsMargins(Look::kMargin, Look::kMargin, Look::kMargin, Look::kMargin);
  rows->setSpacing(Look::kGrid / 2);
  rows->addLayout(head);
  rows->addLayout(check);
}

void HeaderView::refresh(bool isSetupOpen) {
  const auto headline = headlineOf(model_);
  refreshShape();
  title_->tell(headline.title);
  // While it connects, the detail is the server.
  const bool isConnecting = model_.connection() == Connection::connecting;
  account_->tell(model_.isConfigured() && !isConnecting ? accountOf(model_) : QString());
  detail_->tell(Look::shownMessage(headline.detail));
  advice_->tell(headline.action == Action::installEgo ? browserAdvice(model_) : std::string());
  jobs_->refresh(headline.detail);
  sharing_->tell(sharingOf(model_));
  removal_->tell(model_.isRemoving() ? "Removing everything…"
                                     : model_.removalReport().value_or(""));
  unwritable_->tell(QString(model_.settings().isWritable()
                                ? ""
                                : "The settings cannot be saved: your choices last until the app "
                                  "ends."));
  secretFailure_->tell(model_.secretFailure().value_or(""));
  prompt_->tell(QString(model_.isPromptOpen() ? kSecretPromptText : ""));
  refreshButtons(headline, isSetupOpen);
  check_->setVisible(isInTrouble(model_) && model_.checkup().state() == Checkup::State::closed);
  buttons_->setEnabled(!model_.isRemoving());
}

void HeaderView::refreshShape() {
  const std::pair wanted(model_.connection(), devicePixelRatioF());
  if (shown_ == wanted) return;
  shown_ = wanted;
  shape_->setPixmap(host_.shape(wanted.first, Look::kShape, wanted.second));
  shape_->setAccessibleName(wordOf(wanted.first));
}

void HeaderView::refreshButtons(const Headline& headline, bool isSetupOpen) {
  action_ = headline.action;
  help_->setText(labelOf(action_));
  help_->setVisible(isPossible(action_, model_) && !(action_ == Action::setUp && isSetupOpen));
  const DriverState& state = model_.supervisor().state();
  // A launch that still reads its secrets is as good as a run.
  const bool isStopping = model_.supervisor().isStopping();
  const bool hasRun = !isStopping && (model_.supervisor().hasCurrentRun() ||
                                      std::holds_alternative<DriverStarting>(state));
  const bool hasEnded = std::holds_alternative<DriverStopped>(state);
  start_->setVisible(model_.isConfigured() && hasEnded && !hasRun && action_ != Action::fixToken);
  restart_->setVisible(hasRun);
  stop_->setVisible(hasRun);
  buttons_->setVisible(!help_->isHidden() || !start_->isHidden() || hasRun);
}

void HeaderView::act() {
  switch (action_) {
    case Action::start:
      return model_.restartDriver();
    case Action::unlock:
      return model_.unlockSecrets();
    case Action::installEgo:
      return model_.releases().openEgoInstall();
    case Action::downloadUpdate:
      return model_.releases().openDownload();
    case Action::retryNow:
      return model_.supervisor().kick();
    case Action::setUp:
    case Action::fixToken:
    case Action::fixKey:
    case Action::fixServer:
      Q_EMIT setupWanted(action_);
      break;
    case Action::none:
      break;
  }
}

}  // namespace verdo
