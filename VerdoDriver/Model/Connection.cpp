#include "VerdoDriver/Model/Connection.h"

#include <sstream>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

struct Names {
  const char* word;
  const char* name;
};

Names namesOf(Connection connection) {
  switch (connection) {
    case Connection::notSetUp:
      return {"not set up", "notSetUp"};
    case Connection::connecting:
      return {"connecting", "connecting"};
    case Connection::online:
      return {"online", "online"};
    case Connection::busy:
      return {"online · busy", "busy"};
    case Connection::offline:
      return {"offline", "offline"};
    case Connection::stopped:
      break;
  }
  return {"stopped", "stopped"};
}

/// A lane of one piece shows as nothing.
std::string shownLane(const std::string& lane) {
  std::vector<std::string> pieces;
  std::istringstream text(lane);
  for (std::string piece; std::getline(text, piece, ':');) {
    if (!piece.empty()) pieces.push_back(std::move(piece));
  }
  if (!pieces.empty()) pieces.erase(pieces.begin());
  return fmt::format("{}", fmt::join(pieces, ":"));
}

}  // namespace

Connection connectionOf(bool isConfigured, const DriverState& state, bool isBusy) {
  if (!isConfigured) return Connection::notSetUp;
  if (std::holds_alternative<DriverStarting>(state)) return Connection::connecting;
  if (std::holds_alternative<DriverStopped>(state)) return Connection::stopped;
  if (!std::holds_alternative<DriverRunning>(state)) return Connection::offline;
  return isBusy ? Connection::busy : Connection::online;
}

const char* wordOf(Connection connection) { return namesOf(connection).word; }
const char* nameOf(Connection connection) { return namesOf(connection).name; }

std::string shownLanes(const std::vector<std::string>& lanes) {
  std::vector<std::string> shown;
  shown.reserve(lanes.size());
  for (const auto& lane : lanes) shown.push_back(shownLane(lane));
  return fmt::format("{}", fmt::join(shown, ", "));
}

std::string tooltipOf(Connection connection, const std::vector<std::string>& busyLanes,
                      bool updateAvailable) {
  std::string text = fmt::format("Verdo Driver — {}", wordOf(connection));
  if (connection == Connection::busy && !busyLanes.empty()) text += ": " + shownLanes(busyLanes);
  if (updateAvailable) text += " · update available";
  return text;
}

}  // namespace verdo
