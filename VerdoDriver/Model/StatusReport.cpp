#include "VerdoDriver/Model/StatusReport.h"

#include "VerdoDriver/Model/Headline.h"
#include "VerdoDriverCore/Contract/Protocol.h"
#include "VerdoDriverCore/Values/JV.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Url.h"

#include <utility>

namespace verdo {
namespace {

JV orNull(const std::optional<std::string>& text) { return text ? JV(*text) : JV(); }

JV listOf(const std::vector<std::string>& texts) {
  JV::Array list;
  for (const auto& text : texts) list.emplace_back(text);
  return JV(std::move(list));
}

/// How the pairing stands; null without one.
JV pairingOf(const AppModel& model) {
  const auto& state = model.pairing();
  if (const auto* waiting = std::get_if<PairingWaiting>(&state)) {
    return JV(JV::Object{
        {"state", "waiting"},
        {"userCode", waiting->userCode},
        {"verifyURL", waiting->verifyURL},
        {"expiresInSeconds", secondsUntil(waiting->expiresAt, model.clock())},
    });
  }
  if (std::holds_alternative<PairingConnecting>(state)) {
    return JV(JV::Object{{"state", "connecting"}});
  }
  if (const auto* failed = std::get_if<PairingFailed>(&state)) {
    return JV(JV::Object{{"state", "failed"}, {"message", failed->message}});
  }
  return {};
}

JV secretStoreOf(const AppModel& model) {
  const auto place = model.secretPlace();
  const auto state = model.storedSecrets().token().state;
  return JV(JV::Object{
      {"kind", place ? JV(nameOf(place->kind)) : JV()},
      {"locked", state == SecretState::locked},
      {"unavailable", state == SecretState::unavailable},
  });
}

}  // namespace

std::string statusReport(const AppModel& model, bool isPopoverVisible) {
  const auto& supervisor = model.supervisor();
  const auto connection = model.connection();
  const auto headline = headlineOf(model);
  JV::Object report{
      {"connection", nameOf(connection)},
      {"word", wordOf(connection)},
      {"tooltip",
       tooltipOf(connection, supervisor.busyLanes(), model.releases().updateAvailable())},
      {"icon", nameOf(connection)},
      {"server", withoutUserInfo(model.settings().serverURL())},
      {"user", orNull(supervisor.username())},
      {"hasToken", model.hasToken()},
      {"tokenLast4", orNull(model.storedSecrets().token().last4)},
      {"hasKey", model.hasKey()},
      {"keyLast4", orNull(model.storedSecrets().key().last4)},
      {"busyLanes", listOf(supervisor.busyLanes())},
      {"servedCount", supervisor.servedCount()},
      {"lastJob", orNull(supervisor.lastJob())},
      {"lastError", orNull(supervisor.lastError())},
      {"retryInSeconds",
       headline.retryAt ? JV(secondsUntil(*headline.retryAt, model.clock())) : JV()},
      {"title", headline.title},
      {"detail", headline.detail},
      {"action", nameOf(headline.action)},
      {"updateAvailable", model.releases().updateAvailable()},
      {"restartDue", model.releases().restartDue()},
      {"pairing", pairingOf(model)},
      {"secretStore", secretStoreOf(model)},
      {"spacesHolder", supervisor.spacesHolder().empty() ? JV() : JV(supervisor.spacesHolder())},
      {"popoverVisible", isPopoverVisible},
      {"version", DRIVER_VERSION},
  };
  return PyJSON::text(JV(std::move(report)));
}

}  // namespace verdo
