#include "VerdoDriver/Model/Headline.h"

#include <algorithm>

#include <fmt/format.h>

namespace verdo {
namespace {

using Action = Headline::Action;

Action actionFor(StatusText::Action action) {
  switch (action) {
    case StatusText::Action::installEgo:
      return Action::installEgo;
    case StatusText::Action::downloadUpdate:
      return Action::downloadUpdate;
    case StatusText::Action::fixToken:
      return Action::fixToken;
    case StatusText::Action::fixKey:
      return Action::fixKey;
    case StatusText::Action::fixServer:
      return Action::fixServer;
    case StatusText::Action::none:
      break;
  }
  return Action::none;
}

Headline headlineOf(const StatusText& text) {
  return {text.title, text.detail, actionFor(text.action), std::nullopt};
}

/// While the store does not tell what it holds.
std::string waitingTitle(const AppModel& model) {
  const auto place = model.secretPlace();
  const bool isInFiles = place && place->kind == SecretPlace::Kind::files;
  return isInFiles ? "The token cannot be read" : "Waiting for the keyring";
}

/// The driver's state in words, for a model that is set up.
class Describe {
 public:
  explicit Describe(const AppModel& model) : model_(model) {}

  Headline operator()(const DriverIdle&) const {
    auto text = headlineOf(StatusText::describe(ExitReason::stopped()));
    text.action = Action::start;
    return text;
  }
  Headline operator()(const DriverWaiting& waiting) const {
    const bool isLocked = waiting.kind == SecretError::Kind::locked;
    return {waitingTitle(model_), waiting.reason, isLocked ? Action::unlock : Action::none,
            std::nullopt};
  }
  Headline operator()(const DriverStarting&) const {
    return {"Connecting…", model_.settings().serverURL(), Action::none, std::nullopt};
  }
  Headline operator()(const DriverRunning&) const {
    const char* title = model_.supervisor().busyLanes().empty() ? "Online" : "Online · busy";
    const auto& retry = model_.supervisor().retry();
    if (!retry) return {title, "", Action::none, std::nullopt};
    title = "Reconnecting…";
    const int seconds = secondsUntil(retry->until, model_.clock());
    // It is being asked just now, which may take as long as a poll does.
    if (seconds == 0) return {title, retry->message + " — retrying", Action::none, std::nullopt};
    return {title, fmt::format("{} — retrying in {} s", retry->message, seconds), Action::none,
            retry->until};
  }
  Headline operator()(const DriverBackoff& backoff) const {
    auto text = headlineOf(StatusText::describe(ExitReason::serverUnreachable(backoff.reason), {},
                                                secondsUntil(backoff.until, model_.clock())));
    text.action = Action::retryNow;
    text.retryAt = backoff.until;
    return text;
  }
  Headline operator()(const DriverStopped& stopped) const {
    return headlineOf(StatusText::describe(stopped.exit, model_.storedSecrets().key().last4));
  }

 private:
  const AppModel& model_;
};

}  // namespace

Headline headlineOf(const AppModel& model) {
  if (model.supervisor().isStopping()) {
    const bool hasJobs = !model.supervisor().busyLanes().empty();
    return {"Stopping…", hasJobs ? "Its jobs are ended first." : "", Action::none, std::nullopt};
  }
  if (model.isConfigured()) return std::visit(Describe(model), model.supervisor().state());
  if (!model.storedSecrets().isKnown() && !model.settings().serverURL().empty()) {
    const bool isLocked = model.storedSecrets().token().state == SecretState::locked;
    return {waitingTitle(model), "", isLocked ? Action::unlock : Action::none, std::nullopt};
  }
  return {"Not set up", "Connect this computer to the website.", Action::setUp, std::nullopt};
}

std::string browserAdvice(const AppModel& model) {
  if (model.releases().egoInstallURL() || model.browserPackage().empty()) return "";
  return fmt::format("The package {} will do, too.", model.browserPackage());
}

const char* labelOf(Headline::Action action) {
  switch (action) {
    case Action::setUp:
      return "Set up";
    case Action::start:
      return "Start";
    case Action::unlock:
      return "Unlock…";
    case Action::installEgo:
      return "Install";
    case Action::downloadUpdate:
      return "Download";
    case Action::fixToken:
      return "Connect to website";
    case Action::fixKey:
      return "Change the key";
    case Action::fixServer:
      return "Check the setup";
    case Action::retryNow:
      return "Try now";
    case Action::none:
      break;
  }
  return "";
}

const char* nameOf(Headline::Action action) {
  switch (action) {
    case Action::setUp:
      return "setUp";
    case Action::start:
      return "start";
    case Action::unlock:
      return "unlock";
    case Action::installEgo:
      return "installEgo";
    case Action::downloadUpdate:
      return "downloadUpdate";
    case Action::fixToken:
      return "fixToken";
    case Action::fixKey:
      return "fixKey";
    case Action::fixServer:
      return "fixServer";
    case Action::retryNow:
      return "retryNow";
    case Action::none:
      break;
  }
  return "none";
}

int secondsUntil(Clock::TimePoint time, const Clock& clock) {
  const auto left = std::chrono::ceil<std::chrono::seconds>(time - clock.now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 7 * 24 * 3600));
}

}  // namespace verdo
